#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TempDir.h"
#include "tests/unit/tools/Program.h"

using namespace capture;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

class CheckCommand : public ::testing::Test {
protected:
    // With the commands that the library asks about the host, as the test wrote them.
    ProgramResult Check(const std::string& words, const std::string& settings = "") {
        return runProgram("TZ=Asia/Shanghai " + settings + " PATH=" + word(dir.Path()) + ":$PATH " +
                          word(VEXO_COMMAND) + " check " + words);
    }
    void Host(const std::string& lspci, const std::string& lsmod) {
        dir.Write("lspci", "#!/bin/sh\necho '" + lspci + "'\n", 0755);
        dir.Write("lsmod", "#!/bin/sh\necho '" + lsmod + "'\n", 0755);
    }
    const std::string example = word(VEXO_EXAMPLES_DIR "/zce.ini");
    test_support::TempDir dir;
};

}  // namespace

TEST_F(CheckCommand, TheStatusTellsFindingsFromWrongUsage) {
    EXPECT_EQ(Check("--config-only " + example).status, 0);
    EXPECT_EQ(Check("--config-only " + example).output, "no findings\n");
    dir.Write("bad.ini", "[config]\n");
    EXPECT_EQ(Check("--config-only bad.ini").status, 1);
    const struct {
        const char* words;
        const char* text;
    } wrong[] = {
        {"", "vexo: nothing to check: name a configuration, such as vexo check zce.ini"},
        {"none.ini", "vexo: none.ini: No such file or directory; check the path\n"},
        {".", "vexo: .: this is a directory, not a file"},
        {"--after none.log", "vexo: none.log: No such file or directory"},
        {"--color blue bad.ini", "--color"},
        {"bad.ini more.ini", "vexo: more.ini: No such file or directory"},
        {"--nonsense bad.ini", "unexpected argument: --nonsense"},
        {"--config-only", "--config-only requires CONFIG.ini"},
    };
    for (const auto& one : wrong) {
        const ProgramResult result = Check(one.words);
        EXPECT_EQ(result.status, 2) << one.words;
        EXPECT_THAT(result.output, HasSubstr(one.text)) << one.words;
    }
}

TEST_F(CheckCommand, EachFindingHasItsLineAndTheTotalFollows) {
    dir.Write("bad.ini", "[config]\ndevice = xilinx0:3\ncpucore = many\nnonsense\n");
    const ProgramResult result = Check("--config-only bad.ini");
    EXPECT_THAT(result.output,
                StartsWith("bad.ini:3: error: [config] cpucore: \"many\" is no number and counts as 0; "));
    EXPECT_THAT(result.output, HasSubstr("\nbad.ini:4: fatal: this is neither a section nor a key nor a comment"));
    EXPECT_THAT(result.output, HasSubstr("\n2 findings; the start-up ends at what is fatal\n"));
    EXPECT_THAT(result.output, Not(HasSubstr("iniparser")));
}

TEST_F(CheckCommand, WhatTheLibraryRefusesIsNoListOfMissingKeys) {
    const std::string refused =
        ":1: fatal: this is neither a section nor a key nor a comment; the library refuses the file; write [section], "
        "key = value, or put ; in front\n1 finding; the start-up ends at what is fatal\n";
    dir.Write("broken.ini", "[config\ndevice = xilinx0:0\nL1_PORTA = 30015\n");
    EXPECT_EQ(Check("--config-only broken.ini").output, "broken.ini" + refused);
    dir.Write("binary.ini", std::string("\x7F"
                                        "ELF\n",
                                        5));
    EXPECT_EQ(Check("--config-only binary.ini").output, "binary.ini" + refused);
}

TEST_F(CheckCommand, JsonHasTheSameFindings) {
    dir.Write("bad.ini", "[config]\ndevice = xilinx0:3\ncpucore = m\xffny\n");
    const ProgramResult result = Check("--json --config-only bad.ini");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, AllOf(HasSubstr("\"level\": \"error\""), HasSubstr("\"place\": \"bad.ini\""),
                                     HasSubstr("\"line\": 3"), HasSubstr("\"count\": 1"), HasSubstr("\"fatal\": 0")));
}

TEST_F(CheckCommand, AValueCannotCommandTheTerminal) {
    dir.Write("bad.ini", "[config]\ndevice = xilinx0:3\ncpucore = \033[2J\n");
    EXPECT_THAT(Check("--config-only bad.ini").output, AllOf(HasSubstr("\\x1B[2J"), Not(HasSubstr("\033"))));
}

