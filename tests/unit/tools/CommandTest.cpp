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
using ::testing::Not;
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
    EXPECT_THAT(vexo("--help").output,
                AllOf(HasSubstr("\n  check "), HasSubstr("\n  index "), HasSubstr("\n  log "), HasSubstr("\n  plan "),
                      HasSubstr("\n  relay "), HasSubstr("\n  remote "), HasSubstr("\n  report "),
                      HasSubstr("\n  run "), HasSubstr("\n  sim "), HasSubstr("\n  stat "), HasSubstr("\n  tap ")));
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
        {"tpa", "vexo: unexpected argument: tpa; is it tap?\nSee vexo --help"},
        {"tap", "vexo: no program to run: put it after --"},
        {"sim", "vexo: no subcommand: see vexo sim --help"},
        {"--json stat",
         "vexo: unexpected argument: --json; put --json behind the subcommand: vexo stat --json\nSee vexo stat --help"},
        {"--color never check",
         "vexo: unexpected argument: --color; put --color behind the subcommand: vexo check --color never\nSee "},
        {"--output=x tap",
         "vexo: unexpected argument: --output=x; put --output behind the subcommand: vexo tap --output=x\n"},
        {"sim --hosted run -- true", "; put --hosted behind the subcommand: vexo sim run --hosted\n"},
        {"remote --from nats://h -- true",
         "vexo: unexpected argument: --from; is it vexo remote run?\nSee vexo remote --help"},
        {"sim --hosted -- true", "vexo: unexpected argument: --hosted; is it vexo sim run?\nSee vexo sim --help"},
        {"--json", "vexo: unexpected argument: --json\nSee vexo --help"},
        {"sim rnu", "vexo: unexpected argument: rnu; is it run?\nSee vexo sim --help"},
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
        {"sim run --scenario none.ini -- true",
         "vexo: --scenario none.ini: No such file or directory; check the path\n"},
        {"sim run --scenario . -- true", "vexo: --scenario .: this is a directory"},
        {"log --level loud",
         "vexo: --level: loud is no level; give assert, error, warn, event, info, debug or verbose\n"},
        {"log --lines -1", "vexo: --lines: -1 is not a whole number from 0 to 1000000\nSee vexo log --help"},
        {"log --lines 1e3", "vexo: --lines: 1e3 is not a whole number from 0 to 1000000\n"},
        {"log --lines", "vexo: --lines: its value is missing\nSee vexo log --help"},
        {"log --color red", "vexo: --color: red is none of auto, always, never\n"},
        {"log --follo a.log", "vexo: unexpected argument: --follo; is it --follow?\nSee vexo log --help"},
        {"run --watchdg 1 demo.ini -- true",
         "vexo: unexpected argument: --watchdg; is it --watchdog?\nSee vexo run --help"},
        {"run --watchdog x demo.ini -- true", "vexo: --watchdog: x is not a number from 0.01 to 86400\n"},
        {"run --directory none demo.ini -- true", "vexo: --directory: there is no directory none\n"},
        {"report --lines 0", "vexo: --lines: 0 is not a whole number from 1 to 100000\n"},
        {"report --output none/a.tar", "vexo: none/a.tar: there is no directory none\n"},
        {"report --output .", "vexo: .: it exists, and vexo never overwrites"},
        {"sim run --user root -- true", "--user requires --hosted"},
        {"sim run --hosted --user no-such-user -- true", "vexo: --user no-such-user: there is no such user\n"},
        {"index --sim a", "excludes"},
        {"log --explain x a.log", "paths excludes --explain"},
        {"log --explain ' '", "vexo: --explain: the text is empty\n"},
        {"index a b", "vexo: unexpected argument: b\nSee vexo index --help"},
        {"index a --compare b --list",
         "vexo: --list shows no comparison; leave out --list or --compare, or add --json"},
        {"relay --channel 3", "vexo: no servers: give --to nats://HOST:PORT"},
        {"relay --channel 16 --to nats://h", "vexo: --channel: 16 is not a whole number from 0 to 15\n"},
        {"relay --to nats://h", "vexo: no channel: give --channel N, or a configuration\n"},
        {"relay --channel 0 --to nats://h", "vexo: channel 0 is the master's, which programs the card"},
        {"relay --channel 3 --to http://h", "vexo: --to: \"http://h\" is not nats://HOST:PORT or tls://HOST:PORT\n"},
        {"relay --channel 3 --to nats://me:secret@h", "vexo: --to: a server's address must not carry a user"},
        {"relay --channel 3 --to nats://h --site a.b", "vexo: --site a.b: use 1 to 32 letters, digits, _ and -\n"},
        {"relay --channel 3 --to nats://h --archive none", "vexo: --archive: "},
        {"relay --channel 3 --to nats://h --keep 3", "vexo: --keep requires --archive"},
        {"relay none.ini --to nats://h", "vexo: none.ini: No such file or directory; check the path\n"},
        {"remote run --from nats://h", "vexo: no program to run: put it after --"},
        {"remote run -- true", "vexo: no servers: give --from nats://HOST:PORT"},
        {"remote run --from nats://me:secret@h -- true", "vexo: --from: a server's address must not carry a user"},
        {"remote run --from nats://h --site a.b -- true", "vexo: --site a.b: use 1 to 32 letters, digits, _ and -\n"},
        {"remote run --from nats://h --bus 5 -- true", "vexo: --bus: 5 is not a whole number from 0 to 4\n"},
        {"remote run --from nats://h --since noon -- true", "vexo: --since noon: write 09:00, 20261122 or"},
        {"remote run --from nats://h --since '' -- true", "--since: the value is empty"},
        {"remote run --from nats://h --creds none -- true", "vexo: none: No such file or directory; check the path\n"},
        {"stat --json --loss", "--loss excludes --json"},
        {"stat --listen 0 --prometheus -", "--prometheus excludes --listen"},
        {"stat --listen 70000", "vexo: --listen: 70000 is not a whole number from 0 to 65535\n"},
        {"stat --watch 0", "vexo: --watch: 0 is not a number from 0.1 to 86400\n"},
        {"stat --pid abc", "vexo: --pid: abc is not a whole number from 1 to 1073741823\n"},
        {"stat --dir none", "vexo: --dir: there is no directory none\n"},
        {"stat --prometheus none/a.prom", "vexo: none/a.prom: there is no directory none\n"},
        {"tap --stats-only --registers -- true", "--registers excludes --stats-only"},
        {"tap --stats-only --ring-lasts 0 -- true", "vexo: --ring-lasts: 0 is not a whole number from 1 to "},
        {"tap --rotate 0 -- true", "vexo: --rotate: 0 is not a whole number from 1 to 1048576\n"},
        {"tap --keep 5 -- true", "vexo: --keep keeps the newest files, so there must be several: add --rotate or "},
        {"tap --keep 1 --rotate 1 -- true", "vexo: --keep: 1 is not a whole number from 2 to 100000\n"},
        {"tap --keep-space 1 -- true", "--keep-space requires --keep"},
        {"tap --duration 1w -- true", "--duration: 1w is no time; write seconds, or a number with s, m, h or d"},
        {"tap --duration -1 -- true", "--duration: -1 is no time"},
        {"tap --duration 0 -- true", "--duration: 0 is not between a second and 3660 days"},
        {"tap --rotate-every 99999999999999999999 -- true", "--rotate-every: 99999999999999999999 is no time"},
        {"tap --rotate-every 9999999999999999d -- true", "--rotate-every: 9999999999999999d is no time"},
        {"tap --rotate-every 4000d -- true", "--rotate-every: 4000d is not between a second and 3660 days"},
        {"tap --stats-only --duration 1h -- true", "--stats-only excludes --duration"},
        {"tap --output none/a.pcapng -- true", "vexo: --output none/a.pcapng: there is no directory "},
        {"tap --output . -- true", "vexo: --output .: this is a directory, not a file"},
    };
    for (const auto& c : cases) {
        const ProgramResult result = vexo(c.words);
        EXPECT_EQ(result.status, 2) << c.words;
        EXPECT_THAT(result.output, HasSubstr(c.text)) << c.words;
    }
}

