#include <fcntl.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "tests/unit/log/Interposed.h"
#include "tests/unit/log/LogFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

namespace fs = std::filesystem;

/// root may write everywhere: while this lives the real user, whom `access` asks about, is an ordinary one.
class OrdinaryRealUser {
public:
    OrdinaryRealUser() {
        if (m_wasRoot && ::setresuid(65534, 0, 0) != 0) throw std::system_error(errno, std::generic_category());
    }
    ~OrdinaryRealUser() {
        if (m_wasRoot && ::setresuid(0, 0, 0) != 0) ::abort();
    }
    OrdinaryRealUser(const OrdinaryRealUser&) = delete;
    OrdinaryRealUser& operator=(const OrdinaryRealUser&) = delete;

private:
    const bool m_wasRoot = ::getuid() == 0;
};

class LogSetUp : public LogCore {
protected:
    std::vector<std::string> Files(const std::string& where = ".") const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(where)) names.push_back(entry.path().filename());
        return names;
    }
};

// ---- elog_init ----

TEST_F(LogSetUp, OpensTheFileOfTodayInTheDirectory) {
    EXPECT_EQ(elog_init("./", "fpga"), 0);

    EXPECT_THAT(Files(), ElementsAre("fpga_20250303.log"));
    EXPECT_TRUE(elog_file_init_ok);
    ASSERT_NE(elog_file_fp, nullptr);
    EXPECT_EQ(elog_file_fd, ::fileno(elog_file_fp));
}

TEST_F(LogSetUp, LeavesOutputDisabled) {
    elog_init("./", "fpga");

    EXPECT_FALSE(elog_get_output_enabled());
    EXPECT_THAT(Printed([] { elog_output(kInfo, "fpga", "file", "func", 1, "text"); }), IsEmpty());
    EXPECT_THAT(dir.Read("fpga_20250303.log"), IsEmpty());
}

TEST_F(LogSetUp, AppendsToTheFileThatAnEarlierRunLeft) {
    dir.Write("fpga_20250303.log", "earlier\n");
    elog_init("./", "fpga");
    elog_set_output_enabled(true);

    Printed([] { elog_output(kInfo, "fpga", "file", "func", 1, "later"); });

    EXPECT_EQ(dir.Read("fpga_20250303.log"), "earlier\n[INFO   ][20250303-10:00:00][fpga]later\n");
}

TEST_F(LogSetUp, MakesStandardOutputUnbuffered) {
    std::array<char, 4096> buffer{};
    Printed([&buffer] {
        std::setvbuf(stdout, buffer.data(), _IOFBF, buffer.size());

        elog_init("./", "fpga");
        std::printf("x");

        EXPECT_EQ(::__fpending(stdout), 0u);
    });
}

TEST_F(LogSetUp, SetsTheFilterToTheLastLevel) {
    elog_init("./", "fpga");
    elog_set_output_enabled(true);

    EXPECT_EQ(Printed([] { elog_output(ELOG_LVL_VERBOSE, "fpga", "f", "f", 1, "text"); }).substr(0, 9), "[VERBOSE]");
}

TEST_F(LogSetUp, TakesTheTimeTheZoneAndThePattern) {
    const Zone zone("AAA-11");

    elog_init("./", "fpga");

    EXPECT_EQ(time_cache, clock.NowNs() / 1000000000);
    EXPECT_EQ(time_zone, 11);
    EXPECT_STREQ(local_cfg.name, ".//fpga_%s.log");
    EXPECT_EQ(local_cfg.max_size, 4294967294U);
}

TEST_F(LogSetUp, StartWritesTheFirstLine) {
    elog_init("./", "fpga");

    const std::string printed = Printed([] { elog_start(); });

    EXPECT_EQ(printed, "[INFO   ][20250303-10:00:00][log]log is initialized successfully.\n");
    EXPECT_EQ(dir.Read("fpga_20250303.log"), printed);
    EXPECT_TRUE(elog_get_output_enabled());
}

TEST_F(LogSetUp, TheFirstLineComesFromTheCoreItself) {
    elog_init("./", "fpga");
    elog_set_fmt(kInfo, ELOG_FMT_FILE | ELOG_FMT_FUNC | ELOG_FMT_LINE);

    EXPECT_EQ(Printed([] { elog_start(); }), "(elog elog_start:213)log is initialized successfully.\n");
}

