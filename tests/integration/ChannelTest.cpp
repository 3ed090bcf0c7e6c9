// Channels over the simulated card: the master's subscriptions for all, the others' quiet start, the packets' way to
// the callbacks, the end by signal, and starts that fail.

#include <enyx-hw-c/enyx_hw.h>
#include <enyx-sim/enyx_sim.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <csignal>
#include <fstream>

#include "tests/integration/Scenario.h"

namespace {

using namespace scenario;

TEST(Channel, OtherThanTheMasterTouchesNoRegister) {
    const Outcome outcome = RunInChild([] {
        test_support::FakeTime clock(2066, 1, 5, 9, 30, 0);
        SmallCard({{"SR705", 0}}, {});
        const std::string ini = WriteIni("", "xilinx0:5");
        PayloadSpi spi;
        HardwareCalls trace;
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        EXPECT_EQ(api->VexoStart(spi, ini.c_str()), 0);
        const std::string calls = trace.Text();
        EXPECT_EQ(calls.find("[write"), std::string::npos) << calls;
        EXPECT_EQ(calls.find("[read"), std::string::npos) << calls;
        EXPECT_EQ(calls.find("enyx_hw_core_reset"), std::string::npos) << calls;

        Push(5, MarketDataPacket(19, "channel5"));
        EXPECT_EQ(api->VexoRecv(), 1);
        EXPECT_EQ(spi.packets.at(0).payload, "channel5");
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
        return 0;
    });

    EXPECT_EQ(outcome.exitStatus, 0);
    EXPECT_TRUE(outcome.Logged("INFO Init dma channel :CUSTOM_CHAN5_DATA success."));
    EXPECT_TRUE(outcome.Logged("INFO [channel:5] DMA count info: backpress:0, dma2soft:1, fifo:0, error:0."));
}

TEST(Channel, OtherThanTheMasterWarnsOnceOfContractMaps) {
    const Outcome outcome = RunInChild([] {
        test_support::FakeTime clock(2066, 1, 5, 9, 30, 0);
        SmallCard({}, {});
        const std::string ini = WriteIni("", "xilinx0:5");
        PayloadSpi spi;
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        EXPECT_EQ(api->VexoStart(spi, ini.c_str()), 0);
        for (int i = 0; i < 3; ++i) {
            Push(5, ContractMapPacket({{"SR705", 1}}));
            EXPECT_EQ(api->VexoRecv(), 0);
        }
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
        return 0;
    });

    EXPECT_EQ(outcome.exitStatus, 0);
    EXPECT_EQ(outcome.CountLogged("WARN [channel:5] Contract map packets are ignored, only channel 0 learns the map!"),
              1u);
}

TEST(Channel, EveryPacketReachesTheCallbackOfItsTypeUntouched) {
    const DayFile dayFile(2066, 1, 6, false);
    const Outcome outcome = RunInChild([] {
        test_support::FakeTime clock(2066, 1, 6, 9, 30, 0);
        SmallCard({}, {});
        const std::string ini = WriteIni("");
        PayloadSpi spi(1000);
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        EXPECT_EQ(api->VexoStart(spi, ini.c_str()), 0);
        for (std::uint32_t type : {20u, 17u, 19u, 18u}) {
            std::string payload(1000, '\0');
            for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * type);
            Push(0, MarketDataPacket(type, payload));
            EXPECT_EQ(api->VexoRecv(), 1);
            EXPECT_EQ(spi.packets.back().type, static_cast<int>(type));
            EXPECT_TRUE(spi.packets.back().payload == payload);
        }
        EXPECT_EQ(api->VexoRecv(), 0);
        EXPECT_EQ(spi.packets.size(), 4u);
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
        return 0;
    });

    EXPECT_EQ(outcome.exitStatus, 0);
}

// The rules of one channel, read the plain way.
struct Rules {
    std::vector<std::string> ids;
    std::vector<std::string> classes;
    bool all, options, ips, spd;

