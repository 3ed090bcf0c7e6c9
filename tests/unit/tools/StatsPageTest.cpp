// The file of a statistics page: who makes it, who shares it, and what is left behind.

#include <VexoZceMdStats.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "tests/support/TempDir.h"
#include "tools/vexo/stat/Pages.h"

using namespace vexo::stat;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace fs = std::filesystem;

namespace {

// Runs once, in the middle of making a page.
std::atomic<const std::function<void()>*> g_duringRest{nullptr};

}  // namespace

// Stands before the C library's, also for the page's code.
extern "C" int nanosleep(const timespec* time, timespec* rest) {
    if (const std::function<void()>* during = g_duringRest.exchange(nullptr)) (*during)();
    return static_cast<int>(::syscall(SYS_nanosleep, time, rest));
}

namespace {

class NoQuotes final : public IVexoZceMdSpi {
public:
    int OnUpSubsResult17(const unsigned char*) override { return 0; }
    int OnUpSubsResult18(const unsigned char*) override { return 0; }
    int OnUpSubsResult19(const unsigned char*) override { return 0; }
    int OnUpSubsResult20(const unsigned char*) override { return 0; }
};

void CountOne(std::uint64_t channel) {
    NoQuotes quotes;
    VexoZceMdStats<NoQuotes> counted(quotes, channel);
    static_cast<IVexoZceMdSpi&>(counted).OnUpSubsResult17(nullptr);
}

std::size_t OpenFiles() {
    const fs::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

// A page belongs to a process for as long as it lives, so each test has processes of its own.
class StatsPage : public ::testing::Test {
protected:
    StatsPage() {
        ::setenv("VEXO_STATS_DIR", dir.Path("pages").c_str(), 1);
        fs::create_directory(dir.Path("pages"));
        fs::permissions(dir.Path("pages"), fs::perms::owner_all);
    }
    ~StatsPage() override {
        ::unsetenv("VEXO_STATS_DIR");
        ::unsetenv("VEXO_STATS_KEEP");
    }

    // In a child, which then ends in order.
    static int RunInChild(const std::function<void()>& work) {
        const pid_t child = ::fork();
        if (child == 0) {
            work();
            std::exit(::testing::Test::HasFailure() ? 1 : 0);
        }
        return StatusOf(child);
    }
    static int StatusOf(pid_t child) {
        int status = -1;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        return status;
    }
    std::vector<Page> Pages() const {
        const Found found = findPages(dir.Path("pages"));
        EXPECT_THAT(found.faults, IsEmpty());
        return found.pages;
    }
    std::string File(const std::string& name) const { return dir.Path("pages/" + name); }
    // As a process leaves it behind.
    void Leave(const std::string& name, const std::function<void(vexo_stats::Process&)>& change) {
        vexo_stats::Process process{};
        vexo_stats::describe(process, vexo_stats::kApplication);
        process.pid = vexo_stats::pidOfPage(name.c_str(), vexo_stats::kApplication);
        change(process);
        std::string bytes(vexo_stats::kPageBytes, '\0');
        bytes.replace(0, sizeof process, reinterpret_cast<const char*>(&process), sizeof process);
        dir.Write("pages/" + name, bytes);
    }
    void MakeAnotherPage() const {
        EXPECT_EQ(RunInChild([] { CountOne(1); }), 0);
    }

    test_support::TempDir dir;
};

}  // namespace

TEST_F(StatsPage, IsSharedByTheLibrariesOfAProcess) {
    ::setenv("VEXO_STATS_KEEP", "1", 1);
    EXPECT_EQ(RunInChild([this] {
                  void* const plugin = ::dlopen(VEXO_STATS_PLUGIN, RTLD_NOW | RTLD_LOCAL);
                  ASSERT_NE(plugin, nullptr) << ::dlerror();
                  auto* count = reinterpret_cast<int (*)(unsigned)>(::dlsym(plugin, "countQuote"));
                  CountOne(1);
                  EXPECT_EQ(count(2), 0);
                  ::dlclose(plugin);
                  CountOne(3);
                  ASSERT_THAT(Pages(), SizeIs(1));
                  EXPECT_EQ(Pages()[0].life, Life::kRunning);
              }),
              0);
    const std::vector<Page> pages = Pages();
    ASSERT_THAT(pages, SizeIs(1));
    EXPECT_EQ(pages[0].life, Life::kEnded);
    ASSERT_THAT(pages[0].streams, SizeIs(3));
    for (const vexo_stats::Stream& stream : pages[0].streams) EXPECT_EQ(packetsOf(stream), 1U) << stream.channel;
}

TEST_F(StatsPage, OfAPluginThatIsLoadedAgainIsMadeAgain) {
    EXPECT_EQ(RunInChild([this] {
                  for (int n = 0; n < 3; ++n) {
                      void* const plugin = ::dlopen(VEXO_STATS_PLUGIN, RTLD_NOW | RTLD_LOCAL);
                      ASSERT_NE(plugin, nullptr) << ::dlerror();
                      EXPECT_EQ(reinterpret_cast<int (*)(unsigned)>(::dlsym(plugin, "countQuote"))(2), 0);
                      EXPECT_THAT(Pages(), SizeIs(1));
                      ::dlclose(plugin);
                      EXPECT_THAT(Pages(), IsEmpty());
                  }
              }),
              0);
}

TEST_F(StatsPage, IsNotThatOfTheNextProgramOfItsProcess) {
    int go[2];
    ASSERT_EQ(::pipe(go), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        CountOne(1);
        ::close(go[1]);
        ::dup2(go[0], STDIN_FILENO);
        ::execlp("cat", "cat", "--", "-", nullptr);
        ::_exit(1);
    }
    ::close(go[0]);
    // The other program runs when the first one's memory is gone.
    std::vector<Page> pages;
    do pages = Pages();
    while (pages.size() != 1 || pages[0].life == Life::kRunning);
    EXPECT_EQ(pages[0].life, Life::kDied);
    EXPECT_EQ(pages[0].process.pid, static_cast<std::uint32_t>(child));
    MakeAnotherPage();
    EXPECT_THAT(Pages(), IsEmpty());
    ::close(go[1]);
    EXPECT_EQ(StatusOf(child), 0);
}

TEST_F(StatsPage, AForkWhileItIsMadeDoesNotHangTheChild) {
    EXPECT_EQ(RunInChild([] {
                  std::atomic<bool> isMaking{false};
                  std::atomic<bool> hasForked{false};
                  const std::function<void()> during = [&] {
                      isMaking = true;
                      while (!hasForked) std::this_thread::yield();
                  };
                  g_duringRest = &during;
                  std::thread maker([] { CountOne(1); });
                  while (!isMaking) std::this_thread::yield();
                  const pid_t child = ::fork();
                  if (child == 0) {
                      CountOne(2);
                      ::_exit(0);
                  }
                  EXPECT_EQ(StatusOf(child), 0);
                  hasForked = true;
                  maker.join();
              }),
              0);
}

// The library that was preloaded or the file system may not know the lock; then the process number decides.
TEST_F(StatsPage, ThatWasLeftBehindIsRemovedByTheNextProcess) {
    Leave("999999991.app.page", [](vexo_stats::Process&) {});
    Leave("999999992.app.page", [](vexo_stats::Process& process) { process.isLocked = 1; });
    Leave("999999993.app.page", [](vexo_stats::Process& process) { process.steps[vexo_stats::kEnded] = 1; });
    dir.Write("pages/.999999994.app.page.1", "made by a process that was killed in the middle");
    const timespec longAgo[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, File(".999999994.app.page.1").c_str(), longAgo, 0), 0);
    MakeAnotherPage();
    EXPECT_TRUE(fs::is_empty(dir.Path("pages")));
}

