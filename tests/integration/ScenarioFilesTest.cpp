// Every scenario that is shipped, run by the library from start-up on: each does what its description says.

#include <enyx-sim/enyx_sim.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>

#include "sim/scenario/Scenario.h"
#include "tests/integration/SimulatedRun.h"

namespace {

using namespace scenario;

constexpr char kLibraryIni[] =
    "[version]\n1.1.2.12 = 1\n1.1.2.13 = 13\n[config]\ndevice = xilinx0:0\nBIN_DELAY_TIME = 0\n"
    "[channel0]\ninsts = SR\noptions = no\nspd = recv\n";
constexpr char kResetLine[] = "INFO Reset and Clear fpga table over.";
constexpr char kEndLine[] = "ERROR Create Brix service failed!";

struct Expectation {
    int hour = 9, minute = 30, second = 0;
    int milliseconds = 1500;
    int pollsEach = 8;
    bool starts = true;
    std::vector<std::string> logged;
    std::vector<std::string> notLogged;
    std::function<void(const Sight&)> check = [](const Sight&) {};
};

void ExpectQuotesInTurn(const Sight& sight) {
    EXPECT_GT(sight.quotes, 0U);
    EXPECT_EQ(sight.outOfTurn, 0U);
}

Expectation Healthy() {
    Expectation e;
    e.check = ExpectQuotesInTurn;
    return e;
}

Expectation EndsWith(std::vector<std::string> lines) {
    Expectation e;
    e.starts = false;
    e.logged = std::move(lines);
    return e;
}

// Passes the hour that the scenario's clock is five seconds before.
Expectation PassesTheHour(std::uint32_t before, std::uint32_t after, bool newDay) {
    Expectation e;
    e.milliseconds = 10000;
    e.check = [=](const Sight& sight) {
        ExpectQuotesInTurn(sight);
        EXPECT_LT(sight.firstTime, before + 100);
        EXPECT_GE(sight.firstTime, before);
        EXPECT_GE(sight.lastTime, after);
        EXPECT_LT(sight.lastTime, after + 100);
        EXPECT_EQ(sight.lastDate - sight.firstDate, newDay ? 1U : 0U);
    };
    return e;
}

// A table, one entry a shipped scenario: longer than a screen because there are so many, nothing to be read in one go.
const std::map<std::string, Expectation>& Expectations() {
    static const std::map<std::string, Expectation> all = [] {
        std::map<std::string, Expectation> e;
        e["quiet"] = Healthy();
        e["quiet"].check = [](const Sight& sight) {
            ExpectQuotesInTurn(sight);
            EXPECT_LE(sight.quotes, 75U);
        };
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
        e["fibre_down"] = Healthy();
        e["fibre_down"].logged = {"INFO Fiber linkstatus 0x103:0xd."};
        e["old_hardware"] = EndsWith({"ERROR you will need to update your hardware version.",
                                      "ERROR soft version 1.1.2.13, hwVersion is 13 > fpga hwVersion is 12", kEndLine});
        e["software_too_old"] = EndsWith(
            {"ERROR you will need to update your soft version.", "ERROR iCheckRst == 2, soft  error.", kEndLine});
        e["version_not_taken"] = EndsWith({"ERROR soft version write is fail.", kEndLine});
        e["wrong_date"] = Healthy();
        e["wrong_date"].hour = 12;
        e["wrong_date"].logged = {kResetLine};
        e["wrong_date"].check = [](const Sight& sight) {
            static const std::regex dates("First time read fpga date:([0-9]+), system date:([0-9]+)");
            std::smatch found;
            ASSERT_TRUE(std::regex_search(sight.outcome.out, found, dates));
            EXPECT_EQ(std::stoi(found[1]) + 1, std::stoi(found[2]));
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
        e["midnight"] = PassesTheHour(235950, 0, true);
        e["half_day"] = PassesTheHour(165950, 170000, false);
        e["full_tables"] = Healthy();
        e["few_instruments"] = Healthy();
        e["few_instruments"].milliseconds = 5000;
        e["few_instruments"].check = [](const Sight& sight) {
            ExpectQuotesInTurn(sight);
            EXPECT_EQ(sight.instruments, 3U);  // SR705, SR709 and their spread; no options
        };
        e["slow_learning"] = Healthy();
        e["slow_learning"].check = [](const Sight& sight) {
            EXPECT_FALSE(sight.outcome.Logged("INFO check config is success. m_bCfgInsSuccess is 1."));
        };
        e["register_errors"] = Healthy();
        e["register_errors"].check = [](const Sight& sight) {
            EXPECT_NE(sight.outcome.out.find("int32 failed, addr["), std::string::npos);
            ExpectQuotesInTurn(sight);
        };
        e["no_card"] = EndsWith({"ERROR Could not find accelerator. ernno:19, msg:No such device, get acc num:0.",
                                 "ERROR Init New drive failed! ret:-1"});
        e["fast_forward"] = Healthy();
        e["fast_forward"].check = [](const Sight& sight) { EXPECT_GT(sight.quotes, 10'000U); };
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

// A date of its own for each, because of the day files.
SimulatedRun RunOf(const std::string& name, const Expectation& e) {
    const auto names = ShippedScenarios();
    const auto number = static_cast<int>(std::find(names.begin(), names.end(), name) - names.begin());
    SimulatedRun run;
    run.month = 2 + number / 27;
    run.day = 2 + number % 27;
    run.hour = e.hour;
    run.minute = e.minute;
    run.second = e.second;
    run.cardIni = std::string(VEXO_SCENARIO_DIR) + "/" + name + ".ini";
    run.libraryIni = kLibraryIni;
    run.milliseconds = e.milliseconds;
    run.pollsEach = e.pollsEach;
    return run;
}

}  // namespace

TEST_P(ShippedScenario, DoesWhatItsDescriptionSays) {
    const auto found = Expectations().find(GetParam());
    ASSERT_NE(found, Expectations().end()) << "nobody has said here what this scenario must do";
    const Expectation& e = found->second;
    const SimulatedRun run = RunOf(GetParam(), e);
    const DayFile dayFile(run.year, run.month, run.day, run.hour >= 17);

    const Sight sight = RunOnSimulatedCard(run);

    EXPECT_EQ(sight.started, e.starts) << sight.outcome.out;
    for (const std::string& line : e.logged)
        EXPECT_TRUE(sight.outcome.Logged(line)) << line << "\n" << sight.outcome.out;
    for (const std::string& line : e.notLogged) EXPECT_FALSE(sight.outcome.Logged(line)) << line;
    e.check(sight);
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
