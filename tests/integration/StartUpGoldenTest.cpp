// What a start-up of the master channel logs and asks of the hardware library, whole: one started fresh, one restarted
// from the day file.

#include <gtest/gtest.h>
#include <fstream>
#include <sstream>

#include "tests/integration/Scenario.h"

namespace {

using namespace scenario;

constexpr char kRules[] =
    "BIN_DELAY_TIME = 0\n"
    "cpucore = -1\n"
    "czce_level1 = enabled\n"
    "L5_IPA = 224.0.1.2\nL5_IPB = 224.0.1.3\nL5_PORT = 5001\nL1_IPA = 224.0.2.2\nL1_IPB = 224.0.2.3\nL1_PORT = 5002\n"
    "L5_DSTMAC = 00:11:22:33:44:55\nL5_DSTIP = 10.0.0.1\nL5_DSTPORT = 6001\n"
    "L5_SRCMAC = 66:77:88:99:aa:bb\nL5_SRCIP = 10.0.0.2\nL5_SRCPORT = 6002\n"
    "[channel0]\ninsts = SR, CF705\noptions = recv\nips = recv\nspd = recv\n"
    "[channel2]\ninsts = SR705\noptions = norecv\n";

const std::vector<std::pair<std::string, std::uint16_t>> kOneLeg = {
    {"SR705", 0}, {"SR705C6000", 1}, {"CF705", 2}, {"TA705", 4094}};
const std::vector<std::pair<std::string, std::uint16_t>> kCombine = {{"SPD-SR705/SR709", 0}, {"IPS-SF705/SM705", 9}};

std::vector<std::pair<std::string, std::uint16_t>> AllInstruments() {
    auto all = kOneLeg;
    all.insert(all.end(), kCombine.begin(), kCombine.end());
    return all;
}

// Runs a start-up in this process, then @p feed, and leaves the hardware calls in a file.
int StartAndFeed(int day, const std::function<void(IVexoZceMdApi&, test_support::FakeTime&)>& feed) {
    test_support::FakeTime clock(2064, 5, day, 9, 30, 0);
    SmallCard(kOneLeg, kCombine);
    const std::string ini = WriteIni(kRules);
    PayloadSpi spi;
    std::string calls;
    {
        HardwareCalls trace;
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        EXPECT_EQ(api->VexoStart(spi, ini.c_str()), 0);
        feed(*api, clock);
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
        calls = trace.Text();
    }
    std::ofstream(std::string(::testing::TempDir()) + "/vexo_calls." + std::to_string(::getppid())) << calls;
    return 0;
}

std::string TakeCalls() {
    const std::string path = std::string(::testing::TempDir()) + "/vexo_calls." + std::to_string(::getpid());
    std::ostringstream calls;
    calls << std::ifstream(path).rdbuf();
    ::unlink(path.c_str());
    return calls.str();
}

TEST(StartUpGolden, FreshStartLearnsTheMapFromTheCard) {
    const DayFile dayFile(2064, 5, 6, false);
    const Outcome outcome = RunInChild([] {
        return StartAndFeed(6, [](IVexoZceMdApi& api, test_support::FakeTime& clock) {
            Push(0, ContractMapPacket(AllInstruments()));
            EXPECT_EQ(api.VexoRecv(), 0);
            clock.Advance(1);
            Push(0, ContractMapPacket({{"SR705", 7}}));  // known already: its first index stays
            EXPECT_EQ(api.VexoRecv(), 0);
            Push(0, MarketDataPacket(17, "payload!"));
            EXPECT_EQ(api.VexoRecv(), 1);
            EXPECT_EQ(api.VexoRecv(), 0);
        });
    });

    EXPECT_EQ(outcome.exitStatus, 0);
    ExpectGolden(outcome.MaskedLog(), "fresh_start.log");
    ExpectGolden(TakeCalls(), "fresh_start.calls");
    EXPECT_EQ(dayFile.Read(),
              "inst_index,inst_id\n0,SR705\n1,SR705C6000\n2,CF705\n4094,TA705\n0,SPD-SR705/SR709\n9,IPS-SF705/SM705\n"
              "bin_file_over_tag\n");
}

TEST(StartUpGolden, RestartTakesTheMapFromTheDayFile) {
    const DayFile dayFile(2064, 5, 7, false);
    const std::string content =
        "inst_index,inst_id\n0,SR705\n1,SR705C6000\n2,CF705\n4094,TA705\n0,SPD-SR705/SR709\n9,IPS-SF705/SM705\n"
        "bin_file_over_tag\n";
    dayFile.Write(content);
    const Outcome outcome = RunInChild([] {
        return StartAndFeed(7, [](IVexoZceMdApi& api, test_support::FakeTime&) {
            Push(0, MarketDataPacket(18, "payload!"));
            EXPECT_EQ(api.VexoRecv(), 1);
        });
    });

    EXPECT_EQ(outcome.exitStatus, 0);
    ExpectGolden(outcome.MaskedLog(), "restart.log");
    ExpectGolden(TakeCalls(), "restart.calls");
    EXPECT_EQ(dayFile.Read(), content);
}

}  // namespace
