// Contract-map packets against a plain reading of what they bring about, over random rules and instruments: every
// register access and log line in its order, the day file, the map and the store.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <set>

#include "src/api/ApiImpl.h"
#include "src/channel/DmaChannel.h"
#include "tests/doubles/LogLines.h"
#include "tests/doubles/TraceDrv.h"
#include "tests/equivalence/RandomMarket.h"
#include "tests/support/DayFiles.h"
#include "tests/support/FakeTime.h"
#include "tests/support/MapPacket.h"

namespace {

namespace plain = test_support::plain;

struct Announced {
    std::string id;
    unsigned short index;
};

/// Some packets of random instruments, repeats and known ids under other indexes among them.
std::vector<std::vector<Announced>> RandomPackets(RandomMarket& random) {
    std::vector<std::vector<Announced>> packets(1 + random.Number(3));
    for (auto& packet : packets) {
        for (auto left = 1 + random.Number(8); left > 0; --left) {
            const std::size_t rows = random.Once(10) ? 65536 : 30;
            packet.push_back({random.Id(), static_cast<unsigned short>(random.Number(rows))});
        }
    }
    return packets;
}

/// The plain reading.
class Reading {
public:
    explicit Reading(const plain::Rules (&rules)[card_reg::kChannels]) : m_rules(rules) {}

    void Take(const std::vector<Announced>& packet) {
        for (const Announced& inst : packet) {
            if (map.count(inst.id) != 0) continue;  // the first index of an id wins
            map[inst.id] = inst.index;
            dayFile += std::to_string(inst.index) + ',' + inst.id + '\n';
            m_classes.insert(inst.id.substr(0, 2));
            if (inst.id.size() >= 5) Subscribe(inst);
        }
        if (!m_complete) m_complete = Check();
    }

    std::string timeline;
    std::string dayFile = "inst_index,inst_id\n";
    plain::IdToIndex map;
    std::map<unsigned short, unsigned short> masks[2];
    plain::IndexToId names[2];

private:
    template <typename... Args>
    void Add(const char* format, Args... args) {
        char line[512];
        std::snprintf(line, sizeof line, format, args...);
        timeline += line;
        timeline += '\n';
    }
    void Subscribe(const Announced& inst) {
        for (unsigned int chan = 0; chan < card_reg::kChannels; ++chan) {
            const plain::Decision decision = plain::Decide(inst.id, m_rules[chan]);
            if (decision == plain::Decision::kSkip) continue;
            const int table = decision == plain::Decision::kCombine ? 1 : 0;
            unsigned short& mask = masks[table][inst.index];
            mask = static_cast<unsigned short>(mask | 1U << chan);
            names[table][inst.index] = inst.id;
            WriteRow(table, inst.index, mask);
        }
    }
    void WriteRow(int table, unsigned int index, unsigned int mask) {
        const unsigned int base = table == 0 ? 0x11000 : 0x12000;
        const char* name = names[table][static_cast<unsigned short>(index)].c_str();
        if (index > 8192) {
            Add("ERROR Subscribes:Write to fpga failed ! :chanbit:0x%x, index:%u, instId:%s", mask, index,
                names[0][static_cast<unsigned short>(index)].c_str());  // the single-leg name, whatever the table
        }
        Add("WR 0x%x 0x%x", base + 1, mask);
        Add("WR 0x%x 0x%x", base, index << 6);
        Add("INFO Subscribes:Write to fpga:chanbit:0x%x, index:%u, instId:%s", mask, index, name);
        Add("WR 0x%x 0x%x", base + 2, index << 6);
        Add("R 0x%x", base + 3);
    }
    // Whether all that is configured has been announced.
    bool Check() {
        for (unsigned int chan = 0; chan < card_reg::kChannels; ++chan) {
            const plain::Rules& rules = m_rules[chan];
            Add("INFO channel is %u, m_SubsContractClass size is %zu, m_SubsContractId is %zu.", chan,
                rules.classes.size(), rules.ids.size());
            for (const std::string& cls : rules.classes) {
                if (m_classes.count(cls) != 0) continue;
                Add("INFO Prefix is %s.", cls.c_str());
                return false;
            }
            for (const std::string& id : rules.ids) {
                if (map.count(id) != 0) continue;
                Add("INFO instId is %s .", id.c_str());
                return false;
            }
        }
        Add("INFO check config is success. m_bCfgInsSuccess is %d.", 1);
        return true;
    }

    const plain::Rules (&m_rules)[card_reg::kChannels];
    std::set<std::string> m_classes;
    bool m_complete = false;
};

/// A channel over a driver without a card, its rules set and nothing announced yet.
struct Channel {
    explicit Channel(const plain::Rules (&rules)[card_reg::kChannels]) {
        for (unsigned int chan = 0; chan < card_reg::kChannels; ++chan) cfg.m_stSubsInfo[chan] = Record(rules[chan]);
        fpga.Init(&drv);
        channel.m_pFpgaServ = &fpga;
        channel.m_pBinFile = &bin;
        channel.m_pContractServ = &contracts;
        channel.m_bCfgParsed = true;
    }
    void Deliver(const std::vector<Announced>& packet) {
        MapPacket bytes;
        for (const Announced& inst : packet) bytes.Add(inst.id, inst.index);
        CZceDmaChanImpl::DmaEntrance(bytes.Bytes().data(), static_cast<unsigned int>(bytes.Bytes().size()), &channel);
    }

    TraceDrv drv;
    CVexoZceMdApiImpl api{nullptr};
    Vexo2_U50::CZceConfigFile cfg{"unused.ini", &drv, &api};
    CZceDmaChanImpl channel{&drv, &api, &cfg};
    Vexo2_U50::CZceFpgaServ fpga{channel.m_mapInstIdx, 0};
    CBrixBinFile bin{channel.m_mapInstIdx, 0};
    Vexo2_U50::CContractServ contracts{channel.m_mapInstIdx, &cfg, &bin, &fpga, 0, cfg.m_stSubsInfo};
};

TEST(ContractMapEquivalence, PacketsBringAboutWhatThePlainReadingDoesInItsOrder) {
    const DayFiles day;
    const test_support::FakeTime clock(day.year, day.month, day.day, 10, 0, 0);
    for (unsigned int seed = 0; seed < 10000 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        RandomMarket random(seed);
        plain::Rules rules[card_reg::kChannels];
        for (plain::Rules& channel : rules) {
            if (random.Once(2)) channel = random.Rules();
        }
        const auto packets = RandomPackets(random);
        Reading expected(rules);
        for (const auto& packet : packets) expected.Take(packet);
        const bool withDayFile = seed % 20 == 0;  // some file systems wait for the disk with each one that is closed
        Channel library(rules);
        if (withDayFile) library.bin.InstBinFileInit();
        std::string timeline;

        {
            test_support::LogLines log;
            for (const auto& packet : packets) library.Deliver(packet);
            timeline = log.TakeText();
        }

        EXPECT_EQ(timeline, expected.timeline);
        if (withDayFile) {
            EXPECT_EQ(day.ReadMorning(), expected.dayFile);
        }
        EXPECT_EQ(library.channel.m_mapInstIdx, expected.map);
        EXPECT_EQ(library.fpga.oneLegChanBits, expected.masks[0]);
        EXPECT_EQ(library.fpga.combineChanBits, expected.masks[1]);
        EXPECT_EQ(library.fpga.oneLegNames, expected.names[0]);
        EXPECT_EQ(library.fpga.combineNames, expected.names[1]);
    }
}

}  // namespace
