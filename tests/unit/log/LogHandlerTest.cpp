#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <filesystem>
#include <thread>

#include "src/log/elog_mutex.h"
#include "tests/support/Sanitizers.h"
#include "tests/unit/log/Interposed.h"
#include "tests/unit/log/LogFixture.h"
#include "tests/unit/log/SingleStep.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace fs = std::filesystem;

void FromHandler(const char* format, int value) {
    elog_output_from_handler(ELOG_LVL_WARN, "fpga", "SignalProcess", "SignalHandler", 48, format, value);
}

// ---- the line ----

using HandlerLine = StartedLog;

TEST_F(HandlerLine, ReachesBothPlacesLikeAnyOtherLine) {
    Printed([] { elog_start(); });

    const std::string printed = Printed([] { FromHandler("Received signal %d !!", 15); });

    EXPECT_EQ(printed, "[WARN   ][20250303-10:00:00][fpga]Received signal 15 !!\n");
    EXPECT_EQ(LastLine(dir.Read(kToday)), "[WARN   ][20250303-10:00:00][fpga]Received signal 15 !!");
}

TEST_F(HandlerLine, HasThePrefixOfItsMask) {
    const FakeIds ids(42, 7);
    elog_set_fmt(ELOG_LVL_WARN, 255 & ~ELOG_FMT_TIME);

    EXPECT_EQ(Printed([] { FromHandler("text", 0); }),
              "[WARN   ][pid:0042 tid:0007][fpga](SignalProcess SignalHandler:48)text\n");
}

TEST_F(HandlerLine, PutsTheValueInThePlaceOfPercentD) {
    elog_set_fmt(ELOG_LVL_WARN, 0);

    const std::string printed = Printed([] {
        FromHandler("%d", 0);
        FromHandler("a%db", -1);
        FromHandler("%d", INT_MIN);
        FromHandler("100% of %s", 5);
        FromHandler("", 5);
        FromHandler("%", 5);
    });

    EXPECT_THAT(Lines(printed), ElementsAre("0", "a-1b", "-2147483648", "100% of %s", "", "%"));
}

TEST_F(HandlerLine, IsCutAt2048Bytes) {
    elog_set_fmt(ELOG_LVL_WARN, 0);
    for (std::size_t length = 2040; length <= 2055; ++length) {
        const std::string text(length, 'a');

        const std::string printed = Printed([&text] { FromHandler((text + "%d").c_str(), 15); });

        EXPECT_EQ(printed, (text + "15").substr(0, 2047) + '\n') << length;
    }
}

TEST_F(HandlerLine, ObeysTheFilterLevelAndTheOutputFlag) {
    const std::string printed = Printed([] {
        elog_set_filter_lvl(ELOG_LVL_ERROR);
        FromHandler("below", 0);
        elog_set_filter_lvl(ELOG_LVL_VERBOSE);
        elog_set_output_enabled(false);
        FromHandler("disabled", 0);
    });

    EXPECT_THAT(printed, IsEmpty());
}

TEST_F(HandlerLine, ReachesStandardOutputWhenNoFileIsOpen) {
    elog_set_fmt(ELOG_LVL_WARN, 0);
    elog_fini();

    EXPECT_EQ(Printed([] { FromHandler("text", 0); }), "text\n");
}

