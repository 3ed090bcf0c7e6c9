#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>

#include <csignal>

#include "sim/card/InstrumentList.h"
#include "tests/support/TempDir.h"
#include "tools/vexo/check/DayFileState.h"
#include "tools/vexo/check/HostCheck.h"

using namespace vexo::check;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

constexpr uid_t kNobody = 65534;

class CheckHost : public ::testing::Test {
protected:
    CheckHost() {
        ::chmod(dir.Path().c_str(), 0755);
        places.directory = dir.Path();
        places.cpus = dir.Path();
    }

    std::string CpuFinding(long cpu) {
        Report report;
        ConfigFacts facts;
        facts.cpu = cpu;
        facts.cpuLine = 7;
        checkCpu(facts, places, report);
        if (report.findings().empty()) return {};
        EXPECT_EQ(report.findings().front().line, 7U);
        return report.findings().front().what;
    }

    // Of a user without the rights of root, whoever runs the test.
    bool IsFatalForAUser(const std::string& directory) {
        const pid_t child = ::fork();
        if (child == 0) {
            if (::geteuid() == 0 && ::setuid(kNobody) != 0) ::_exit(9);
            Report report;
            HostPlaces here;
            here.directory = directory;
            checkDirectory(here, report);
            ::_exit(report.countFatal() != 0 ? 1 : 0);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) <= 1);
        return WEXITSTATUS(status) == 1;
    }

    // The findings of a memory file system of this size; nothing when it cannot be mounted. The mount is a child's
    // alone.
    std::optional<std::string> FindingsOnADiskOf(const std::string& size) {
        std::filesystem::create_directory("disk");
        const pid_t child = ::fork();
        if (child == 0) {
            if (::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                ::mount("tmpfs", "disk", "tmpfs", 0, ("size=" + size).c_str()) == 0) {
                Report report;
                places.directory = "disk";
                checkDirectory(places, report);
                std::ofstream("findings") << asText(report, false);
            }
            ::_exit(0);
        }
        ::waitpid(child, nullptr, 0);
        if (!std::filesystem::exists("findings")) return std::nullopt;
        return dir.Read("findings");
    }

    test_support::TempDir dir;
    HostPlaces places;
};

}  // namespace

TEST_F(CheckHost, ACpuThatIsNotOnlineIsFound) {
    dir.Write("online", "0-3,900\n");
    dir.Write("isolated", "\n");
    EXPECT_THAT(CpuFinding(899), HasSubstr("CPU 899 is not online"));
    EXPECT_THAT(CpuFinding(4), HasSubstr("CPU 4 is not online"));
    EXPECT_THAT(CpuFinding(900), HasSubstr("a thread cannot be pinned to CPU 900"));
}

TEST_F(CheckHost, ACpuThatIsNotIsolatedIsFound) {
    const int here = ::sched_getcpu();
    dir.Write("online", "0-1023\n");
    dir.Write("isolated", "1021-1022\n");
    EXPECT_THAT(CpuFinding(here), HasSubstr("is not isolated"));
    dir.Write("isolated", "1022," + std::to_string(here) + "\n");
    EXPECT_THAT(CpuFinding(here), IsEmpty());
    EXPECT_THAT(CpuFinding(-1), IsEmpty());
}

TEST_F(CheckHost, TheCheckLeavesTheThreadWhereItWas) {
    cpu_set_t before;
    cpu_set_t after;
    ASSERT_EQ(::sched_getaffinity(0, sizeof before, &before), 0);
    dir.Write("online", "0-1023\n");
    CpuFinding(::sched_getcpu());
    ASSERT_EQ(::sched_getaffinity(0, sizeof after, &after), 0);
    EXPECT_TRUE(CPU_EQUAL(&before, &after));
}

TEST_F(CheckHost, ADirectoryThatTheUserCannotWriteIsFatal) {
    const std::string open = dir.Path("open");
    const std::string shut = dir.Path("shut");
    ::mkdir(open.c_str(), 0700);
    ::chmod(open.c_str(), 0777);
    ::mkdir(shut.c_str(), 0700);
    ::chmod(shut.c_str(), 0555);
    EXPECT_FALSE(IsFatalForAUser(open));
    EXPECT_TRUE(IsFatalForAUser(shut));
    EXPECT_TRUE(IsFatalForAUser(dir.Path("none")));
}