TEST_F(StatsPage, IsLeftAloneWhenItIsToBeKeptOrMayBeInUse) {
    Leave("999999991.app.page", [](vexo_stats::Process& process) {
        process.steps[vexo_stats::kEnded] = 1;
        process.isKept = 1;
    });
    Leave("999999992.app.page", [](vexo_stats::Process& process) { process.pidNamespace = 1; });
    Leave("999999993.app.page", [](vexo_stats::Process& process) { process.version = 99; });
    dir.Write("pages/.999999994.app.page.1", "");
    dir.Write("pages/0999.app.page", "");
    dir.Write("pages/notes", "");
    MakeAnotherPage();
    for (const char* name : {"999999991.app.page", "999999992.app.page", "999999993.app.page", ".999999994.app.page.1",
                             "0999.app.page", "notes"}) {
        EXPECT_TRUE(fs::exists(File(name))) << name;
    }
}

TEST_F(StatsPage, OfAnotherContainerIsRunningAsLongAsItsLockIsHeld) {
    Leave("999999991.app.page", [](vexo_stats::Process& process) {
        process.pidNamespace = 1;
        process.isLocked = 1;
    });
    const int holder = ::open(File("999999991.app.page").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_TRUE(vexo_stats::hold(holder));
    MakeAnotherPage();
    ASSERT_THAT(Pages(), SizeIs(1));
    EXPECT_EQ(Pages()[0].life, Life::kRunning);
    ::close(holder);
    EXPECT_EQ(Pages().at(0).life, Life::kDied);
    MakeAnotherPage();
    EXPECT_THAT(Pages(), IsEmpty());
}

TEST_F(StatsPage, OfAnotherContainerWithoutALockIsNotCalledDead) {
    Leave("999999991.app.page", [](vexo_stats::Process& process) { process.pidNamespace = 1; });
    ASSERT_THAT(Pages(), SizeIs(1));
    EXPECT_EQ(Pages()[0].life, Life::kUnseen);
}

TEST_F(StatsPage, OfARunningProcessIsNotReplacedByOneWithTheSameNumber) {
    EXPECT_EQ(RunInChild([this] {
                  const std::string name = std::to_string(::getpid()) + ".app.page";
                  Leave(name, [](vexo_stats::Process& process) {
                      process.pidNamespace = 1;
                      process.isLocked = 1;
                  });
                  const int holder = ::open(File(name).c_str(), O_RDWR | O_CLOEXEC);
                  ASSERT_TRUE(vexo_stats::hold(holder));
                  CountOne(1);
                  EXPECT_THAT(VexoZceMdStats<>::error(), HasSubstr(name + ": this is the page of another process"));
              }),
              0);
}

TEST_F(StatsPage, ThatCannotBeMadeLeavesNothingOpen) {
    fs::permissions(dir.Path("pages"), fs::perms::all);
    EXPECT_EQ(RunInChild([] {
                  const std::size_t before = OpenFiles();
                  CountOne(1);
                  EXPECT_THAT(VexoZceMdStats<>::error(), HasSubstr("other users"));
                  EXPECT_EQ(OpenFiles(), before);
              }),
              0);
    fs::permissions(dir.Path("pages"), fs::perms::owner_all);
    EXPECT_EQ(RunInChild([] {
                  const std::size_t before = OpenFiles();
                  std::signal(SIGXFSZ, SIG_IGN);
                  const rlimit little = {4096, 4096};
                  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &little), 0);
                  CountOne(1);
                  EXPECT_THAT(VexoZceMdStats<>::error(), HasSubstr("File too large"));
                  EXPECT_EQ(OpenFiles(), before);
              }),
              0);
    EXPECT_TRUE(fs::is_empty(dir.Path("pages")));
}