TEST_F(CheckCommand, ColorsOnlyWhenAsked) {
    dir.Write("bad.ini", "[config]\n");
    EXPECT_THAT(Check("--config-only bad.ini").output, Not(HasSubstr("\033")));
    EXPECT_THAT(Check("--color always --config-only bad.ini").output, HasSubstr("\033[1;31mfatal\033[0m"));
    const std::string onTerminal = "script -qec '" + word(VEXO_COMMAND) + " check --config-only bad.ini' /dev/null";
    EXPECT_THAT(runProgram("TERM=xterm " + onTerminal).output, HasSubstr("\033[1;31mfatal"));
    EXPECT_THAT(runProgram("TERM=xterm NO_COLOR=1 " + onTerminal).output, Not(HasSubstr("\033")));
    EXPECT_THAT(runProgram("TERM=dumb " + onTerminal).output, Not(HasSubstr("\033")));
}

TEST_F(CheckCommand, FindsBoardAndDriverAsTheLibraryDoes) {
    dir.Write("zce.ini", "[config]\ndevice = xilinx0:3\n");
    Host("", "");
    EXPECT_THAT(Check("zce.ini").output, HasSubstr("host: error: lspci shows no card; "));
    Host("01:00.0 Xilinx card", "ext4 1");
    EXPECT_THAT(Check("zce.ini").output, HasSubstr("host: error: lsmod shows no driver xdma"));
    Host("01:00.0 Xilinx card", "xdma 1");
    EXPECT_EQ(Check("zce.ini").status, 0) << Check("zce.ini").output;
}

TEST_F(CheckCommand, TheLocalTimeIsThatOfTheProgram) {
    dir.Write("zce.ini", "[config]\ndevice = xilinx0:3\n");
    Host("01:00.0 Xilinx card", "xdma 1");
    const std::string text = "host: warning: the local time is UTC";
    EXPECT_THAT(Check("zce.ini", "TZ=UTC").output, HasSubstr(text + "+0, the exchange's is UTC+8; "));
    EXPECT_THAT(Check("zce.ini", "TZ=America/Lima").output, HasSubstr(text + "-5, "));
    EXPECT_THAT(Check("zce.ini").output, Not(HasSubstr(text)));
}

TEST_F(CheckCommand, TheHintToTheSimulatedCardCanBeTyped) {
    dir.Write("zce.ini", "[config]\ndevice = xilinx0:3\n");
    Host("", "");
    const ProgramResult result = Check("--card zce.ini", "env -u LD_LIBRARY_PATH");
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.output, HasSubstr("for the simulated card: vexo sim run -- vexo check --card zce.ini\n"));
    EXPECT_THAT(result.output, HasSubstr("for the simulated card, put vexo sim run -- before the command\n"));
}

TEST_F(CheckCommand, ChecksTheDirectoryThatIsNamed) {
    dir.Write("zce.ini", "[config]\ndevice = xilinx0:3\n");
    Host("01:00.0 Xilinx card", "xdma 1");
    EXPECT_THAT(Check("--directory none zce.ini").output, HasSubstr("none: fatal: there is no such directory"));
}

TEST_F(CheckCommand, FindsProgramsThatTakeTheSameStreamOrCpu) {
    dir.Write("a.ini", "[config]\ndevice = xilinx0:3\ncpucore = 1\n");
    dir.Write("b.ini", "[config]\ncpucore = 1\ndevice = xilinx0:4\n");
    dir.Write("c.ini", "[config]\ndevice = xilinx1:3\n\ndevice=xilinx0:3\n");
    EXPECT_EQ(
        Check("--config-only a.ini b.ini").output,
        "b.ini:2: warning: a.ini has the same cpucore; the two threads share CPU 1; give each program a CPU of its "
        "own\n1 finding\n");
    EXPECT_THAT(Check("--config-only a.ini c.ini").output,
                HasSubstr("c.ini:4: fatal: a.ini has the same card and channel"));
}

TEST_F(CheckCommand, ShowsAllKeys) {
    EXPECT_THAT(Check("--keys").output,
                AllOf(HasSubstr("[channelN]  with N from 0 to 15\n"), HasSubstr("L5_IPA = 239.")));
    EXPECT_THAT(Check("--keys --json").output, HasSubstr("\"key\": \"BIN_DELAY_TIME\""));
}