TEST_F(Command, AWholeNumberIsDecimalWhateverItsZeros) {
    dir.Write("a.log", "[INFO   ]1\n2\n3\n4\n5\n6\n7\n8\n9\n10\n");
    EXPECT_EQ(vexo("log --lines 010 a.log").output, dir.Read("a.log"));
}

TEST_F(Command, AnOutputThatIsFullOrClosedIsNamedWithItsCause) {
    for (const char* words : {"check --keys", "--help", "log --help", "log --explain channel"}) {
        const ProgramResult full = vexo(words + std::string(" > /dev/full"));
        EXPECT_EQ(full.status, 1) << words;
        EXPECT_EQ(full.output, "vexo: standard output: No space left on device\n") << words;
        const ProgramResult closed = vexo(words + std::string(" >&-"));
        EXPECT_EQ(closed.status, 1) << words;
        EXPECT_EQ(closed.output, "vexo: standard output: it is closed\n") << words;
    }
}

TEST_F(Command, AFileThatIsOpenedDoesNotGetWhatAClosedOutputWouldHave) {
    const std::string list = "report --output a.tar >&-";
    EXPECT_EQ(vexo(list).output, "vexo: standard output: it is closed\n");
    EXPECT_NE(::access("a.tar", F_OK), 0);
}

