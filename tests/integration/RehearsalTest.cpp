// The one-line rehearsals of sim/scenarios/README.md and docs/faults.md. Each is typed as it stands on the page; then
// the library runs on the card that the command describes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "tests/integration/Expectation.h"
#include "tests/support/TempDir.h"

namespace {

using namespace scenario;

std::string ReadFile(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

// What a page has between the parentheses of @p command.
std::vector<std::string> Commands(const std::string& page, const std::regex& command) {
    const std::string text = ReadFile(page);
    std::vector<std::string> commands;
    for (std::sregex_iterator match(text.begin(), text.end(), command), end; match != end; ++match)
        commands.push_back((*match)[1]);
    return commands;
}

// The commands of a page that run a program with settings and nothing else.
std::vector<std::string> Rehearsals(const std::string& page) {
    return Commands(page, std::regex("`(vexo sim run --set [^`]*)`"));
}

// Five seconds after power-on the exchange's clock passes the hour.
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

Expectation ResetsACardOfYesterday() {
    Expectation e = Healthy();
    e.hour = 12;
    e.logged = {kResetLine};
    e.check = [](const Sight& sight) {
        static const std::regex dates("First time read fpga date:([0-9]+), system date:([0-9]+)");
        std::smatch found;
        ASSERT_TRUE(std::regex_search(sight.outcome.out, found, dates));
        EXPECT_EQ(std::stoi(found[1]) + 1, std::stoi(found[2]));
    };
    return e;
}

Expectation Quotes(std::uint64_t least, std::uint64_t most) {
    Expectation e;
    e.check = [=](const Sight& sight) {
        ExpectQuotesInTurn(sight);
        EXPECT_GE(sight.quotes, least);
        EXPECT_LE(sight.quotes, most);
    };
    return e;
}

Expectation TenTimesAsFast() {
    Expectation e = Quotes(7501, ~std::uint64_t{0});  // in 1.5 seconds at the usual pace at most 7,500
    e.pollsEach = 100;
    return e;
}

Expectation WithLog(Expectation e, std::vector<std::string> logged, std::vector<std::string> notLogged = {}) {
    e.logged = std::move(logged);
    e.notLogged = std::move(notLogged);
    return e;
}

// By the settings of the command.
const std::map<std::string, Expectation>& Expectations() {
    static const std::map<std::string, Expectation> all = {
        {"quotes.per_second=50", Quotes(1, 75)},
        {"card.fibre_status=0xd", WithLog(Healthy(), {"INFO Fiber linkstatus 0x103:0xd."})},
        {"card.hardware_version=11",
         EndsWith({"ERROR you will need to update your hardware version.",
                   "ERROR soft version 1.1.2.13, hwVersion is 12 > fpga hwVersion is 11", kEndLine})},
        {"card.verdict=2", EndsWith({"ERROR you will need to update your soft version.",
                                     "ERROR iCheckRst == 2, soft  error.", kEndLine})},
        {"card.verdict=0", EndsWith({"ERROR soft version write is fail.", kEndLine})},
        {"card.date=yesterday", ResetsACardOfYesterday()},
        {"card.clock=23:59:55", PassesTheHour(235950, 0, true)},
        {"card.clock=16:59:55", PassesTheHour(165950, 170000, false)},
        {"instruments.list=full", Healthy()},
        {"card.learning_ms=60000",
         WithLog(Expectation{}, {}, {"INFO check config is success. m_bCfgInsSuccess is 1."})},
        {"pace.pace=x10", TenTimesAsFast()},
    };
    return all;
}

struct Typed {
    int status = -1;
    std::string arguments;  // of the program
    std::map<std::string, std::string> environment;
    std::string scenario;  // file name
};

// Types the command where ./app is a program that writes down how it was started.
Typed Type(const std::string& command) {
    const test_support::TempDir directory;
    directory.Write("app",
                    "#!/bin/sh\nprintf '%s' \"$*\" > arguments\n"
                    "printf '%s' \"$VEXO_SIM_SET\" > set\nprintf '%s' \"$VEXO_SIM_CARD\" > card\n"
                    "basename \"$VEXO_SIM_SCENARIO\" > scenario\n",
                    0755);
    std::filesystem::copy(VEXO_SCENARIO_DIR, directory.Path());
    Typed typed;
    typed.status = std::system(("PATH='" VEXO_PROGRAM_DIR "':\"$PATH\" && " + command).c_str());
    typed.arguments = directory.Read("arguments");
    typed.environment = {{"VEXO_SIM_SET", directory.Read("set")}, {"VEXO_SIM_CARD", directory.Read("card")}};
    typed.scenario = directory.Read("scenario");
    return typed;
}

std::string SettingsOf(const std::string& command) {
    static const std::regex form("vexo sim run --set (.*) -- \\./app zce\\.ini");
    std::smatch match;
    return std::regex_match(command, match, form) ? match[1].str() : "not a rehearsal: " + command;
}

class Rehearsal : public ::testing::TestWithParam<std::string> {
protected:
    // Every run has a date of its own, because of the day files.
    int Number() const {
        const auto commands = Rehearsals(VEXO_SCENARIO_README);
        return static_cast<int>(std::find(commands.begin(), commands.end(), GetParam()) - commands.begin());
    }

    void ExpectOfTyped(const char* libraryIni, int month) {
        const auto found = Expectations().find(SettingsOf(GetParam()));
        ASSERT_NE(found, Expectations().end()) << "no expectation is written here for " << GetParam();
        const Typed typed = Type(GetParam());
        ASSERT_EQ(typed.status, 0);
        ASSERT_EQ(typed.arguments, "zce.ini");
        SimulatedRun run;
        run.environment = typed.environment;
        // The wait before the day file is complete would take minutes; no rehearsal depends on it.
        run.libraryIni = std::regex_replace(ReadFile(libraryIni), std::regex("BIN_DELAY_TIME = 15"),
                                            "BIN_DELAY_TIME = 0");
        ExpectOfRun(found->second, run, month, Number());
    }
};

}  // namespace

TEST_P(Rehearsal, DoesWhatThePageSaysWithTheDemonstrationsIniFile) { ExpectOfTyped(VEXO_EXAMPLES_DIR "/demo.ini", 5); }

TEST_P(Rehearsal, DoesWhatThePageSaysWithTheExplainedIniFile) { ExpectOfTyped(VEXO_EXAMPLES_DIR "/zce.ini", 6); }

INSTANTIATE_TEST_SUITE_P(, Rehearsal, ::testing::ValuesIn(Rehearsals(VEXO_SCENARIO_README)), [](const auto& testCase) {
    std::string name = SettingsOf(testCase.param);
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
    return name;
});

TEST(Rehearsals, AreAllThatIsExpected) {
    std::vector<std::string> typed, expected;
    for (const std::string& command : Rehearsals(VEXO_SCENARIO_README)) typed.push_back(SettingsOf(command));
    for (const auto& [settings, expectation] : Expectations()) expected.push_back(settings);
    EXPECT_THAT(typed, ::testing::UnorderedElementsAreArray(expected));
}

TEST(Rehearsals, WithAFileReachTheProgramToo) {
    const auto commands = Commands(VEXO_SCENARIO_README, std::regex("\n    (vexo sim run --scenario [^#\n]*)"));
    ASSERT_EQ(commands.size(), 1U);
    const Typed typed = Type(commands[0]);
    EXPECT_EQ(typed.status, 0);
    EXPECT_EQ(typed.arguments, "zce.ini");
    EXPECT_EQ(typed.scenario, "stream_held.ini\n");
}

TEST(Rehearsals, OfTheFaultPageAreAmongThoseOfTheScenarioPage) {
    const std::vector<std::string> commands = Rehearsals(VEXO_SCENARIO_README);
    const std::vector<std::string> faultPage = Rehearsals(VEXO_FAULT_PAGE);
    EXPECT_GE(faultPage.size(), 5U);
    for (const std::string& command : faultPage) EXPECT_THAT(commands, ::testing::Contains(command));
}
