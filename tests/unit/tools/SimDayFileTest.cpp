// Where the day files of programs lie that `vexo sim run` starts.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "tests/support/DayFiles.h"
#include "tests/support/TempDir.h"
#include "tests/unit/tools/Program.h"

using namespace capture;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
namespace fs = std::filesystem;

namespace {

constexpr char kMap[] = "inst_index,inst_id\n4,SR701\n5,SR705\nbin_file_over_tag\n";

// Of the day file of this half-day.
std::string NameNow() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char date[16];
    std::strftime(date, sizeof date, "%Y%m%d", &local);
    return std::string(".zce_") + date + (local.tm_hour >= 17 ? "_pm" : "_am");
}

// The line "written" tells it: ", 1 s ago".
std::string WithoutAge(std::string output) {
    const std::size_t end = output.find(" ago\n");
    const std::size_t begin = output.rfind(", ", end);
    return end == std::string::npos ? output : output.erase(begin, end - begin);
}

class SimDayFile : public ::testing::Test {
protected:
    SimDayFile() { ::setenv("VEXO_SIM_DIR", dir.Path().c_str(), 1); }
    ~SimDayFile() override { ::unsetenv("VEXO_SIM_DIR"); }

    ProgramResult Run(const std::string& options, const std::string& words,
                      const std::string& app = VEXO_DAY_FILE_APP) {
        return runProgram("exec 2>err; VEXO_SIM_CARD=embedded " + word(VEXO_COMMAND) + " sim run " + options + " -- " +
                          word(app) + " " + words);
    }
    std::string Errors() { return dir.Read("err"); }
    std::string PrivateDirectory() { return dir.Path("vexo-day-files-" + std::to_string(::geteuid())); }

    std::size_t PrivateEntries() {
        std::size_t entries = 0;
        for (const fs::directory_entry& one : fs::directory_iterator(PrivateDirectory()))
            entries += one.exists() ? 1 : 0;
        return entries;
    }
    // A vexo that is started by vexo sim run, and one that is not; what they print on both outputs.
    static ProgramResult InSimRun(const std::string& words, const std::string& options = "") {
        return runProgram("VEXO_SIM_CARD=embedded " + word(VEXO_COMMAND) + " sim run " + options + " -- " +
                          word(VEXO_COMMAND) + " " + words);
    }
    static ProgramResult Vexo(const std::string& words) { return runProgram(word(VEXO_COMMAND) + " " + words); }

    test_support::TempDir dir;
    DayFiles days;
    const std::string dayFile = days.MorningPath();
};

}  // namespace

TEST_F(SimDayFile, LiesApartAndIsFoundAgainByTheNextRunOnTheSameCard) {
    EXPECT_EQ(Run("", "write " + dayFile + " map").output, "wrote with mode 640\n");
    EXPECT_FALSE(fs::exists(dayFile));
    const std::string name = fs::path(dayFile).filename().string();
    EXPECT_THAT(Errors(), HasSubstr("vexo sim run: the day file of this simulated card is " + PrivateDirectory()));
    EXPECT_THAT(Errors(), HasSubstr("/" + name + ", not in /tmp (see --shared-day-file).\n"));

    EXPECT_EQ(Run("", "read " + dayFile).output, "read map\n");
}

TEST_F(SimDayFile, TheLineNamesTheCommandThatWasTyped) {
    EXPECT_EQ(runProgram("exec 2>err; " + word(VEXO_COMMAND) + " remote run --from nats://127.0.0.1:1 -- " +
                         word(VEXO_DAY_FILE_APP) + " --no-card write " + dayFile + " map")
                  .status,
              0);
    EXPECT_THAT(Errors(), HasSubstr("vexo remote run: the day file of this simulated card is " + PrivateDirectory()));
}

TEST_F(SimDayFile, IsNotThatOfAnotherCard) {
    Run("", "write " + dayFile + " map");
    EXPECT_EQ(Run("--set card.fibre_status=0xd", "read " + dayFile).output, "not read: No such file or directory\n");
    dir.Write("list.txt", "1,0,SR505\n");
    EXPECT_EQ(Run("--set instruments.file=list.txt", "read " + dayFile).output,
              "not read: No such file or directory\n");
    EXPECT_EQ(Run("", "--no-card read " + dayFile).output, "not read: No such file or directory\n");
}