TEST_F(CheckHost, ALogOfTheDayThatTheUserCannotWriteIsFatal) {
    ::chmod(dir.Path().c_str(), 0777);
    char name[32];
    const std::time_t now = std::time(nullptr);
    std::strftime(name, sizeof name, "fpga_%Y%m%d.log", std::localtime(&now));
    dir.Write(name, "", 0444);
    EXPECT_TRUE(IsFatalForAUser(dir.Path()));
}

TEST_F(CheckHost, ADiskThatIsFullIsFound) {
    Report report;
    checkSpace(".", 1'000'000, report);
    EXPECT_THAT(report.findings(), IsEmpty());
    checkSpace(".", 999'999, report);
    EXPECT_THAT(asText(report, false),
                HasSubstr(".: error: 0 MB free; the log and the output are lost; make room\n1 finding\n"));
}

TEST_F(CheckHost, ADirectoryOnADiskThatIsFullIsFound) {
    const std::optional<std::string> findings = FindingsOnADiskOf("64k");
    if (!findings) GTEST_SKIP() << "skipped: only root can mount a small disk";
    EXPECT_THAT(*findings,
                HasSubstr("disk: error: 0 MB free; the log and the output are lost; make room\n1 finding\n"));
}

// Its size is no number: it takes what the memory takes.
TEST_F(CheckHost, AFileSystemWithoutASizeIsNotFull) {
    const std::optional<std::string> findings = FindingsOnADiskOf("0");
    if (!findings) GTEST_SKIP() << "skipped: only root can mount a small disk";
    EXPECT_EQ(*findings, "no findings\n");
}

TEST_F(CheckHost, ALocalTimeThatIsNotTheExchangesIsFound) {
    const auto finding = [](long utcOffset) {
        Report report;
        checkTimeZone(utcOffset, report);
        return asText(report, false);
    };
    EXPECT_EQ(finding(8 * 3600), "no findings\n");
    EXPECT_EQ(finding(0),
              "host: warning: the local time is UTC+0, the exchange's is UTC+8; the library decides reset, day file "
              "and log by the local time; set the time zone of the host, or TZ=Asia/Shanghai for the program\n"
              "1 finding\n");
    EXPECT_THAT(finding(-12600), HasSubstr("the local time is UTC-3:30, "));
}

TEST_F(CheckHost, SaysWhatAMasterWouldMakeOfTheDayFile) {
    const std::string path = dir.Path("day");
    EXPECT_THAT(findingOf(stateOfDayFile(path), true).what, HasSubstr("there is no day file yet"));

    dir.Write("day", "inst_index,inst_id\n0,SR505\n1,CF505\n9,SR505\nno line\n");
    DayFileState state = stateOfDayFile(path);
    EXPECT_FALSE(state.complete);
    EXPECT_EQ(state.instruments, 2U);
    EXPECT_THAT(findingOf(state, true).what,
                HasSubstr("is not complete, a master learns the map again: 2 instruments"));

    dir.Write("day", "inst_index,inst_id\n0,SR505\nbin_file_over_tag\n1,CF505\n");
    state = stateOfDayFile(path);
    EXPECT_TRUE(state.complete);
    EXPECT_EQ(findingOf(state, true).level, Level::kNote);
    EXPECT_THAT(findingOf(state, true).what, HasSubstr("a master loads this day file: 2 instruments, written "));

    const std::string link = dir.Path("link");
    ASSERT_EQ(::symlink(path.c_str(), link.c_str()), 0);
    EXPECT_EQ(findingOf(stateOfDayFile(link), true).level, Level::kWarning);
    EXPECT_THAT(findingOf(stateOfDayFile(link), true).what, HasSubstr("it is a symbolic link, remove it"));
}

namespace {

std::string MapOf(std::time_t when, std::size_t lines = vexo_sim::kMaxInstruments) {
    const std::tm day = *std::localtime(&when);
    const auto date = static_cast<std::uint32_t>((day.tm_year + 1900) * 10000 + (day.tm_mon + 1) * 100 + day.tm_mday);
    std::vector<vexo_sim::Instrument> list(vexo_sim::kMaxInstruments);
    list.resize(vexo_sim::makeInstrumentList(vexo_sim::InstrumentChoice::kDefault, date, list.data()));
    std::string text = "inst_index,inst_id\n";
    for (std::size_t n = 0; n < std::min(lines, list.size()); ++n)
        text += std::to_string(list[n].row) + "," + list[n].id + "\n";
    return text;
}

constexpr char kEnd[] = "bin_file_over_tag\n";

}  // namespace

TEST_F(CheckHost, AMapOfASimulatedCardMustNotReachARealOne) {
    const std::string text = MapOf(std::time(nullptr));
    const std::string path = dir.Write("day", text + kEnd);
    EXPECT_EQ(findingOf(stateOfDayFile(path), true).level, Level::kError);
    EXPECT_EQ(findingOf(stateOfDayFile(path), false).level, Level::kNote);
    EXPECT_THAT(findingOf(stateOfDayFile(path), true).what, HasSubstr("the map of a simulated card"));
    dir.Write("day", text + "9999,XX999\n" + kEnd);
    EXPECT_FALSE(stateOfDayFile(path).simulated);
}

TEST_F(CheckHost, AMapOfASimulatedCardIsRecognisedInPartAndMonthsLater) {
    const std::string path = dir.Write("day", MapOf(std::time(nullptr), 60));
    EXPECT_TRUE(stateOfDayFile(path).simulated);
    dir.Write("day", MapOf(std::time(nullptr) - 40 * 86400) + kEnd);  // of a card that has been hosted since then
    EXPECT_TRUE(stateOfDayFile(path).simulated);
    dir.Write("day", MapOf(std::time(nullptr), 3) + kEnd);  // too few to tell
    EXPECT_FALSE(stateOfDayFile(path).simulated);
}

TEST_F(CheckHost, AMapThatSimRunKeepsIsRecognisedWhateverItsList) {
    const std::string map = std::string("inst_index,inst_id\n4,SR701\n5,SR705\n") + kEnd;
    const std::string path = dir.Write("day", map);
    const std::string kept = dir.Path("vexo-day-files-" + std::to_string(::geteuid()) + "/card-7");
    ::setenv("VEXO_SIM_DIR", dir.Path().c_str(), 1);
    EXPECT_FALSE(stateOfDayFile(path).simulated);
    std::filesystem::create_directories(kept);
    std::ofstream(kept + "/.zce_20260102_am") << "inst_index,inst_id\n5,SR705\n4,SR701\n" << kEnd;
    EXPECT_TRUE(stateOfDayFile(path).simulated);
    ::unsetenv("VEXO_SIM_DIR");
}

TEST_F(CheckHost, NamesTheMasterThatIsWritingTheDayFile) {
    const std::string path = dir.Write("day", "inst_index,inst_id\n");
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t writer = ::fork();
    if (writer == 0) {
        struct flock whole {};
        whole.l_type = F_WRLCK;
        const int fd = ::open(path.c_str(), O_WRONLY);
        const char byte = ::fcntl(fd, F_SETLK, &whole) == 0 ? 'y' : 'n';
        if (::write(ready[1], &byte, 1) != 1) ::_exit(1);
        for (;;) ::pause();
    }
    char answer = 0;
    ASSERT_EQ(::read(ready[0], &answer, 1), 1);
    EXPECT_EQ(answer, 'y');
    const Finding finding = findingOf(stateOfDayFile(path), true);
    EXPECT_EQ(finding.level, Level::kError);
    EXPECT_THAT(finding.what, HasSubstr("process " + std::to_string(writer) + " is writing the day file"));
    ::kill(writer, SIGKILL);
    ::waitpid(writer, nullptr, 0);
    EXPECT_EQ(stateOfDayFile(path).writer, 0);
    ::close(ready[0]);
    ::close(ready[1]);
}

TEST(CheckDayFile, TheDayFileOfTheMorningEndsAtFive) {
    std::tm time{};
    time.tm_year = 125;
    time.tm_mon = 2;
    time.tm_mday = 3;
    time.tm_hour = 16;
    time.tm_min = 59;
    time.tm_isdst = -1;
    EXPECT_EQ(todaysDayFile(std::mktime(&time)), "/.zce_20250303_am");
    time.tm_hour = 17;
    time.tm_min = 0;
    EXPECT_EQ(todaysDayFile(std::mktime(&time)), "/.zce_20250303_pm");
}

TEST(CheckCpuList, ReadsTheListsOfTheKernel) {
    EXPECT_TRUE(listHas("0-3,8,10-11", 8));
    EXPECT_TRUE(listHas("0-3,8,10-11", 11));
    EXPECT_FALSE(listHas("0-3,8,10-11", 9));
    EXPECT_FALSE(listHas("", 0));
}