    std::string Section(int channel) const {
        std::string insts = all ? "ALL" : "";
        for (const auto* tokens : {&ids, &classes})
            for (const std::string& token : *tokens) insts += (insts.empty() ? "" : ",") + token;
        return "[channel" + std::to_string(channel) + "]\ninsts = " + insts +
               "\noptions = " + (options ? "recv" : "no") + "\nips = " + (ips ? "recv" : "no") +
               "\nspd = " + (spd ? "recv" : "no") + "\n";
    }
    bool Has(const std::vector<std::string>& list, const std::string& entry) const {
        return std::find(list.begin(), list.end(), entry) != list.end();
    }
    bool Wants(const std::string& id) const {
        if (id.rfind("SPD-", 0) == 0) return spd;
        if (id.rfind("IPS-", 0) == 0) return ips;
        const std::string product = id.substr(0, 2);
        if (id.size() > 5) return options && (Has(classes, product) || Has(ids, id.substr(0, 5)) || all);
        return all || Has(classes, product) || Has(ids, id);
    }
};

const std::vector<std::pair<std::string, std::uint16_t>> kRuleOneLeg = {
    {"SR705", 0},  {"SR705C6000", 1},   {"SR705P6000", 2}, {"SR709", 3},
    {"CF705", 10}, {"CF705C12000", 11}, {"TA701", 4000}};
const std::vector<std::pair<std::string, std::uint16_t>> kRuleCombine = {{"SPD-SR705/SR709", 3},
                                                                         {"IPS-SF705/SM705", 8}};

Rules RulesOf(int channel) {
    Rules rules{};
    if (channel & 1) rules.classes = {"SR"};
    if (channel & 2) rules.ids = {"CF705"};
    rules.options = (channel & 4) != 0;
    rules.spd = (channel & 8) != 0;
    rules.ips = (channel & 3) == 3;
    rules.all = channel == 12;
    if (!rules.all && rules.ids.empty() && rules.classes.empty()) rules.ids = {"TA701"};
    return rules;
}

std::uint32_t ExpectedMask(const std::string& id) {
    std::uint32_t mask = 0;
    for (int channel = 0; channel < 16; ++channel)
        if (RulesOf(channel).Wants(id)) mask |= 1u << channel;
    return mask;
}

std::string RulesOfAllChannels() {
    std::string sections;
    for (int channel = 0; channel < 16; ++channel) sections += RulesOf(channel).Section(channel);
    return sections;
}

void ExpectCardMasks() {
    for (std::uint32_t table = 0; table < 2; ++table) {
        for (const auto& [id, row] : table == 0 ? kRuleOneLeg : kRuleCombine) {
            std::uint32_t mask = 0;
            EXPECT_EQ(enyx_sim_table_word(0, table, row, 0, &mask), 0);
            EXPECT_EQ(mask, ExpectedMask(id)) << id;
        }
    }
}

TEST(Channel, MasterSubscribesAnnouncedInstrumentsForAllSixteenChannels) {
    const DayFile dayFile(2066, 1, 7, false);
    const Outcome outcome = RunInChild([] {
        test_support::FakeTime clock(2066, 1, 7, 9, 30, 0);
        SmallCard(kRuleOneLeg, kRuleCombine);
        const std::string ini = WriteIni(RulesOfAllChannels());
        PayloadSpi spi;
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        EXPECT_EQ(api->VexoStart(spi, ini.c_str()), 0);
        EXPECT_EQ(enyx_sim_pause_feed(0, 0), 0);
        clock.Advance(1);
        while (api->VexoRecv() == 0) clock.AdvanceNs(1000000);  // the card's own map, until quotes come
        ExpectCardMasks();
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
        return 0;
    });

    EXPECT_EQ(outcome.exitStatus, 0);
    EXPECT_EQ(outcome.out.find("Maybe subscribed fail"), std::string::npos);
}