TEST_F(HandlerLine, TheFirstOfADayOpensTheFileOfThatDay) {
    Printed([] { elog_start(); });
    clock.Advance(86400);
    const std::size_t before = OpenDescriptors();

    Printed([] { FromHandler("text", 0); });

    EXPECT_EQ(Lines(dir.Read(kToday)).size(), 1u);
    EXPECT_EQ(dir.Read(kTomorrow), "[WARN   ][20250304-10:00:00][fpga]text\n");
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(HandlerLine, TheLogFollowsIntoTheFileThatTheHandlerOpened) {
    Printed([] { elog_start(); });
    clock.Advance(86400);

    Printed([] {
        FromHandler("text", 0);
        elog_output(kInfo, "fpga", "file", "func", 1, "next");
    });

    EXPECT_THAT(Lines(dir.Read(kTomorrow)),
                ElementsAre("[WARN   ][20250304-10:00:00][fpga]text", "[INFO   ][20250304-10:00:00][fpga]next"));
}

TEST_F(HandlerLine, StaysInTheOpenFileWhenThatOfItsDayCannotBeOpened) {
    Printed([] { elog_start(); });
    clock.Advance(86400);
    fs::create_directory(kTomorrow);

    Printed([] { FromHandler("text", 0); });

    EXPECT_EQ(LastLine(dir.Read(kToday)), "[WARN   ][20250304-10:00:00][fpga]text");
}

TEST_F(HandlerLine, StaysInTheOpenFileWhenTheClockWasSetBack) {
    Printed([] { elog_start(); });
    clock.Advance(-86400);

    Printed([] { FromHandler("text", 0); });

    EXPECT_EQ(LastLine(dir.Read(kToday)), "[WARN   ][20250302-10:00:00][fpga]text");
}

TEST_F(HandlerLine, HasTheOffsetThatHoldsAtItsOwnTime) {
    const Zone zone("CET-1CEST,M3.5.0,M10.5.0/3");
    clock.SetLocal(2025, 3, 28, 20, 0, 0);
    Printed([] { elog_start(); });
    std::vector<std::string> times;
    const auto timeAt = [&](std::int64_t epoch) {
        clock.SetEpoch(epoch);
        times.push_back(Printed([] { FromHandler("", 0); }).substr(10, 17));
    };

    timeAt(1743296399);  // one second before summer time
    timeAt(1743296400);
    timeAt(1761440399);  // one second before winter time
    timeAt(1761440400);

    EXPECT_THAT(times, ElementsAre("20250330-01:59:59", "20250330-03:00:00", "20251026-02:59:59", "20251026-02:00:00"));
}

TEST_F(HandlerLine, HasTheZoneThatTheLastLineFound) {
    Printed([] { elog_start(); });
    const Zone zone("XST-9");
    clock.Advance(1);

    const std::string printed = Printed([] {
        elog_output(kInfo, "fpga", "file", "func", 1, "line");
        FromHandler("text", 0);
    });

    EXPECT_THAT(Lines(printed),
                ElementsAre("[INFO   ][20250303-11:00:01][fpga]line", "[WARN   ][20250303-11:00:01][fpga]text"));
}

TEST_F(HandlerLine, DoesNotAskForTheTimeZone) {
    Printed([] { elog_start(); });
    clock.FailLocaltime(true);

    EXPECT_EQ(Printed([] { FromHandler("text", 0); }), "[WARN   ][20250303-10:00:00][fpga]text\n");
}

// Blocks for ever when the line waits for the reader.
TEST_F(HandlerLine, IsInTheFileAlthoughNobodyReadsStandardOutput) {
    elog_set_fmt(ELOG_LVL_WARN, 0);
    const StalledPipe out;

    FromHandler("text", 0);

    EXPECT_EQ(dir.Read(kToday), "text\n");
}

// Blocks for ever when the line waits for the log's lock.
TEST_F(HandlerLine, IsWrittenWhileAnotherThreadHoldsTheLog) {
    elog_set_fmt(ELOG_LVL_WARN, 0);
    std::atomic<bool> held{false};
    std::atomic<bool> written{false};
    std::thread holder([&held, &written] {
        elog_mutex_lock();
        held = true;
        while (!written) std::this_thread::yield();
        elog_mutex_unlock();
    });
    while (!held) std::this_thread::yield();

    EXPECT_EQ(Printed([] { FromHandler("text", 0); }), "text\n");

    written = true;
    holder.join();
}

// A count that stays up makes whoever closes the file wait for ever.
TEST_F(HandlerLine, AThreadThatIsCancelledInsideTheHandlerNoLongerCountsAsWriting) {
    if (kWithAddressSanitizer) GTEST_SKIP() << "the address sanitizer loses track of the stack of a cancelled thread";
    const WriteHook cancelling([](int fd, const void* buf, std::size_t size) -> ssize_t {
        if (fd != elog_file_fd) return WriteHook::Real(fd, buf, size);
        ::pthread_cancel(::pthread_self());
        ::pthread_testcancel();
        return -1;
    });

    Printed([] {
        pthread_t thread{};
        ::pthread_create(
            &thread, nullptr, [](void*) -> void* { return FromHandler("text", 0), nullptr; }, nullptr);
        ::pthread_join(thread, nullptr);
    });

    EXPECT_EQ(elog_handlers_writing.exchange(0), 0);
}

// ---- the line from a handler that interrupts the log ----

std::atomic<int> g_handled{0};

void LogHandlerLine() { FromHandler("from the handler", 0); }

void OnSignal(int) {
    LogHandlerLine();
    g_handled.fetch_add(1);
}

constexpr char kMainLine[] = "[INFO   ][20250303-10:00:00][fpga]from the interrupted thread";
constexpr char kHandlerLine[] = "[WARN   ][20250303-10:00:00][fpga]from the handler";

void LogMainLine() { elog_output(kInfo, "fpga", "file", "func", 1, "%s", "from the interrupted thread"); }

/// SIGUSR1 writes a line from its handler.
class LogInterrupted : public StartedLog {
protected:
    LogInterrupted() {
        g_handled = 0;
        Printed([] { elog_start(); });
        struct sigaction action {};
        action.sa_handler = OnSignal;
        action.sa_flags = SA_RESTART;
        ::sigaction(SIGUSR1, &action, &m_before);
    }
    ~LogInterrupted() override { ::sigaction(SIGUSR1, &m_before, nullptr); }

    /// Every line is whole and is one of the two; @return how often each of them stands in @p text.
    static std::pair<int, int> Count(const std::string& text) {
        std::pair<int, int> count{0, 0};
        for (const std::string& line : Lines(text)) {
            if (line == kMainLine) {
                ++count.first;
            } else if (line == kHandlerLine) {
                ++count.second;
            } else {
                ADD_FAILURE() << "not a whole line: " << line;
            }
        }
        return count;
    }

    /// The file of today without its first line.
    std::string LoggedBehindTheStart() const {
        const std::string all = dir.Read(kToday);
        return all.substr(all.find('\n') + 1);
    }

private:
    struct sigaction m_before {};
};

TEST_F(LogInterrupted, BetweenStandardOutputAndTheFileBothLinesStayWhole) {
    bool raised = false;
    const WriteHook interrupting([&raised](int fd, const void* buf, std::size_t size) {
        if (fd == elog_file_fd && !raised) {
            raised = true;
            ::raise(SIGUSR1);
        }
        return WriteHook::Real(fd, buf, size);
    });

    const std::string printed = Printed(LogMainLine);

    EXPECT_THAT(Lines(printed), ElementsAre(kMainLine, kHandlerLine));
    EXPECT_THAT(Lines(LoggedBehindTheStart()), ElementsAre(kHandlerLine, kMainLine));
}

TEST_F(LogInterrupted, FromAnotherThreadAgainAndAgainLosesNoLine) {
    constexpr int kRounds = 50;
    std::atomic<bool> done{false};

    int lines = 0;

    const std::string printed = Printed([&done, &lines] {
        const pthread_t self = ::pthread_self();
        std::thread sender([&done, self] {
            for (int i = 0; i < kRounds; ++i) {
                const int before = g_handled;
                ::pthread_kill(self, SIGUSR1);
                while (g_handled == before) std::this_thread::yield();
            }
            done = true;
        });
        for (; !done || lines < kRounds; ++lines) LogMainLine();
        sender.join();
    });

    EXPECT_EQ(Count(printed), std::make_pair(lines, kRounds));
    EXPECT_EQ(Count(LoggedBehindTheStart()), std::make_pair(lines, kRounds));
}

TEST_F(LogInterrupted, AtEveryInstructionOfALineBothLinesStayWhole) {
    if (!SingleStep::Works()) GTEST_SKIP() << "the thread sanitizer itself must not be interrupted at any instruction";
    unsigned long interruptions = 0;

    const std::string printed = Printed(
        [&interruptions] { interruptions = SingleStep::Run(LogMainLine, LogHandlerLine); });

    EXPECT_GT(interruptions, 500U) << "a line takes more instructions than that";
    const auto expected = std::make_pair(1, static_cast<int>(interruptions));
    EXPECT_EQ(Count(printed), expected);
    EXPECT_EQ(Count(LoggedBehindTheStart()), expected);
}

TEST_F(LogInterrupted, AtEveryInstructionOfADaySwitchBothLinesStayWhole) {
    if (!SingleStep::Works()) GTEST_SKIP() << "the thread sanitizer itself must not be interrupted at any instruction";
    clock.Advance(86400);
    unsigned long interruptions = 0;

    const std::string printed = Printed(
        [&interruptions] { interruptions = SingleStep::Run(LogMainLine, LogHandlerLine); });

    std::vector<std::string> after = Lines(dir.Read(kTomorrow));
    const std::string mainLine = "[INFO   ][20250304-10:00:00][fpga]from the interrupted thread";
    EXPECT_EQ(Lines(printed).size(), interruptions + 1);
    EXPECT_EQ(after.size(), interruptions + 1);
    EXPECT_EQ(std::count(after.begin(), after.end(), mainLine), 1);
    after.erase(std::remove(after.begin(), after.end(), mainLine), after.end());
    EXPECT_THAT(after, Each("[WARN   ][20250304-10:00:00][fpga]from the handler"));
    EXPECT_THAT(LoggedBehindTheStart(), IsEmpty());
}

// A descriptor that is closed meanwhile may already be somebody else's.
TEST_F(LogInterrupted, TheFileStaysOpenUntilTheHandlersLineIsWritten) {
    std::atomic<bool> writing{false};
    std::atomic<bool> closing{false};
    const YieldHook waiting([&closing] { closing = true; });
    const WriteHook slow([&](int fd, const void* buf, std::size_t size) {
        if (fd != STDOUT_FILENO) {
            writing = true;
            while (!closing) continue;
        }
        return WriteHook::Real(fd, buf, size);
    });

    Printed([&writing, &closing] {
        std::thread interrupted(LogHandlerLine);
        while (!writing) continue;
        elog_fini();
        closing = true;
        interrupted.join();
    });

    EXPECT_EQ(LoggedBehindTheStart(), std::string(kHandlerLine) + '\n');
}

}  // namespace
