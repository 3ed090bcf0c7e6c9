// Memory that runs out at every allocation of a contract-map packet: an instrument is learned as a whole or not at all,
// and the day file that lacks one never has its end tag.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <string>
#include <vector>

#include "interface/CardRegisters.h"
#include "src/api/ApiImpl.h"
#include "src/channel/DmaChannel.h"
#include "src/instruments/InstId.h"
#include "tests/doubles/FakeDrv.h"
#include "tests/doubles/LogLines.h"
#include "tests/support/DayFiles.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/FakeTime.h"
#include "tests/support/MapPacket.h"
#include "tests/support/TempDir.h"

namespace {

constexpr std::size_t kFromThenOn = std::numeric_limits<std::size_t>::max();
constexpr char kEndTag[] = "bin_file_over_tag\n";

struct Instrument {
    std::string id;
    std::uint16_t index;
};

/// The masks of the two tables, kept without allocating.
class MaskDrv : public test_support::FakeDrv {
public:
    int ReadInt32(unsigned long addr, unsigned int& value) override {
        for (const auto& table : card_reg::kTables) {
            if (addr == table.readBack) value = Row(table, m_selected[&table - card_reg::kTables]);
        }
        return 0;
    }
    int WriteInt32_LogWithRead(unsigned long addr, unsigned int value) override {
        for (const auto& table : card_reg::kTables) {
            const auto number = &table - card_reg::kTables;
            if (addr == table.data) m_data[number] = value;
            if (addr == table.command) Row(table, value) = m_data[number];
            if (addr == table.select) m_selected[number] = value;
        }
        return 0;
    }
    int WriteInt32_Log(unsigned long, unsigned int) override { return 0; }

    std::vector<unsigned int> masks[2] = {std::vector<unsigned int>(65536), std::vector<unsigned int>(65536)};

private:
    unsigned int& Row(const card_reg::TableRegisters& table, unsigned int address) {
        return masks[&table - card_reg::kTables].at(address >> card_reg::kRowShift);
    }
    unsigned int m_data[2] = {};
    unsigned int m_selected[2] = {};
};

/// What is known of the instruments: all that a start-up and the receive path go by.
struct Knowledge {
    Vexo2_U50::InstIdToIndex map;
    Vexo2_U50::IndexToChanBit masks[2];
    Vexo2_U50::IndexToInstId names[2];
    std::vector<unsigned int> rows[2];
    std::vector<std::string> classes;

    bool operator==(const Knowledge& other) const {
        return map == other.map && masks[0] == other.masks[0] && masks[1] == other.masks[1] &&
               names[0] == other.names[0] && names[1] == other.names[1] && rows[0] == other.rows[0] &&
               rows[1] == other.rows[1] && classes == other.classes;
    }
};

/// A master channel that learns its map from the card, over a driver without a card.
class LearningChannel {
public:
    LearningChannel(const std::string& ini, MaskDrv& drv) : m_drv(drv), m_cfg(ini, &drv, &m_api) {
        if (m_cfg.Init() != 0) throw std::runtime_error(ini);
        m_fpga.Init(&drv);
        m_channel.m_pFpgaServ = &m_fpga;
        m_channel.m_pBinFile = &m_bin;
        m_channel.m_pContractServ = &m_contracts;
        m_bin.InstBinFileInit();
    }
    void Deliver(const MapPacket& packet) {
        const auto& bytes = packet.Bytes();
        CZceDmaChanImpl::DmaEntrance(bytes.data(), static_cast<unsigned int>(bytes.size()), &m_channel);
    }
    void CloseMap() { m_bin.WriteBinFileEnd(); }
    Knowledge Known() const {
        return {m_channel.m_mapInstIdx,
                {m_fpga.oneLegChanBits, m_fpga.combineChanBits},
                {m_fpga.oneLegNames, m_fpga.combineNames},
                {m_drv.masks[0], m_drv.masks[1]},
                m_channel.m_vecRecvClass};
    }

private:
    MaskDrv& m_drv;
    CVexoZceMdApiImpl m_api{nullptr};
    Vexo2_U50::CZceConfigFile m_cfg;
    CZceDmaChanImpl m_channel{&m_drv, &m_api, &m_cfg};
    Vexo2_U50::CZceFpgaServ m_fpga{m_channel.m_mapInstIdx, 0};
    CBrixBinFile m_bin{m_channel.m_mapInstIdx, 0};
    Vexo2_U50::CContractServ m_contracts{m_channel.m_mapInstIdx, &m_cfg, &m_bin, &m_fpga, 0, m_cfg.m_stSubsInfo};
};

class Learning : public testing::Test {
protected:
    Learning() {
        for (const Instrument& inst : instruments) packet.Add(inst.id, inst.index);
        LearningChannel undisturbed(ini, drv);
        undisturbed.Deliver(packet);
        undisturbed.CloseMap();
        complete = undisturbed.Known();
        completeFile = day.ReadMorning();
    }

