// Single keys that the command line or the environment sets on top of a scenario.

#include "sim/scenario/KeySettings.h"

#include <sys/stat.h>

#include "tests/unit/sim/scenario/ScenarioFixture.h"

using namespace vexo_sim;
using namespace vexo_sim::scenario;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

class KeySettingsTest : public ScenarioTest {
protected:
    Scenario set(const std::vector<std::string>& texts, const std::string& path = {}) {
        std::string error;
        const std::optional<Scenario> scenario = load(path, {"--set", texts}, error);
        EXPECT_TRUE(scenario.has_value()) << error;
        return scenario.value_or(Scenario{});
    }

    std::string errorOfSetting(const std::vector<std::string>& texts, const std::string& path = {}) {
        std::string error;
        EXPECT_FALSE(load(path, {"--set", texts}, error).has_value());
        return error;
    }
};

}  // namespace

TEST_F(KeySettingsTest, AloneMakeAScenario) {
    const Scenario scenario = set({"card.verdict=2", "quotes.per_second = 50"});
    EXPECT_EQ(scenario.config.verdict, 2U);
    EXPECT_EQ(scenario.config.quotesPerSecond, 50U);
    EXPECT_EQ(scenario.name, "card.verdict=2, quotes.per_second = 50");
}

TEST_F(KeySettingsTest, ReplaceKeysOfTheFileAndAddOthers) {
    write("a.ini", "[card]\nseed = 5\nverdict = 1\n");
    const Scenario scenario = set({"CARD.Verdict=0x2", "pace.pace=max"}, "a.ini");
    EXPECT_EQ(scenario.config.seed, 5U);
    EXPECT_EQ(scenario.config.verdict, 2U);
    EXPECT_EQ(scenario.config.pace, kPaceOfReaders);
    EXPECT_EQ(scenario.name, "a, CARD.Verdict=0x2, pace.pace=max");
}

TEST_F(KeySettingsTest, MayDescribeAFaultWhoseNameHasADot) {
    const Scenario scenario = set({"fault no.1.kind=stream_held", "fault no.1.channels=3"});
    EXPECT_EQ(scenario.heldStreams, 8U);
}

TEST_F(KeySettingsTest, MayHoldWhatAFileTakesForAComment) {
    EXPECT_EQ(set({"scenario.description=a=b; #c"}).description, "a=b; #c");
}

TEST_F(KeySettingsTest, PathsAreRelativeToTheWorkingDirectory) {
    ::mkdir("scenarios", 0755);
    m_directory.Write("scenarios/a.ini", "");
    m_directory.Write("list.txt", "7,0,SR505\n");
    EXPECT_EQ(set({"instruments.file=list.txt"}, "scenarios/a.ini").instruments->size(), 1U);
    EXPECT_EQ(errorOfSetting({"instruments.file=gone.txt"}),
              "--set instruments.file=gone.txt: file gone.txt: No such file or directory; paths are relative to the "
              "working directory");
}

TEST_F(KeySettingsTest, AreRejectedByNameAsAFileIsByLine) {
    write("a.ini", "[card]\nclock_offset = 1\n");
    const struct {
        std::vector<std::string> texts;
        const char* error;
    } cases[] = {
        {{""}, "--set : this sets no key; write section.key=value"},
        {{"card"}, "--set card: this sets no key; write section.key=value"},
        {{"seed=1"}, "--set seed=1: this sets no key; write section.key=value"},
        {{".=1"}, "--set .=1: this sets no key; write section.key=value"},
        {{"card:x.seed=1"}, "--set card:x.seed=1: this sets no key; write section.key=value"},
        {{"card.seed="}, "--set card.seed=: seed: there is no value; give one, or remove the setting"},
        {{"cards.seed=1"},
         "--set cards.seed=1: there is no section [cards]; use scenario, card, instruments, quotes, pace, replay or "
         "fault NAME"},
        {{"pace.speed=1"}, "--set pace.speed=1: [pace] has no key speed; use pace"},
        {{"card.seed=many"},
         "--set card.seed=many: seed: \"many\" will not do; give a number from 0 to 18446744073709551615"},
        {{"card.seed=1", "card.seed=2"},
         "--set card.seed=2: --set card.seed=1 sets the same key; remove one of the two"},
        {{"card.clock=09:00:00"}, "--set card.clock=09:00:00: clock: it excludes clock_offset; remove one of the two"},
        {{"fault x.channels=0"}, "--set fault x.channels=0: [fault x] needs the key kind; give it"},
        {{"replay.map=card"}, "--set replay.map=card: [replay] needs the key file; give it, or remove the section"},
        {{"card.seed=1\n2"}, "--set: a setting has a control character; write plain text"},
        {{"card.\033[2Jseed=1"}, "--set: a setting has a control character; write plain text"},
    };
    for (const auto& c : cases) EXPECT_EQ(errorOfSetting(c.texts, "a.ini"), c.error);
}

TEST_F(KeySettingsTest, OfAnyLengthAreRejectedInALineThatCanBeRead) {
    EXPECT_EQ(errorOfSetting({"card.seed=" + std::string(100'000, '1')}),
              "--set: a setting is too long; keep it below 1,000 characters");
}

TEST_F(KeySettingsTest, GoThroughTheEnvironmentOneALine) {
    const KeySettings given{"--set", {"card.seed=7", "scenario.description=two words"}};
    const KeySettings taken = settingsOfEnvironment(linesOf(given));
    EXPECT_EQ(taken.texts, given.texts);
    EXPECT_EQ(taken.placeOf("card.seed=7"), "VEXO_SIM_SET card.seed=7");
}

TEST_F(KeySettingsTest, TheEnvironmentsEmptyLinesSetNothing) {
    EXPECT_THAT(settingsOfEnvironment("\n\ncard.seed=7\n\n").texts, ElementsAre("card.seed=7"));
    EXPECT_TRUE(settingsOfEnvironment("").texts.empty());
}

TEST_F(KeySettingsTest, GetAbsolutePathsForAProcessInAnotherDirectory) {
    const KeySettings given{"--set", {"instruments.file=list.txt", "card.seed=7", "replay.file=/a.pcapng", "nonsense"}};
    EXPECT_THAT(withAbsolutePaths(given).texts, ElementsAre("instruments.file=" + m_directory.Path("list.txt"),
                                                            "card.seed=7", "replay.file=/a.pcapng", "nonsense"));
}

TEST_F(ScenarioTest, WithoutAPathIsNoScenario) {
    std::string error;
    EXPECT_FALSE(load("", error).has_value());
    EXPECT_EQ(error, "no scenario file is named; give its path");
}