TEST_F(SimDayFile, IsTheOneInTmpWhenAsked) {
    EXPECT_EQ(Run("--shared-day-file", "write " + dayFile + " map").status, 0);
    EXPECT_EQ(days.ReadMorning(), "map");
    EXPECT_THAT(Errors(), Not(HasSubstr("vexo sim run:")));
    EXPECT_FALSE(fs::exists(PrivateDirectory()));
    EXPECT_EQ(Run("", "read " + dayFile).output, "not read: No such file or directory\n");
}

TEST_F(SimDayFile, OfAProgramThatGotARealCardIsTheOneInTmp) {
    days.WriteMorning("map of a real card");
    EXPECT_EQ(Run("", "read " + dayFile, VEXO_DAY_FILE_APP_OF_ANOTHER_CARD).output, "read map of a real card\n");
    EXPECT_EQ(Errors(), "");
}

TEST_F(SimDayFile, OtherFilesOfTheProgramStayWhereTheyAre) {
    const std::string other = dir.Path("zce_file");
    EXPECT_EQ(Run("", "write " + other + " text").output, "wrote with mode 640\n");
    EXPECT_EQ(dir.Read("zce_file"), "text");
    EXPECT_THAT(Errors(), Not(HasSubstr("vexo sim run:")));
    EXPECT_EQ(Run("", "read /none/file").output, "not read: No such file or directory\n");
}

TEST_F(SimDayFile, ProgramsWithTheAddressSanitizerTakeTheLibraryThatIsLoadedBeforeIt) {
    const std::string show = word(VEXO_COMMAND) + " sim run -- sh -c 'echo $ASAN_OPTIONS'";
    EXPECT_EQ(runProgram("unset ASAN_OPTIONS; " + show).output, "verify_asan_link_order=0\n");
    EXPECT_EQ(runProgram("export ASAN_OPTIONS=verbosity=0; " + show).output, "verify_asan_link_order=0:verbosity=0\n");
}

TEST_F(SimDayFile, DirectoryIsForItsUserAlone) {
    Run("", "read " + dayFile);
    struct stat status {};
    ASSERT_EQ(::stat(PrivateDirectory().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0700U);

    fs::permissions(PrivateDirectory(), fs::perms::all);
    const ProgramResult open = Run("", "read " + dayFile);
    EXPECT_EQ(open.status, 126);
    EXPECT_THAT(Errors(), AllOf(HasSubstr("vexo: no place for the day file: " + PrivateDirectory() +
                                          " is not a directory that only this user can use; remove it\n"),
                                EndsWith("vexo sim run --shared-day-file\n")));

    fs::remove_all(PrivateDirectory());
    fs::create_directory(dir.Path("elsewhere"));
    fs::create_directory_symlink(dir.Path("elsewhere"), PrivateDirectory());
    EXPECT_EQ(Run("", "read " + dayFile).status, 126);
    EXPECT_EQ(Run("--shared-day-file", "read " + dayFile).status, 0);
}

// The card's banner, and where the day file is.
TEST_F(SimDayFile, LinesThatNobodyReadsDoNotEndTheProgram) {
    const ProgramResult result = runWithoutReader("VEXO_SIM_CARD=embedded " + word(VEXO_COMMAND) + " sim run -- " +
                                                  word(VEXO_DAY_FILE_APP) + " write " + dayFile + " map");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "wrote with mode 640\n");
}

TEST_F(SimDayFile, WhoOnlyReadsLeavesNoDirectory) {
    Run("", "read " + dayFile);
    Run("", "--no-card read " + dayFile);
    EXPECT_EQ(PrivateEntries(), 0U);
    // A program without a card has no day file to be told of.
    EXPECT_THAT(Errors(), Not(HasSubstr("vexo sim run:")));
}