TEST_F(LogSetUp, TheFileSideCanBeSetUpAlone) {
    EXPECT_EQ(elog_port_init("logs", "fpga"), 0);

    EXPECT_TRUE(std::filesystem::exists("logs/fpga_20250303.log"));
}

TEST_F(LogSetUp, ASecondSetUpOfTheFileSideChangesNothing) {
    elog_init("./", "fpga");

    EXPECT_EQ(elog_port_init("other", "fpga"), 0);

    EXPECT_THAT(Files(), ElementsAre("fpga_20250303.log"));
    EXPECT_STREQ(local_cfg.name, ".//fpga_%s.log");
}

TEST_F(LogSetUp, CreatesAMissingDirectoryWithItsParents) {
    const mode_t before = ::umask(0);
    EXPECT_EQ(elog_init("logs/of/today", "fpga"), 0);
    ::umask(before);

    EXPECT_THAT(Files("logs/of/today"), ElementsAre("fpga_20250303.log"));
    EXPECT_EQ(fs::status("logs/of").permissions(), fs::perms{0755});
}

TEST_F(LogSetUp, ADirectoryNameMayHoldAPercentSign) {
    EXPECT_EQ(elog_init("100%s%d", "fpga"), 0);

    EXPECT_THAT(Files("100%s%d"), ElementsAre("fpga_20250303.log"));
}

TEST_F(LogSetUp, PathsAreCutAt255Characters) {
    std::string base;
    for (const std::size_t size : {100U, 90U}) base += std::string(size, 'd') + '/';
    for (std::size_t last = 20; last <= 60; ++last) {
        const std::string where = base + std::string(last, 'e');
        std::string expected = (where + "/fpga_%s.log").substr(0, 255);
        const std::size_t mark = expected.find("%s");
        if (mark != std::string::npos) expected.replace(mark, 2, "20250303");
        expected = expected.substr(0, 255);

        EXPECT_EQ(elog_init(where.c_str(), "fpga"), 0);

        EXPECT_TRUE(fs::is_regular_file(expected)) << expected;
        elog_fini();
    }
}

// ---- failures of elog_init ----

TEST_F(LogSetUp, AReadOnlyDirectoryIsRefusedBeforeAnyFileIsOpened) {
    fs::create_directory("logs");
    fs::permissions("logs", fs::perms{0555});
    fs::permissions(".", fs::perms{0755});
    int result = 0;

    const std::string error = Printed(
        [&result] {
            const OrdinaryRealUser ordinary;
            result = elog_init("logs", "fpga");
        },
        2);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, "Error! file or dir: [logs] already exist and havn't write authority. use root try again ?\n");
    EXPECT_THAT(Files("logs"), IsEmpty());
    EXPECT_EQ(elog_file_fd, -1);
    EXPECT_FALSE(elog_file_init_ok);
}

TEST_F(LogSetUp, ADirectoryThatCannotBeMadeIsRefused) {
    dir.Write("file", "");
    int result = 0;

    const std::string error = Printed([&result] { result = elog_init("file/logs", "fpga"); }, 2);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(error,
              "Error! make file or log dir:[file/logs] failed! Maybe no access authority.use root try again ?\n");
    EXPECT_FALSE(elog_file_init_ok);
}

TEST_F(LogSetUp, AFileThatCannotBeCreatedIsReportedWithTheSystemsText) {
    fs::create_directory("fpga_20250303.log");
    int result = 0;

    const std::string error = Printed([&result] { result = elog_init("./", "fpga"); }, 2);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, "Error! Create file .//fpga_20250303.log fail, errmsg:Is a directory. \nError! log init fail.\n");
    EXPECT_EQ(elog_file_fd, -1);
    EXPECT_EQ(elog_file_fp, nullptr);
    EXPECT_FALSE(elog_file_init_ok);
}

TEST_F(LogSetUp, AFileWithALongPathIsReportedWithItsWholePath) {
    const std::string directory = std::string(110, 'a') + "/" + std::string(110, 'b');
    fs::create_directories(directory + "/fpga_20250303.log");

    const std::string error = Printed([&directory] { elog_init(directory.c_str(), "fpga"); }, 2);

    EXPECT_EQ(error, "Error! Create file " + directory +
                         "/fpga_20250303.log fail, errmsg:Is a directory. \nError! log init fail.\n");
}