TEST_F(StatsPage, IsRemovedFromItsDirectoryAlthoughTheProgramHasUsedTheDescriptor) {
    fs::create_directory(dir.Path("other"));
    EXPECT_EQ(RunInChild([this] {
                  CountOne(1);
                  const std::string name = std::to_string(::getpid()) + ".app.page";
                  ASSERT_TRUE(fs::exists(File(name)));
                  ::chdir("/");
                  dir.Write("other/" + name, "");
                  const int other = ::open(dir.Path("other").c_str(), O_RDONLY | O_DIRECTORY);
                  for (int fd = STDERR_FILENO + 1; fd < 64; ++fd) {
                      if (fd != other) ::dup2(other, fd);
                  }
              }),
              0);
    EXPECT_TRUE(fs::is_empty(dir.Path("pages")));
    EXPECT_FALSE(fs::is_empty(dir.Path("other")));
}

TEST_F(StatsPage, ItsClockIsMeasuredForItsTimeWhateverSignalsCome) {
    EXPECT_EQ(RunInChild([] {
                  std::signal(SIGALRM, [](int) {});
                  const itimerval often = {{0, 500}, {0, 500}};
                  ASSERT_EQ(::setitimer(ITIMER_REAL, &often, nullptr), 0);
                  const std::uint64_t before = vexo_stats::nowNs(CLOCK_MONOTONIC);
                  vexo_stats::measureClock();
                  EXPECT_GE(vexo_stats::nowNs(CLOCK_MONOTONIC) - before, 5'000'000U);
                  const itimerval never = {};
                  ::setitimer(ITIMER_REAL, &never, nullptr);
              }),
              0);
}
