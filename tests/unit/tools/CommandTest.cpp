#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "tests/support/TempDir.h"
#include "tests/unit/capture/CaptureSample.h"
#include "tests/unit/tools/Program.h"

using namespace capture;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

ProgramResult vexo(const std::string& words) { return runProgram(word(VEXO_COMMAND) + " " + words); }

class Command : public ::testing::Test {
protected:
    Command() { ::setenv("VEXO_SIM_DIR", dir.Path().c_str(), 1); }
    ~Command() override { ::unsetenv("VEXO_SIM_DIR"); }

    test_support::TempDir dir;  // the working directory, too
};

}  // namespace

TEST_F(Command, TellsItsVersion) { EXPECT_EQ(vexo("--version").output, "vexo " VEXO_VERSION "\n"); }

TEST_F(Command, ExplainsEverySubcommand) {
    EXPECT_EQ(vexo("--help").status, 0);
    EXPECT_THAT(vexo("--help").output, AllOf(HasSubstr("\n  check "), HasSubstr("\n  index "), HasSubstr("\n  log "),
                                             HasSubstr("\n  plan "), HasSubstr("\n  report "), HasSubstr("\n  run "),
                                             HasSubstr("\n  sim "), HasSubstr("\n  stat "), HasSubstr("\n  tap ")));
    EXPECT_THAT(vexo("sim --help").output, HasSubstr("\n  run "));
    EXPECT_THAT(vexo("sim run --help").output, HasSubstr("vexo sim run [OPTIONS] -- PROGRAM [ARGUMENTS]"));
    EXPECT_THAT(vexo("tap --help").output, HasSubstr("vexo tap [OPTIONS] -- PROGRAM [ARGUMENTS]"));
}

TEST_F(Command, AWrongCommandLineEndsWithTwoAndSaysWhatIsWrong) {
    const struct {
        const char* words;
        const char* text;
    } cases[] = {
        {"", "vexo: no subcommand: see vexo --help"},
        {"tpa", "vexo: unexpected argument: tpa\nSee vexo --help"},
        {"tap", "vexo: no program to run: put it after --"},
        {"sim", "vexo: no subcommand: see vexo sim --help"},
        {"sim rnu", "vexo: unexpected argument: rnu\nSee vexo sim --help"},
        {"sim run", "vexo: no program to run: put it after --"},
        {"sim run --nonsense -- true", "vexo: unexpected argument: --nonsense\nSee vexo sim run --help"},
        {"sim run ./app x.ini",
         "vexo: unexpected arguments: ./app x.ini\nPut -- before the program: vexo sim run [OPTIONS] -- ./app x.ini\n"},
        {"tap --registers ./app --seconds 3 x.ini",
         "vexo: unexpected arguments: ./app --seconds 3 x.ini\n"
         "Put -- before the program: vexo tap [OPTIONS] -- ./app --seconds 3 x.ini\n"},
        {"sim run --set card.verdict -- true", "vexo: --set card.verdict: this sets no key; write section.key=value\n"},
        {"sim run --set card.verdikt=1 -- true", "vexo: --set card.verdikt=1: [card] has no key verdikt; use bus, "},
        {"sim run --set card.mtu=7 -- true",
         "vexo: --set card.mtu=7: mtu: \"7\" will not do; give a number from 512 to 65536\n"},
        {"sim run --set card.mtu=512 --hosted -- true", "--set excludes --hosted"},
        {"sim run --embedded --hosted -- true", "--embedded excludes --hosted"},
        {"sim run --scenario none.ini -- true", "vexo: --scenario none.ini: No such file or directory"},
        {"sim run --scenario . -- true", "vexo: --scenario .: this is a directory"},
        {"log --level loud", "--level: no level; give assert, error, warn, "},
        {"log --lines -1", "--lines"},
        {"log --color red", "--color"},
        {"log --explain x a.log", "paths excludes --explain"},
        {"log --explain ' '", "vexo: --explain: the text is empty\n"},
        {"index a b", "vexo: unexpected argument: b\nSee vexo index --help"},
        {"index a --compare b --list",
         "vexo: --list shows no comparison; leave out --list or --compare, or add --json"},
        {"stat --json --loss", "--loss excludes --json"},
        {"stat --listen 0 --prometheus -", "--prometheus excludes --listen"},
        {"stat --listen 70000", "--listen"},
        {"stat --watch 0", "--watch: Value 0 not in range"},
        {"tap --stats-only --registers -- true", "--registers excludes --stats-only"},
        {"tap --stats-only --ring-lasts 0 -- true", "--ring-lasts: Value 0 not in range"},
        {"tap --rotate 0 -- true", "--rotate: Value 0 not in range"},
        {"tap --output none/a.pcapng -- true", "vexo: --output none/a.pcapng: there is no directory "},
        {"tap --output . -- true", "vexo: --output .: this is a directory, not a file"},
    };
    for (const auto& c : cases) {
        const ProgramResult result = vexo(c.words);
        EXPECT_EQ(result.status, 2) << c.words;
        EXPECT_THAT(result.output, HasSubstr(c.text)) << c.words;
    }
}

TEST_F(Command, AProgramThatIsNotThereIsNamedAndEndsAsInAShell) {
    const ProgramResult missing = vexo("sim run -- ./nosuch --seconds 3");
    EXPECT_EQ(missing.status, 127);
    EXPECT_EQ(missing.output, "vexo: ./nosuch: No such file or directory\n");
    dir.Write("text", "no program", 0644);
    const ProgramResult forbidden = vexo("tap -- ./text");
    EXPECT_EQ(forbidden.status, 126);
    EXPECT_EQ(forbidden.output, "vexo: ./text: Permission denied\n");
}

