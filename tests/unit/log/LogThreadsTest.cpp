#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

#include "src/log/elog_mutex.h"
#include "tests/support/Sanitizers.h"
#include "tests/unit/log/Interposed.h"
#include "tests/unit/log/LogFixture.h"

namespace {

using LogThreads = StartedLog;

namespace fs = std::filesystem;

constexpr int kThreads = 4;
constexpr int kLines = 250;

// Lines of many lengths, up to ones that are cut.
std::string Message(int thread, int number) {
    return std::to_string(thread) + ':' + std::to_string(number) + ' ' +
           std::string(static_cast<std::size_t>(number) * 9, static_cast<char>('a' + thread));
}

std::vector<std::string> ExpectedLines(int thread) {
    std::vector<std::string> lines;
    for (int number = 0; number < kLines; ++number)
        lines.push_back(("[INFO   ][fpga]" + Message(thread, number)).substr(0, 2047));
    return lines;
}

template <typename Body>
void OnAllThreads(Body body) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) threads.emplace_back(body, thread);
    for (std::thread& thread : threads) thread.join();
}

void LogAll(int thread) {
    for (int number = 0; number < kLines; ++number)
        elog_output(kInfo, "fpga", "file", "func", 1, "%s", Message(thread, number).c_str());
}

/// The lines of one thread, in the order of @p text.
std::vector<std::string> LinesOf(int thread, const std::vector<std::string>& text) {
    const std::string start = "[INFO   ][fpga]" + std::to_string(thread) + ':';
    std::vector<std::string> lines;
    std::copy_if(text.begin(), text.end(), std::back_inserter(lines),
                 [&start](const std::string& line) { return line.compare(0, start.size(), start) == 0; });
    return lines;
}

TEST_F(LogThreads, LinesOfSeveralThreadsAreWholeAndInOrderInBothPlaces) {
    elog_set_fmt(kInfo, ELOG_FMT_LVL | ELOG_FMT_TAG);

    const std::string printed = Printed([] { OnAllThreads(LogAll); });

    for (const std::string& place : {printed, dir.Read(kToday)}) {
        const std::vector<std::string> lines = Lines(place);
        EXPECT_EQ(lines.size(), std::size_t{kThreads * kLines});
        for (int thread = 0; thread < kThreads; ++thread) EXPECT_EQ(LinesOf(thread, lines), ExpectedLines(thread));
    }
}

TEST_F(LogThreads, BothPlacesShowTheLinesInTheSameOrder) {
    const std::string printed = Printed([] { OnAllThreads(LogAll); });

    EXPECT_EQ(dir.Read(kToday), printed);
}

TEST_F(LogThreads, EveryKindOfOutputStaysWholeAmongTheOthers) {
    elog_set_fmt(kInfo, 0);
    const std::string word(3000, 'w');

    const std::string printed = Printed([&word] {
        OnAllThreads([&word](int thread) {
            for (int i = 0; i < kLines; ++i) {
                if (thread == 0) elog_output(kInfo, "fpga", "file", "func", 1, "%s", std::string(900, 'o').c_str());
                if (thread == 1) elog_raw("%s", (std::string(900, 'r') + '\n').c_str());
                if (thread == 2) elog_raw_huge("%s\n", word.c_str());
                if (thread == 3) elog_hexdump("pkt", 4, "SR50", 4);
            }
        });
    });

    std::multiset<std::string> expected;
    for (int i = 0; i < kLines; ++i) {
        expected.insert(
            {std::string(900, 'o'), std::string(900, 'r'), word, "[DEBUG  ]HEX pkt: 0000-0004: 53 52 35 30   SR50"});
    }
    const std::vector<std::string> lines = Lines(printed);
    EXPECT_EQ(std::multiset<std::string>(lines.begin(), lines.end()), expected);
    EXPECT_EQ(dir.Read(kToday), printed);
}

