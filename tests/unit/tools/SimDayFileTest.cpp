// Where the day files of programs lie that `vexo sim run` starts.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <chrono>
#include <cstdlib>
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