TEST_F(LogSetUp, AStreamThatCannotBeMadeOverTheFileIsReported) {
    const FailingCall noStream(FailingCall::kFdopen, ENOMEM);
    const std::size_t before = OpenDescriptors();
    int result = 0;

    const std::string error = Printed([&result] { result = elog_init("./", "fpga"); }, 2);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(error,
              "Error! Create file .//fpga_20250303.log fail, errmsg:Cannot allocate memory. \nError! log init fail.\n");
    EXPECT_EQ(elog_file_fd, -1);
    EXPECT_EQ(OpenDescriptors(), before);
}

// A daemon may have closed them: what others write to standard output would end up in the log file.
TEST_F(LogSetUp, TheFileNeverGetsAStandardDescriptor) {
    const int input = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    ::close(STDIN_FILENO);

    elog_init("./", "fpga");
    const int taken = ::open("/dev/null", O_RDONLY);
    ::close(taken);
    ::dup2(input, STDIN_FILENO);
    ::close(input);

    EXPECT_GT(elog_file_fd, STDERR_FILENO);
    EXPECT_EQ(taken, STDIN_FILENO) << "the descriptor is free for its owner";
}

/// In a child: which descriptors are closed is of the process. @return the content of a file that the application opens
/// under the number of standard output
std::string FileInThePlaceOfStandardOutput(void (*closeAndLog)(void (*log)())) {
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        closeAndLog([] { elog_output(kInfo, "fpga", "file", "func", 1, "text"); });
        ::_exit(::open("data", O_WRONLY | O_CREAT, 0600) == STDOUT_FILENO ? elog_start(), 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    std::ifstream data("data");
    return {std::istreambuf_iterator<char>(data), {}};
}

TEST_F(LogSetUp, LinesStayOutOfAFileThatTakesTheNumberOfAStandardOutputClosedBefore) {
    EXPECT_THAT(FileInThePlaceOfStandardOutput([](void (*)()) {
                    ::close(STDOUT_FILENO);
                    elog_init("./", "fpga");
                }),
                IsEmpty());
    EXPECT_THAT(Lines(dir.Read("fpga_20250303.log")), SizeIs(1));
}

TEST_F(LogSetUp, LinesStayOutOfAFileThatTakesTheNumberOfAStandardOutputClosedLater) {
    EXPECT_THAT(FileInThePlaceOfStandardOutput([](void (*log)()) {
                    elog_init("./", "fpga");
                    elog_set_output_enabled(true);
                    ::close(STDOUT_FILENO);
                    log();
                }),
                IsEmpty());
    EXPECT_THAT(Lines(dir.Read("fpga_20250303.log")), SizeIs(2));
}

TEST_F(LogSetUp, LinesFollowARedirectionOfTheApplication) {
    elog_init("./", "fpga");
    const int target = ::open("redirected", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    {
        const Redirected out(STDOUT_FILENO, target);
        elog_start();
    }
    ::close(target);

    EXPECT_EQ(dir.Read("redirected"), "[INFO   ][20250303-10:00:00][log]log is initialized successfully.\n");
}

TEST_F(LogSetUp, TheFileIsAppendedToBlocksAndStaysWithTheProcess) {
    elog_init("./", "fpga");

    EXPECT_EQ(::fcntl(elog_file_fd, F_GETFL) & (O_ACCMODE | O_APPEND | O_NONBLOCK), O_WRONLY | O_APPEND);
    EXPECT_EQ(::fcntl(elog_file_fd, F_GETFD), FD_CLOEXEC);
}

// Waits for ever when the open does.
TEST_F(LogSetUp, AFifoInThePlaceOfTheFileIsReported) {
    ASSERT_EQ(::mkfifo("fpga_20250303.log", 0600), 0);
    int result = 0;

    const std::string error = Printed([&result] { result = elog_init("./", "fpga"); }, 2);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(error,
              "Error! Create file .//fpga_20250303.log fail, errmsg:No such device or address. \n"
              "Error! log init fail.\n");
}

TEST_F(LogSetUp, ALogDirectoryThatIsAFileIsReported) {
    dir.Write("logs", "");
    int result = 0;

    const std::string error = Printed([&result] { result = elog_init("logs", "fpga"); }, 2);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(error,
              "Error! Create file logs/fpga_20250303.log fail, errmsg:Not a directory. \nError! log init fail.\n");
}

TEST_F(LogSetUp, FailsWhenTheLocalDateCannotBeHad) {
    clock.FailLocaltime(true);
    int result = 0;

    const std::string error = Printed([&result] { result = elog_init("./", "fpga"); }, 2);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, "Error! log init fail.\n");
    EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(LogSetUp, WorksAfterAnAttemptThatFailed) {
    fs::create_directory("fpga_20250303.log");
    Printed([] { elog_init("./", "fpga"); }, 2);
    fs::remove("fpga_20250303.log");

    EXPECT_EQ(elog_init("./", "fpga"), 0);

    EXPECT_TRUE(fs::is_regular_file("fpga_20250303.log"));
}

// ---- end and new beginning ----

TEST_F(LogSetUp, TheEndClosesTheFile) {
    for (void (*const end)() : {elog_fini, elog_file_fini, elog_port_fini}) {
        elog_init("./", "fpga");

        end();

        EXPECT_EQ(elog_file_fp, nullptr);
        EXPECT_EQ(elog_file_fd, -1);
        EXPECT_FALSE(elog_file_init_ok);
    }
}

TEST_F(LogSetUp, LinesAfterTheEndReachStandardOutputOnly) {
    elog_init("./", "fpga");
    elog_set_output_enabled(true);
    elog_fini();
    clock.Advance(86400);

    EXPECT_EQ(Printed([] { elog_output(kInfo, "fpga", "file", "func", 1, "text"); }),
              "[INFO   ][20250304-10:00:00][fpga]text\n");
    EXPECT_THAT(dir.Read("fpga_20250303.log"), IsEmpty());
    EXPECT_THAT(Files(), ElementsAre("fpga_20250303.log"));
}

TEST_F(LogSetUp, ANewBeginningMayUseAnotherDirectoryAndDay) {
    elog_init("./", "fpga");
    Printed([] { elog_start(); });
    elog_fini();
    clock.Advance(86400);

    EXPECT_EQ(elog_init("other", "card"), 0);
    Printed([] { elog_start(); });

    EXPECT_EQ(dir.Read("fpga_20250303.log"), "[INFO   ][20250303-10:00:00][log]log is initialized successfully.\n");
    EXPECT_EQ(dir.Read("other/card_20250304.log"),
              "[INFO   ][20250304-10:00:00][log]log is initialized successfully.\n");
    EXPECT_THAT(Files(), UnorderedElementsAre("fpga_20250303.log", "other"));
}

// ---- elog_file_config ----

TEST_F(LogSetUp, ConfigPutsTheDateOfTheTimeCacheIntoThePattern) {
    ElogFileCfg cfg{"line_%s.txt", 0};
    clock.SetLocal(2031, 1, 9, 0, 0, 0);
    time_cache = ::time(nullptr);

    const int fd = elog_file_config(&cfg);

    EXPECT_EQ(fd, elog_file_fd);
    EXPECT_THAT(Files(), ElementsAre("line_20310109.txt"));
    EXPECT_STREQ(local_cfg.name, "line_%s.txt");
}

TEST_F(LogSetUp, ConfigClosesTheOpenFileWhenTheDateCannotBeHad) {
    elog_init("./", "fpga");
    clock.FailLocaltime(true);

    EXPECT_EQ(elog_file_config(&local_cfg), -1);

    EXPECT_EQ(elog_file_fp, nullptr);
    EXPECT_EQ(elog_file_fd, -1);
}

// ---- directories ----

TEST_F(LogSetUp, MkdirsMakesEachMissingDirectory) {
    fs::create_directory("a");

    EXPECT_EQ(elog_mkdirs("a/b/c", 0755), 0);

    EXPECT_TRUE(fs::is_directory("a/b/c"));
}

TEST_F(LogSetUp, MkdirsTakesAbsolutePathsAndDoubleOrFinalSlashes) {
    EXPECT_EQ(elog_mkdirs((dir.Path("x") + "//y///z/").c_str(), 0755), 0);

    EXPECT_TRUE(fs::is_directory("x/y/z"));
}

TEST_F(LogSetUp, MkdirsGivesEachDirectoryTheMode) {
    const mode_t before = ::umask(0);
    elog_mkdirs("m/n", 0711);
    ::umask(before);

    EXPECT_EQ(fs::status("m").permissions(), fs::perms{0711});
    EXPECT_EQ(fs::status("m/n").permissions(), fs::perms{0711});
}

TEST_F(LogSetUp, MkdirsAcceptsADirectoryThatExists) {
    fs::create_directory("a");

    EXPECT_EQ(elog_mkdirs("a", 0755), 0);
}

TEST_F(LogSetUp, MkdirsFailsWhereAFileStandsInTheWayOrAtTheEnd) {
    dir.Write("file", "");

    EXPECT_NE(elog_mkdirs("file", 0755), 0);
    EXPECT_NE(elog_mkdirs("file/a", 0755), 0);
    EXPECT_NE(elog_mkdirs("", 0755), 0);
}

TEST_F(LogSetUp, MkdirsCutsAPathAt512Characters) {
    std::string path;
    for (int i = 0; i < 5; ++i) path += std::string(99, static_cast<char>('a' + i)) + '/';
    path += std::string(30, 'f');

    EXPECT_EQ(elog_mkdirs(path.c_str(), 0755), 0);

    EXPECT_TRUE(fs::is_directory(path.substr(0, 512)));
    EXPECT_FALSE(fs::exists(path));
}

// ---- time zone ----

TEST(TimeZone, IsTheLocalHourAtTheEpochAndNegativeFrom13On) {
    const std::vector<std::pair<const char*, int>> zones = {
        {"UTC0", 0},  {"CST-8", 8}, {"AAA-12", 12}, {"AAA-13", -11}, {"AAA-14", -10},
        {"AAA1", -1}, {"EST5", -5}, {"AAA11", -11}, {"AAA12", 12},   {"IST-5:30", 5},
    };
    for (const auto& entry : zones) {
        const Zone zone(entry.first);

        EXPECT_EQ(get_time_zone(), entry.second) << entry.first;
    }
}

TEST_F(StartedLog, ATimeZoneThatIsSetWithoutTzsetShowsInTheNextSecond) {
    clock.SetEpoch(1741039200);  // 2025-03-03 22:00:00 UTC
    const char* const before = ::getenv("TZ");
    const std::string saved = before != nullptr ? before : "";
    const auto log = [] { elog_output(kInfo, "fpga", "file", "func", 1, "text"); };
    ::setenv("TZ", "UTC0", 1);
    Printed(log);
    clock.Advance(1);

    ::setenv("TZ", "XST-8", 1);
    const std::string printed = Printed(log);
    ::setenv("TZ", saved.c_str(), 1);

    EXPECT_EQ(printed, "[INFO   ][20250304-06:00:01][fpga]text\n");
    EXPECT_EQ(dir.Read(kTomorrow), printed);
}

TEST_F(StartedLog, AChangedTimeZoneShowsInTheNextLineOfTheSameSecond) {
    const auto log = [] { elog_output(kInfo, "fpga", "file", "func", 1, "text"); };
    clock.SetEpoch(1740963600);  // 2025-03-03 01:00:00 UTC

    const std::string printed = Printed([&log] {
        for (const char* name : {"UTC0", "XST-8", "YST5", "UTC0"}) {
            const Zone zone(name);
            log();
            log();
        }
    });

    EXPECT_THAT(Lines(printed),
                ElementsAre("[INFO   ][20250303-01:00:00][fpga]text", "[INFO   ][20250303-01:00:00][fpga]text",
                            "[INFO   ][20250303-09:00:00][fpga]text", "[INFO   ][20250303-09:00:00][fpga]text",
                            "[INFO   ][20250302-20:00:00][fpga]text", "[INFO   ][20250302-20:00:00][fpga]text",
                            "[INFO   ][20250303-01:00:00][fpga]text", "[INFO   ][20250303-01:00:00][fpga]text"));
}

}  // namespace
