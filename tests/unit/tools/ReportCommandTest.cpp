#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "tests/hosted/HostProcess.h"
#include "tests/support/TempDir.h"
#include "tests/unit/tools/Program.h"
#include "tools/vexo/report/Mask.h"

using capture::ProgramResult;
using capture::runProgram;
using capture::word;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using vexo::report::Mask;

namespace {

class ReportCommand : public ::testing::Test {
protected:
    ReportCommand() { dir.Write("c3.ini", "[config]\ndevice = xilinx0:3\nL5_IPA = 239.3.50.1\npassword = sesame\n"); }

    static ProgramResult Report(const std::string& words) {
        return runProgram(word(VEXO_COMMAND) + " report " + words);
    }
    // A file of the archive.
    static std::string Part(const std::string& archive, const std::string& name) {
        return runProgram("tar -xOf " + archive + " --wildcards '*/" + name + "'").output;
    }
    test_support::TempDir dir;
};

}  // namespace

TEST_F(ReportCommand, HoldsWhatItLists) {
    dir.Write("fpga_20261115.log", "old\n");
    dir.Write("fpga_20261116.log", "new\n");
    dir.Write("c3.out", "printed\n");
    dir.Write("c3.out.1", "printed before\n");
    dir.Write("core", "a core dump\n");
    const ProgramResult result = Report("--output a.tar c3.ini");
    EXPECT_EQ(result.status, 0);
    std::string listed;
    std::istringstream text(result.output);
    for (std::string line, size, name; std::getline(text, line);) {
        std::istringstream words(line);
        if (words >> size >> name && name != "bytes" && size != "written") listed += size + " " + name + "\n";
    }
    EXPECT_EQ(runProgram("tar -tvf a.tar | awk '{ sub(\".*/\", \"\", $6); print $3, $6 }'").output, listed);
    EXPECT_THAT(listed, AllOf(HasSubstr("4 fpga_20261116.log\n"), HasSubstr("8 c3.out\n"), HasSubstr("15 c3.out.1\n"),
                              HasSubstr(" versions.txt\n"), HasSubstr(" check.txt\n"), HasSubstr(" day-file.txt\n")));
    EXPECT_EQ(Part("a.tar", "fpga_20261116.log"), "new\n");
    EXPECT_EQ(Part("a.tar", "config-1-c3.ini"), dir.Read("c3.ini"));
    EXPECT_THAT(Part("a.tar", "check.txt"), HasSubstr("c3.ini:4: error: [config] has no key password"));
    EXPECT_THAT(dir.Read("a.tar"), Not(HasSubstr("core dump")));
    EXPECT_THAT(dir.Read("a.tar"), Not(HasSubstr("old\n")));
}

TEST_F(ReportCommand, OnlyItsOwnerCanReadIt) {
    EXPECT_EQ(Report("--output a.tar").status, 0);
    struct stat status;
    ASSERT_EQ(::stat("a.tar", &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    EXPECT_THAT(runProgram("tar -tvf a.tar").output, Not(HasSubstr("rw-r")));
}

TEST_F(ReportCommand, DoesNotOverwriteAFileNorFollowALink) {
    dir.Write("a.tar", "precious");
    ASSERT_EQ(::symlink("none", "b.tar"), 0);
    for (const char* name : {"a.tar", "b.tar"}) {
        const ProgramResult result = Report(std::string("--output ") + name);
        EXPECT_EQ(result.status, 2);
        // At once, without the list.
        EXPECT_EQ(result.output, std::string("vexo: ") + name +
                                     ": it exists, and vexo never overwrites; give another name with --output\n");
    }
    EXPECT_EQ(dir.Read("a.tar"), "precious");
    EXPECT_NE(::access("none", F_OK), 0);
}

TEST_F(ReportCommand, AFullDiskLeavesNoFile) {
    const ProgramResult result = runProgram("trap '' XFSZ; ulimit -f 1; " + word(VEXO_COMMAND) +
                                            " report --output a.tar");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, HasSubstr("vexo: a.tar: File too large"));
    EXPECT_NE(::access("a.tar", F_OK), 0);
}

TEST_F(ReportCommand, TheListAloneWritesNothing) {
    const ProgramResult result = Report("--list c3.ini");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, AllOf(HasSubstr(" config-1-c3.ini "), HasSubstr("bytes in all")));
    EXPECT_EQ(runProgram("ls").output, "c3.ini\n");
}

TEST_F(ReportCommand, AListThatNobodyCanSeeGivesNoFile) {
    for (const char* option : {"", "--json "}) {
        EXPECT_EQ(Report(option + std::string("--output a.tar >/dev/full")).status, 1);
        EXPECT_NE(::access("a.tar", F_OK), 0) << option;
    }
}

TEST_F(ReportCommand, AsJsonHasTheSameList) {
    dir.Write("fpga_20261116.log", "new\n");
    const auto list = nlohmann::json::parse(Report("--list --json c3.ini").output);
    EXPECT_EQ(list["file"], "");
    const auto written = nlohmann::json::parse(Report("--json --mask --output a.tar c3.ini").output);
    EXPECT_EQ(written["file"], "a.tar");
    EXPECT_EQ(written["masked"], true);
    std::string names;
    std::size_t bytes = 0;
    for (const auto& part : written["parts"]) {
        names += part["name"].get<std::string>() + "\n";
        bytes += part["bytes"].get<std::size_t>();
    }
    EXPECT_EQ(written["bytes"], bytes);
    EXPECT_EQ(runProgram("tar -tf a.tar | sed 's:.*/::'").output, names);
    EXPECT_EQ(list["parts"].size(), written["parts"].size());
}