TEST_F(Command, ASimulatedCardMayBeThatOfAnotherUser) {
    const ProgramResult result = vexo("sim run --hosted --user root -- sh -c 'echo $VEXO_SIM_CARD'");
    EXPECT_EQ(result.output, "hosted:root\n");
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

TEST_F(Command, TapTellsTheRecorderItsLimits) {
    const ProgramResult result = vexo(
        "tap --rotate 100 --rotate-every 2h --keep 50 --keep-space 1000 --duration 365d -- sh -c 'echo $VEXO_TAP_ROTATE_MB "
        "$VEXO_TAP_ROTATE_SECONDS $VEXO_TAP_KEEP $VEXO_TAP_KEEP_SPACE_MB $VEXO_TAP_DURATION_SECONDS'");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, EndsWith("100 7200 50 1000 31536000\n"));
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

TEST_F(Command, RemoteRunHandsOnWhereTheCardIs) {
    dir.Write("me", "user\n");
    const std::string show =
        " -- sh -c 'echo \"$VEXO_SIM_CARD|$VEXO_SIM_REMOTE|$VEXO_SIM_REMOTE_SITE|$VEXO_SIM_REMOTE_BUS|"
        "$VEXO_SIM_REMOTE_REGISTERS|$VEXO_NATS_USER_FILE\"'";
    EXPECT_EQ(vexo("remote run --from nats://a:1,b:2" + show).output, "remote|nats://a:1,b:2|local|||\n");
    EXPECT_EQ(vexo("remote run --from a --site colo --bus 3 --own-registers --user-file me" + show).output,
              "remote|a|colo|3|own|" + dir.Path("me") + "\n");
    EXPECT_EQ(vexo("remote run --from a --since 1736902800 -- sh -c 'echo $VEXO_SIM_REMOTE_SINCE'").output,
              "1736902800.000000000\n");
}

TEST_F(Command, SimRunChecksTheScenarioBeforeTheProgramStarts) {
    dir.Write("a.ini", "[card]\nseed = 1\nverdikt = 1\n");
    const ProgramResult result = vexo("sim run --scenario a.ini -- touch started");
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.output, StartsWith("vexo: a.ini:3: [card] has no key verdikt; use bus, "));
    EXPECT_NE(::access("started", F_OK), 0);
}

TEST_F(Command, SimRunFindsTheReadyScenarioOfAName) {
    namespace fs = std::filesystem;
    fs::create_directories(dir.Path("bin"));
    fs::create_directories(dir.Path("share/vexo-sim/scenarios"));
    fs::copy_file(VEXO_COMMAND, dir.Path("bin/vexo"));
    const std::string ready = dir.Write("share/vexo-sim/scenarios/lossy_stream.ini", "");
    const std::string command = word(dir.Path("bin/vexo")) + " sim run --scenario ";
    const std::string missing = ": No such file or directory; ";
    for (const std::string name : {"lossy_stream", "lossy_stream.ini"})
        EXPECT_EQ(runProgram(command + name + " -- true").output,
                  "vexo: --scenario " + name + missing + "the ready one is " + ready + "\n");
    EXPECT_THAT(runProgram(command + "./lossy_stream -- true").output, Not(HasSubstr("ready")));
    EXPECT_THAT(runProgram(command + "lossy -- true").output, Not(HasSubstr("ready")));
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

TEST_F(Command, TapDoesNotStartAProgramThatItCannotRecord) {
    namespace fs = std::filesystem;
    // Where a user without the rights of root gets to, whoever runs the test.
    fs::permissions(dir.Path(), fs::perms(0777));
    fs::create_directories(dir.Path("own/bin"));
    fs::create_directories(dir.Path("own/tools"));
    fs::copy_file(VEXO_COMMAND, dir.Path("own/bin/vexo"));
    fs::copy_file(VEXO_TAP_LIBRARY, dir.Path("own/tools/libvexo-tap.so"));
    fs::create_directory(dir.Path("shut"));
    fs::permissions(dir.Path("shut"), fs::perms(0555));
    const std::string user = ::geteuid() == 0 ? "setpriv --reuid 65534 --regid 65534 --clear-groups " : "";
    const ProgramResult result = runProgram(user + word(dir.Path("own/bin/vexo")) +
                                            " tap --output shut/a.pcapng -- touch started");
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.output, "vexo: --output shut/a.pcapng: this user cannot write in the directory shut\n");
    EXPECT_NE(::access("started", F_OK), 0);
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
