// Every shipped scenario, run by the library from start-up on: each does what its description says.

#include <gtest/gtest.h>
#include <algorithm>
#include <filesystem>
#include <map>

#include "sim/scenario/Scenario.h"
#include "tests/integration/Expectation.h"

namespace {

using namespace scenario;

constexpr char kLibraryIni[] =
    "[version]\n1.1.2.12 = 1\n1.1.2.13 = 13\n[config]\ndevice = xilinx0:0\nBIN_DELAY_TIME = 0\n"
    "[channel0]\ninsts = SR\noptions = no\nspd = recv\n";

// A table with one entry for each shipped scenario; longer than a screen because there are so many.
const std::map<std::string, Expectation>& Expectations() {
    static const std::map<std::string, Expectation> all = [] {
        std::map<std::string, Expectation> e;
        e["opening_burst"] = Healthy();
        e["opening_burst"].milliseconds = 60000;
        e["opening_burst"].pollsEach = 100;
        e["opening_burst"].check = [](const Sight& sight) {
            ExpectQuotesInTurn(sight);
            EXPECT_GT(sight.quotes, 120'000U + 70'000U);  // a minute at the usual rate, and most of one burst
        };
        e["slow_reader"] = Healthy();
        e["slow_reader"].logged = {"WARN Back pressure happens! may loss some data !"};
        e["slow_reader"].check = [](const Sight& sight) {
            EXPECT_GT(sight.outOfTurn, 0U);
            EXPECT_GT(sight.largestGap, 100U);
        };
        e["reset_in_window"] = Healthy();
        e["reset_in_window"].logged = {"INFO Fpga parse static count doesn't change!", kResetLine};
        e["noisy_counters"] = Healthy();
        e["noisy_counters"].logged = {"INFO 0x11 register value:0x3"};
        e["noisy_counters"].notLogged = {"INFO Fpga parse static count doesn't change!", kResetLine};
        e["mask_refused"] = Healthy();
        e["mask_refused"].check = [](const Sight& sight) {
            const auto log = sight.outcome.Log();
            EXPECT_GT(std::count_if(log.begin(), log.end(),
                                    [](const std::string& line) {
                                        return line.rfind("WARN Attention! Maybe subscribed fail! Type 0, index:", 0) ==
                                               0;
                                    }),
                      5);
        };
        e["stream_held"] = EndsWith(
            {"ERROR Could not create a2c stream.dmaName:CUSTOM_CHAN0_DATA,  err:Device or resource busy",
             "ERROR Note !! A software program can only have one instance running at a time!", kEndLine});
        e["hostile_packets"] = Healthy();
        e["hostile_packets"].milliseconds = 5000;
        e["hostile_packets"].logged = {"ERROR Unsupported dma type 0xdeadbeef", "WARN Unexpect dma size, size 0",
                                       "WARN Unexpect dma size, size 11"};
        e["hostile_packets"].check = [](const Sight& sight) { EXPECT_GT(sight.quotes, 1000U); };
        e["lossy_stream"] = Healthy();
        e["lossy_stream"].milliseconds = 5000;
        e["lossy_stream"].check = [](const Sight& sight) {
            EXPECT_GT(sight.outOfTurn, 20U);
            EXPECT_LT(sight.largestGap, 5U);
            EXPECT_NE(sight.outcome.out.find("fifo:17, error:0."), std::string::npos);
        };
        e["card_stops"] = Healthy();
        e["card_stops"].milliseconds = 5000;
        e["card_stops"].check = [](const Sight& sight) {
            ExpectQuotesInTurn(sight);
            EXPECT_LT(sight.quotes, 3000U);
            EXPECT_NE(sight.outcome.out.find("dma2soft:3000,"), std::string::npos);
        };
        e["few_instruments"] = Healthy();
        e["few_instruments"].milliseconds = 5000;
        e["few_instruments"].check = [](const Sight& sight) {
            ExpectQuotesInTurn(sight);
            EXPECT_EQ(sight.instruments, 3U);  // SR705, SR709 and their spread; no options
        };
        e["register_errors"] = Healthy();
        e["register_errors"].check = [](const Sight& sight) {
            EXPECT_NE(sight.outcome.out.find("int32 failed, addr["), std::string::npos);
            ExpectQuotesInTurn(sight);
        };
        e["no_card"] = EndsWith({"ERROR Could not find accelerator. ernno:19, msg:No such device, get acc num:0.",
                                 "ERROR Init New drive failed! ret:-1"});
        e["full_speed"] = Healthy();
        e["full_speed"].check = [](const Sight& sight) {
            ExpectQuotesInTurn(sight);
            EXPECT_GT(sight.quotes, 10'000U);  // nearly every poll finds one
        };
        return e;
    }();
    return all;
}

std::vector<std::string> ShippedScenarios() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(VEXO_SCENARIO_DIR))
        if (entry.path().extension() == ".ini") names.push_back(entry.path().stem().string());
    std::sort(names.begin(), names.end());
    return names;
}

class ShippedScenario : public ::testing::TestWithParam<std::string> {};

}  // namespace

TEST_P(ShippedScenario, DoesWhatItsDescriptionSays) {
    const auto found = Expectations().find(GetParam());
    ASSERT_NE(found, Expectations().end()) << "no expectation is written here for this scenario";
    const auto names = ShippedScenarios();
    SimulatedRun run;
    run.cardIni = std::string(VEXO_SCENARIO_DIR) + "/" + GetParam() + ".ini";
    run.libraryIni = kLibraryIni;
    ExpectOfRun(found->second, run, 2,
                static_cast<int>(std::find(names.begin(), names.end(), GetParam()) - names.begin()));
}

INSTANTIATE_TEST_SUITE_P(, ShippedScenario, ::testing::ValuesIn(ShippedScenarios()),
                         [](const auto& testCase) { return testCase.param; });

TEST(ShippedScenarios, AreAllThatIsExpectedAndSayWhatTheyRehearse) {
    std::vector<std::string> expected;
    for (const auto& [name, expectation] : Expectations()) expected.push_back(name);
    EXPECT_EQ(ShippedScenarios(), expected);
    for (const std::string& name : expected) {
        std::string error;
        const auto scenario = vexo_sim::scenario::load(std::string(VEXO_SCENARIO_DIR) + "/" + name + ".ini", error);
        ASSERT_TRUE(scenario.has_value()) << error;
        EXPECT_GT(scenario->description.size(), 20U) << name;
    }
}