    /// Of each instrument everything or nothing: its place in the map, its line, its class, its store and its row.
    void ExpectWholeOrNothing(const Knowledge& known) {
        const std::string file = day.ReadMorning();
        Knowledge expected;
        expected.rows[0].resize(65536);
        expected.rows[1].resize(65536);
        std::string expectedFile = "inst_index,inst_id\n";
        for (const auto& [id, index] : instruments) {
            if (known.map.count(id) == 0) continue;
            const int table = tableOf(id);
            expected.map[id] = index;
            expectedFile += std::to_string(index) + ',' + id + '\n';
            if (!contains(expected.classes, id.substr(0, 2))) expected.classes.push_back(id.substr(0, 2));
            if (complete.masks[table].count(index) == 0) continue;
            expected.masks[table][index] = complete.masks[table].at(index);
            expected.names[table][index] = complete.names[table].at(index);
            expected.rows[table][index] = complete.rows[table][index];
            if (index > 8192 && table == 1) expected.names[0][index];  // of the error line
        }
        EXPECT_EQ(file, expectedFile);
        EXPECT_TRUE(known == expected);
    }

    /// The next start in the same half-day.
    void ExpectRestartFromFileIsRightOrLearnsAgain() {
        Vexo2_U50::InstIdToIndex loaded;
        CBrixBinFile next(loaded, 0);
        if (next.CheckOrLoadBinFile() == 0) {
            EXPECT_EQ(loaded, complete.map);
        } else {
            EXPECT_TRUE(loaded.empty());
        }
    }

    DayFiles day;
    test_support::FakeTime time{day.year, day.month, day.day, 10, 0, 0};
    test_support::TempDir dir;
    const std::string ini = dir.Write("zce.ini",
                                      "[config]\ndevice=xilinx0:0\n"
                                      "[channel0]\ninsts=SR,AP510\noptions=recv\nspd=recv\n"
                                      "[channel7]\ninsts=all\noptions=recv\nips=recv\nspd=recv\n");
    const std::vector<Instrument> instruments = {
        {"SR505", 7},          {"SR505C6000", 8}, {"SPD-SR505/SR509-AND-MORE", 9000},
        {"AP510", 3},          {"AP", 4},         {"AP510P12345678901234", 9001},
        {"IPS-SF505/SM505", 2}};
    MapPacket packet;
    const MapPacket other = MapPacket().Add("SPD-SR507/SR511-AND-MORE", 11);
    MaskDrv drv;
    Knowledge complete;
    std::string completeFile;
};

TEST_F(Learning, AnInstrumentIsLearnedAsAWholeOrNotAtAllWhereverMemoryRunsOut) {
    for (const std::size_t calls : {std::size_t{1}, kFromThenOn}) {
        bool failed = true;
        std::size_t points = 0;
        for (std::size_t nth = 1; failed && !HasFailure(); ++nth) {
            SCOPED_TRACE(testing::Message() << "allocation " << nth << (calls == 1 ? " alone" : " and all behind it"));
            MaskDrv card;
            LearningChannel channel(ini, card);
            {
                const test_support::FailingMemory memory(nth, calls);
                channel.Deliver(packet);
                failed = memory.HasFailed();
            }
            points += failed ? 1 : 0;
            ExpectWholeOrNothing(channel.Known());

            channel.Deliver(packet);
            channel.Deliver(packet);
            channel.CloseMap();

            EXPECT_TRUE(channel.Known() == complete);
            const std::string file = day.ReadMorning();
            if (failed) {
                EXPECT_EQ(file.find(kEndTag), std::string::npos);
            } else {
                EXPECT_EQ(file, completeFile);
            }
            ExpectRestartFromFileIsRightOrLearnsAgain();
        }
        EXPECT_GT(points, 40U);
    }
}

TEST_F(Learning, APacketThatEndsEarlyIsReportedOnceWithItsDayFile) {
    LearningChannel channel(ini, drv);
    test_support::LogLines log;
    for (int round = 0; round < 2; ++round) {
        const test_support::FailingMemory memory(1);
        channel.Deliver(other);
    }

    const std::vector<std::string> lines = log.Take();

    EXPECT_THAT(lines, testing::Contains("WARN contract index file " + day.MorningPath() +
                                         " lacks an instrument, its packet could not be read to the end. It stays "
                                         "without its end tag, the next start won't load it."));
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) { return line.find("lacks an instrument") != line.npos; }),
              1);
}

TEST_F(Learning, APacketThatEndsEarlyBehindTheEndTagTakesTheTagAway) {
    LearningChannel channel(ini, drv);
    channel.Deliver(packet);
    channel.CloseMap();
    ASSERT_EQ(day.ReadMorning(), completeFile);
    {
        const test_support::FailingMemory memory(1);
        channel.Deliver(other);
    }

    EXPECT_EQ(day.ReadMorning() + kEndTag, completeFile);
}

}  // namespace