TEST_F(Command, BecomesTheProgramWithItsArgumentsAndItsExitStatus) {
    const ProgramResult result = vexo("sim run -- sh -c 'echo $# $2; exit 7' sh --one '-- two'");
    EXPECT_EQ(result.status, 7);
    EXPECT_EQ(result.output, "2 -- two\n");
}

TEST_F(Command, TapWithStatsOnlyLoadsTheCounterAndNoRecorder) {
    const ProgramResult result = runProgram(
        "unset LD_PRELOAD LD_LIBRARY_PATH; " + word(VEXO_COMMAND) +
        " tap --stats-only --keep-page --ring-lasts 7 -- sh -c 'echo $LD_PRELOAD $LD_LIBRARY_PATH "
        "$VEXO_STATS_RING_LASTS_US $VEXO_STATS_KEEP $VEXO_TAP_FILE'");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, HasSubstr("libvexo-stats.so"));
    EXPECT_THAT(result.output, EndsWith(" 7 1\n"));
}

TEST_F(Command, SimRunPutsTheSimulatedCardBeforeEverythingElse) {
    const ProgramResult result = runProgram("LD_LIBRARY_PATH=/opt/other " + word(VEXO_COMMAND) +
                                            " sim run -- sh -c 'echo $LD_LIBRARY_PATH'");
    EXPECT_THAT(result.output, AllOf(StartsWith(VEXO_SIM_DIRECTORY ":"), EndsWith(":/opt/other\n")));
}

TEST_F(Command, SimRunHandsOnScenarioAndKindOfCard) {
    dir.Write("a.ini", "");
    const std::string show = " -- sh -c 'echo \"$VEXO_SIM_SCENARIO|$VEXO_SIM_CARD\"'";
    EXPECT_EQ(vexo("sim run" + show).output, "|\n");
    EXPECT_EQ(vexo("sim run --scenario a.ini --embedded" + show).output, dir.Path("a.ini") + "|embedded\n");
    EXPECT_EQ(vexo("sim run --hosted" + show).output, "|hosted\n");
}

TEST_F(Command, SimRunChecksTheScenarioBeforeTheProgramStarts) {
    dir.Write("a.ini", "[card]\nseed = 1\nverdikt = 1\n");
    const ProgramResult result = vexo("sim run --scenario a.ini -- touch started");
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.output, StartsWith("vexo: a.ini:3: [card] has no key verdikt; use bus, "));
    EXPECT_NE(::access("started", F_OK), 0);
}

TEST_F(Command, SimRunHandsOnSettingsOneALine) {
    dir.Write("list.txt", "1,0,SR505\n");
    dir.Write("a.ini", "");
    const std::string show = " -- sh -c 'echo \"$VEXO_SIM_SCENARIO|$VEXO_SIM_CARD|$VEXO_SIM_SET\"'";
    EXPECT_EQ(vexo("sim run --set card.verdict=2 --set instruments.file=list.txt" + show).output,
              "|embedded|card.verdict=2\ninstruments.file=" + dir.Path("list.txt") + "\n\n");
    EXPECT_EQ(vexo("sim run --scenario a.ini --set 'scenario.description=an old card'" + show).output,
              dir.Path("a.ini") + "|embedded|scenario.description=an old card\n\n");
}

TEST_F(Command, SimRunWithSettingsIgnoresWhatTheEnvironmentSaysOfTheCard) {
    const std::string show = " -- sh -c 'echo \"$VEXO_SIM_SCENARIO|$VEXO_SIM_SET\"'";
    const std::string environment = "VEXO_SIM_SCENARIO=other.ini VEXO_SIM_SET=card.bus=1 ";
    EXPECT_EQ(runProgram(environment + word(VEXO_COMMAND) + " sim run --set card.bus=2" + show).output,
              "|card.bus=2\n\n");
}

TEST_F(Command, SimRunTakesAProgramThatWasLinkedWithAnotherCard) {
    EXPECT_EQ(runProgram("VEXO_SIM_CARD=embedded " + word(VEXO_TAP_APP) + " no-handler").status, 0);
    const ProgramResult result = vexo("sim run -- " + word(VEXO_SIM_APP));
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, AllOf(HasSubstr("SIMULATED CARD"), HasSubstr("type 20 ")));
}

TEST_F(Command, TapWritesWhereItWasStartedWhereverTheProgramGoes) {
    const ProgramResult result = runProgram(tapSettings("ignored") + "SCRIPTED_PACKETS=4 " + word(VEXO_COMMAND) +
                                            " tap --output a.pcapng -- sh -c 'cd / && exec " + word(VEXO_TAP_APP) +
                                            " receive'");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(readPath(dir.Path("a.pcapng")).packetsOf("channel 3"), 4U);
}

TEST_F(Command, TapIsLoadedFromADirectoryWithABlank) {
    namespace fs = std::filesystem;
    fs::create_directories(dir.Path("a b/bin"));
    fs::create_directories(dir.Path("a b/tools"));
    fs::copy_file(VEXO_COMMAND, dir.Path("a b/bin/vexo"));
    fs::copy_file(VEXO_TAP_LIBRARY, dir.Path("a b/tools/libvexo-tap.so"));
    const ProgramResult result = runProgram(tapSettings("ignored") + "SCRIPTED_PACKETS=4 " +
                                            word(dir.Path("a b/bin/vexo")) + " tap --output a.pcapng -- " +
                                            word(VEXO_TAP_APP) + " receive");
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(readPath(dir.Path("a.pcapng")).packetsOf("channel 3"), 4U);
}