TEST_F(ReportCommand, TakesTheEndOfALog) {
    dir.Write("fpga_20261116.log", "1\n2\n3\n4\n");
    EXPECT_EQ(Report("--lines 2 --output a.tar").status, 0);
    EXPECT_EQ(Part("a.tar", "fpga_20261116.log"), "3\n4\n");
    EXPECT_EQ(Report("--lines 4 --output b.tar").status, 0);
    EXPECT_EQ(Part("b.tar", "fpga_20261116.log"), "1\n2\n3\n4\n");
}

TEST_F(ReportCommand, ALogThatIsNoFileIsLeftOut) {
    ASSERT_EQ(::mkfifo("fpga_20261116.log", 0600), 0);
    const ProgramResult result = Report("--list");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, Not(HasSubstr("fpga_")));
}

TEST_F(ReportCommand, MasksAddressesAndPasswords) {
    dir.Write("fpga_20261116.log", "[time]L5_IPA=239.3.50.1\n[time]Current soft version 1.1.2.13.\n");
    EXPECT_EQ(Report("--mask --output a.tar c3.ini").status, 0);
    EXPECT_EQ(Part("a.tar", "config-1-c3.ini"),
              "[config]\ndevice = xilinx0:3\nL5_IPA = <address 1>\npassword = <masked>\n");
    EXPECT_EQ(Part("a.tar", "fpga_20261116.log"), "[time]L5_IPA=<address 1>\n[time]Current soft version 1.1.2.13.\n");
    EXPECT_THAT(dir.Read("a.tar"), Not(HasSubstr("239.3.50.1")));
    EXPECT_THAT(dir.Read("a.tar"), Not(HasSubstr("sesame")));
}

TEST_F(ReportCommand, NamesTheProcessesThatHaveLoadedTheCardsLibrary) {
    ::setenv("VEXO_SIM_CARD", "embedded", 1);
    hosted::Process app({VEXO_RUN_APP, "c3.ini", "hang"}, "app.out");
    ASSERT_TRUE(hosted::Eventually([&] { return !dir.Read("up").empty() || !app.IsRunning(); }));
    EXPECT_EQ(Report("--output a.tar").status, 0);
    ::unsetenv("VEXO_SIM_CARD");
    EXPECT_THAT(Part("a.tar", "holders.txt"),
                AllOf(HasSubstr("process " + dir.Read("up") + " ("), HasSubstr("    has loaded "),
                      HasSubstr("/libenyx-hw-c.so.1"), HasSubstr("/fpga_")));
}

TEST_F(ReportCommand, AWrongCommandLineEndsWithTwo) {
    EXPECT_EQ(Report("none.ini").status, 2);
    EXPECT_EQ(Report("--lines 0").status, 2);
    EXPECT_EQ(Report("--list --output a.tar").status, 2);
    EXPECT_THAT(Report("/dev/zero").output, HasSubstr("vexo: /dev/zero: this is no configuration\n"));
    EXPECT_EQ(runProgram("ls").output, "c3.ini\n");
}

TEST(Mask, GivesTheSameAddressTheSameWord) {
    EXPECT_EQ(Mask().apply("from 10.0.0.1 to 10.0.0.2, back to 10.0.0.1."),
              "from <address 1> to <address 2>, back to <address 1>.");
    EXPECT_EQ(Mask().apply("0a:1b:2c:3d:4e:5f 0A-1B-2C-3D-4E-5F 10.0.0.1:80"),
              "<address 1> <address 2> <address 3>:80");
}

TEST(Mask, LeavesVersionsTimesAndNumbersAlone) {
    for (const char* text : {"1.1.2.13 = 12", "20261122-04:39:17", "00:01.0 class", "1.2.3", "5.10.0.1.2", "xilinx0:3"})
        EXPECT_EQ(Mask().apply(text), text);
}

TEST(Mask, HidesTheValueOfAnAddressKeyThatIsNoAddress) {
    EXPECT_EQ(Mask().apply("L5_IPA = 239.3.50 ; comment"), "L5_IPA = <address 1> ; comment");
    EXPECT_EQ(Mask().apply("a.ini:3: error: [config] L5_IPA: \"239.3.50\" is no address"),
              "a.ini:3: error: [config] L5_IPA: \"<masked>\" is no address");
}

TEST(Mask, HidesAddressesThatTheLogShowsAsNumbers) {
    EXPECT_EQ(Mask().apply("multi channel 0x200 = 0x013203ef"), "multi channel 0x200 = 0x<masked>");
    EXPECT_EQ(Mask().apply("Write int32 failed, addr[0x304] value[0xef033201], errmsg:x."),
              "Write int32 failed, addr[0x304] value[0x<masked>], errmsg:x.");
    const char* const row = "Write int32 failed, addr[0x11000] value[0x40], errmsg:x.";
    EXPECT_EQ(Mask().apply(row), row);
}

TEST(Mask, HidesWhatFollowsAPasswordInAnyManner) {
    EXPECT_EQ(Mask().apply("Password=a b c"), "Password=<masked>");
    EXPECT_EQ(Mask().apply("db_pwd : abc"), "db_pwd : <masked>");
    EXPECT_EQ(Mask().apply("\"api_token\": \"abc\","), "\"api_token\": <masked>");
    EXPECT_EQ(Mask().apply("no password here\n"), "no password here\n");
}