TEST_F(LogThreads, ADaySwitchUnderSeveralThreadsLosesNoLine) {
    constexpr int kDays = 20;

    const std::string printed = Printed([this] {
        OnAllThreads([this](int thread) {
            for (int number = 0; number < kLines; ++number) {
                if (thread == 0 && number % (kLines / kDays) == 0) clock.Advance(86400);
                elog_output(kInfo, "fpga", "file", "func", 1, "%s", Message(thread, number).c_str());
            }
        });
    });

    std::vector<std::string> logged;
    for (const auto& entry : fs::directory_iterator(".")) {
        const std::vector<std::string> lines = Lines(dir.Read(entry.path().filename()));
        logged.insert(logged.end(), lines.begin(), lines.end());
    }
    std::vector<std::string> shown = Lines(printed);
    std::sort(logged.begin(), logged.end());
    std::sort(shown.begin(), shown.end());
    EXPECT_EQ(logged.size(), std::size_t{kThreads * kLines});
    EXPECT_EQ(logged, shown);
}

TEST_F(LogThreads, AThreadThatIsCancelledInsideALineLeavesTheLogUsable) {
    if (kWithAddressSanitizer) GTEST_SKIP() << "the address sanitizer loses track of the stack of a cancelled thread";
    {
        const WriteHook cancelling([](int, const void*, std::size_t) -> ssize_t {
            ::pthread_cancel(::pthread_self());
            ::pthread_testcancel();
            return -1;
        });
        Printed([] {
            pthread_t thread{};
            ::pthread_create(
                &thread, nullptr, [](void*) -> void* { return LogAll(0), nullptr; }, nullptr);
            ::pthread_join(thread, nullptr);
        });
    }

    Printed([] { std::thread(LogAll, 1).join(); });

    EXPECT_EQ(Lines(dir.Read(kToday)).size(), std::size_t{kLines});
}

// ---- a fork meanwhile ----

/// Forks a child that logs one line. @return its exit status
int LogInAChild() {
    const pid_t child = ::fork();
    if (child == 0) {
        elog_output(kInfo, "fpga", "file", "func", 1, "child");
        ::_exit(0);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return status;
}

/// Does @p held on another thread, which goes on to @p release once this thread sleeps or has forked.
template <typename Hold, typename Release>
void ForkWhile(Hold hold, Release release) {
    const pid_t self = ::gettid();
    std::atomic<bool> isHeld{false};
    std::thread holder([&] {
        hold();
        isHeld = true;
        WaitUntilAsleep(self);
        release();
    });
    while (!isHeld) std::this_thread::yield();
    EXPECT_EQ(LogInAChild(), 0);
    holder.join();
}

// A child that finds the lock taken waits for ever.
TEST_F(LogThreads, AChildThatIsForkedWhileAnotherThreadHoldsTheLogMayLog) {
    elog_set_fmt(kInfo, 0);

    Printed([] { ForkWhile(elog_mutex_lock, elog_mutex_unlock); });

    EXPECT_EQ(dir.Read(kToday), "child\n");
}

TEST_F(LogThreads, AChildThatIsForkedWhileAnotherThreadHoldsStandardOutputMayLog) {
    elog_set_fmt(kInfo, 0);

    Printed([] { ForkWhile([] { ::flockfile(stdout); }, [] { ::funlockfile(stdout); }); });

    EXPECT_EQ(dir.Read(kToday), "child\n");
}

TEST_F(LogThreads, AChildMayEndTheLogAlthoughAHandlerOfItsParentWasWriting) {
    Printed([] {
        ++elog_handlers_writing;
        const pid_t child = ::fork();
        if (child == 0) {
            elog_fini();
            ::_exit(0);
        }
        --elog_handlers_writing;
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    });
}

TEST_F(LogThreads, ChildrenThatAreForkedWhileThreadsLogAllFinishTheirLine) {
    if (kWithThreadSanitizer) GTEST_SKIP() << "the thread sanitizer does not follow a fork of several threads";
    constexpr int kChildren = 40;

    Printed([] {
        std::atomic<bool> done{false};
        std::thread logging([&done] {
            while (!done) elog_output(kInfo, "fpga", "file", "func", 1, "parent");
        });
        for (int child = 0; child < kChildren; ++child) EXPECT_EQ(LogInAChild(), 0);
        done = true;
        logging.join();
    });

    const std::vector<std::string> lines = Lines(dir.Read(kToday));
    const std::string line = "[INFO   ][20250303-10:00:00][fpga]child";
    EXPECT_EQ(std::count(lines.begin(), lines.end(), line), kChildren);
}

}  // namespace