TEST_F(SimDayFile, IsTheOneThatIndexShowsBehindSimRun) {
    std::string now;
    do {  // again when the half-day ends in between
        now = NameNow();
        const ProgramResult before = InSimRun("index");
        EXPECT_EQ(before.status, 1);
        EXPECT_THAT(before.output,
                    AllOf(HasSubstr("vexo: " + PrivateDirectory() + "/card-"),
                          HasSubstr("/" + now + ": No such file or directory\n"), Not(HasSubstr("vexo sim run:"))));
        EXPECT_EQ(PrivateEntries(), 0U);
        EXPECT_EQ(Vexo("index --sim").status, 1);
        EXPECT_THAT(Vexo("index --sim").output, HasSubstr("vexo: there is no day file of a simulated card\n"));

        Run("", "write /tmp/" + now + " '" + kMap + "'");
        const ProgramResult after = InSimRun("index");
        EXPECT_EQ(after.status, 0) << after.output;
        EXPECT_THAT(after.output,
                    AllOf(HasSubstr("/" + now + "\n"), HasSubstr("instruments:  2 "), HasSubstr("a start now loads it"),
                          HasSubstr("map:          that of a simulated card\n"), Not(HasSubstr("vexo sim run:"))));
        const ProgramResult all = Vexo("index --sim");
        EXPECT_EQ(all.status, 0) << all.output;
        EXPECT_EQ(WithoutAge(all.output), WithoutAge(after.output));
        EXPECT_THAT(Vexo("index --sim --json").output, HasSubstr("\"loadable\": true"));
        EXPECT_THAT(Vexo("index").output, HasSubstr("Day files of simulated cards lie apart: see vexo index --sim\n"));
        EXPECT_THAT(InSimRun("index", "--set card.fibre_status=0xd").output, HasSubstr("No such file or directory\n"));
        fs::remove_all(PrivateDirectory());
    } while (now != NameNow());
}

TEST_F(SimDayFile, IsTheOneThatCheckJudgesBehindSimRun) {
    dir.Write("zce.ini", "[config]\ndevice = xilinx0:0\n");
    std::string now;
    do {
        now = NameNow();
        for (const char* option : {"", "--card "}) {
            const ProgramResult before = InSimRun(std::string("check ") + option + "zce.ini");
            EXPECT_THAT(before.output,
                        AllOf(HasSubstr("host: note: a start from here gets the simulated card of " VEXO_SIM_DIRECTORY),
                              HasSubstr("/" + now + ": note: there is no day file yet; a master learns"),
                              Not(HasSubstr("lspci")), Not(HasSubstr("/tmp/" + now)), Not(HasSubstr("remove it"))));
        }
        Run("", "write /tmp/" + now + " '" + kMap + "'");
        EXPECT_THAT(InSimRun("check zce.ini").output,
                    AllOf(HasSubstr(PrivateDirectory()),
                          HasSubstr("/" + now + ": note: a master loads this day file: 2 instruments"),
                          Not(HasSubstr("remove it"))));
        EXPECT_THAT(InSimRun("check zce.ini", "--shared-day-file").output, HasSubstr("\n/tmp/" + now + ": "));
        fs::remove_all(PrivateDirectory());
    } while (now != NameNow());
}

TEST_F(SimDayFile, CheckMissesTheCardThatAStartBehindSimRunWouldMiss) {
    dir.Write("zce.ini", "[config]\ndevice = xilinx2:0\n");
    const ProgramResult result = InSimRun("check zce.ini");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output,
                HasSubstr("zce.ini:2: fatal: vexo sim run has no simulated card with this number; correct "
                          "device, or start vexo-simcard --bus 2\n"));
    EXPECT_THAT(result.output, Not(HasSubstr(".zce_")));
    EXPECT_THAT(InSimRun("check zce.ini", "--set card.bus=2").output, Not(HasSubstr("fatal: vexo sim run has no")));
    EXPECT_EQ(InSimRun("check --card zce.ini").status, 3);
}

TEST_F(SimDayFile, OldOnesAreRemovedAtTheNextRun) {
    const std::string card = PrivateDirectory() + "/card-1";
    fs::create_directories(card);
    fs::permissions(PrivateDirectory(), fs::perms::owner_all);
    std::ofstream(card + "/.zce_20260101_am") << "old";
    std::ofstream(card + "/.zce_20260109_am") << "new";
    fs::last_write_time(card + "/.zce_20260101_am", fs::file_time_type::clock::now() - std::chrono::hours(49));
    Run("", "read " + dayFile);
    EXPECT_FALSE(fs::exists(card + "/.zce_20260101_am"));
    EXPECT_TRUE(fs::exists(card + "/.zce_20260109_am"));
}