TEST(Channel, MasterSubscribesTheDayFilesInstrumentsForAllSixteenChannels) {
    const DayFile dayFile(2066, 1, 8, false);
    std::string content = "inst_index,inst_id\n";
    for (const auto* list : {&kRuleOneLeg, &kRuleCombine})
        for (const auto& [id, index] : *list) content += std::to_string(index) + "," + id + "\n";
    dayFile.Write(content + "bin_file_over_tag\n");
    const Outcome outcome = RunInChild([] {
        test_support::FakeTime clock(2066, 1, 8, 9, 30, 0);
        SmallCard(kRuleOneLeg, kRuleCombine);
        const std::string ini = WriteIni(RulesOfAllChannels());
        PayloadSpi spi;
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        EXPECT_EQ(api->VexoStart(spi, ini.c_str()), 0);
        ExpectCardMasks();
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
        return 0;
    });

    EXPECT_EQ(outcome.exitStatus, 0);
    EXPECT_TRUE(outcome.Logged("INFO Bin inst count:9"));
}

TEST(Channel, RowThatDoesNotTakeItsMaskIsWarnedOf) {
    const DayFile dayFile(2066, 1, 9, false);
    dayFile.Write("inst_index,inst_id\n6,SR705\nbin_file_over_tag\n");
    const Outcome outcome = RunInChild([] {
        test_support::FakeTime clock(2066, 1, 9, 9, 30, 0);
        SmallCard({{"SR705", 6}}, {});
        EXPECT_EQ(enyx_sim_row_ignores_mask(0, 0, 6, 1), 0);
        const std::string ini = WriteIni("[channel0]\ninsts = SR\noptions = no\n");
        PayloadSpi spi;
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        const int result = api->VexoStart(spi, ini.c_str());
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
        return result;
    });

    EXPECT_EQ(outcome.exitStatus, 0);
    EXPECT_TRUE(outcome.Logged("WARN Attention! Maybe subscribed fail! Type 0, index:6, shouldbe:0x1, fpgavalue:0x0,"));
}

TEST(Stop, SignalBeforeTheFirstMarketDataEndsTheProcess) {
    const Outcome outcome = RunInChild([] {
        test_support::FakeTime clock(2066, 1, 5, 9, 30, 0);
        SmallCard({}, {});
        const std::string ini = WriteIni("", "xilinx0:5");
        PayloadSpi spi;
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        EXPECT_EQ(api->VexoStart(spi, ini.c_str()), 0);
        std::raise(SIGINT);
        return 1;
    });

    EXPECT_EQ(outcome.signal, SIGINT);
}

class StopSignal : public ::testing::TestWithParam<int> {};

TEST_P(StopSignal, EndsTheReceivingInOrder) {
    const int number = GetParam();
    const Outcome outcome = RunInChild([number] {
        test_support::FakeTime clock(2066, 1, 5, 9, 30, 0);
        SmallCard({}, {});
        const std::string ini = WriteIni("", "xilinx0:5");
        class StoppingSpi : public PayloadSpi {
        public:
            explicit StoppingSpi(int sig) : m_signal(sig) {}
            int OnUpSubsResult17(const unsigned char* data) override {
                std::raise(m_signal);
                return PayloadSpi::OnUpSubsResult17(data);
            }

        private:
            int m_signal;
        } spi(number);
        const std::string packet = MarketDataPacket(17, "payload!");
        EXPECT_EQ(enyx_sim_push(0, 5, packet.data(), static_cast<std::uint32_t>(packet.size()), 1), 0);
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        EXPECT_EQ(api->VexoRecvStart(spi, ini.c_str()), 0);
        EXPECT_EQ(spi.packets.size(), 1u);  // the packet under way was finished
        EXPECT_EQ(api->VexoRecv(), -1);
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
        return 7;
    });

    EXPECT_EQ(outcome.exitStatus, 7);
    EXPECT_EQ(outcome.CountLogged("WARN Received signal " + std::to_string(number) + " !!"), 1u);
    EXPECT_TRUE(outcome.Logged("INFO dma channel CUSTOM_CHAN5_DATA has released."));
}

INSTANTIATE_TEST_SUITE_P(, StopSignal, ::testing::Values(SIGINT, SIGTERM),
                         [](const auto& testCase) { return testCase.param == SIGINT ? "Interrupt" : "Terminate"; });

// A start-up that must end the process with status 0 before VexoStart returns.
Outcome FailingStart(const std::function<void()>& arrange, const std::string& device = "xilinx0:0") {
    return RunInChild([&] {
        test_support::FakeTime clock(2066, 1, 10, 9, 30, 0);
        SmallCard({}, {});
        arrange();
        const std::string ini = WriteIni("", device);
        PayloadSpi spi;
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        api->VexoStart(spi, ini.c_str());
        return 55;
    });
}

TEST(FailingStart, HardwareTooOld) {
    const Outcome outcome = FailingStart([] { enyx_sim_poke_register(0, 0x101, 12); });

    EXPECT_EQ(outcome.exitStatus, 0);
    EXPECT_TRUE(outcome.Logged("ERROR soft version 1.1.2.13, hwVersion is 13 > fpga hwVersion is 12"));
    EXPECT_TRUE(outcome.Logged("ERROR Create Brix service failed!"));
    EXPECT_FALSE(outcome.Logged("INFO Unsubscribe all insts now"));
}

TEST(FailingStart, CardNotThere) {
    const Outcome outcome = FailingStart([] {}, "xilinx3:0");

    EXPECT_EQ(outcome.exitStatus, 0);
    EXPECT_TRUE(outcome.Logged("ERROR Get core error. busId:3, coreId:474"));
    EXPECT_TRUE(outcome.Logged("ERROR Init New drive failed! ret:-1"));
    EXPECT_TRUE(outcome.Logged("ERROR Vexo inner init fail."));
}

TEST(FailingStart, StreamHeldByAnother) {
    const Outcome outcome = FailingStart([] { enyx_sim_fail_call("enyx_hw_a2c_stream_create", 1, EBUSY, 1); },
                                         "xilinx0:4");

    EXPECT_EQ(outcome.exitStatus, 0);
    EXPECT_TRUE(
        outcome.Logged("ERROR Could not create a2c stream.dmaName:CUSTOM_CHAN4_DATA,  err:Device or resource busy"));
    EXPECT_TRUE(outcome.Logged("ERROR Note !! A software program can only have one instance running at a time!"));
    EXPECT_TRUE(outcome.Logged("ERROR [channel:255] Init dma fail! dma name CUSTOM_CHAN4_DATA."));
    EXPECT_TRUE(outcome.Logged("ERROR Create Brix service failed!"));
}

TEST(Restart, NewApiObjectInTheSameProcessStartsAfresh) {
    const DayFile dayFile(2066, 1, 11, false);
    const Outcome outcome = RunInChild([] {
        test_support::FakeTime clock(2066, 1, 11, 9, 30, 0);
        SmallCard({}, {});
        const std::string ini = WriteIni("");
        for (int round = 0; round < 2; ++round) {
            PayloadSpi spi;
            IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
            EXPECT_EQ(api->VexoStart(spi, ini.c_str()), 0);
            Push(0, MarketDataPacket(17, "payload!"));
            EXPECT_EQ(api->VexoRecv(), 1);
            IVexoZceMdApi::DestroyVexoZceMdApi(*api);
        }
        return 0;
    });

    EXPECT_EQ(outcome.exitStatus, 0);
    EXPECT_EQ(outcome.CountLogged("INFO Init dma channel :CUSTOM_CHAN0_DATA success."), 2u);
}

}  // namespace
