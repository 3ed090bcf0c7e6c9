#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "src/log/StandardWrite.h"
#include "tests/unit/log/LogFixture.h"
#include "tests/unit/log/SingleStep.h"

// The system call of a line that may wait. A build with the thread sanitizer makes it in another way.
extern "C" __attribute__((weak)) const char vexo_log_write_call[];

namespace {

using testing::AllOf;
using testing::Each;
using testing::IsEmpty;
using testing::SizeIs;

/// Lines are their text alone. SIGTERM is handled as the library does it. What is wrong here shows as a test that never
/// ends.
class StandardOutput : public StartedLog {
protected:
    StandardOutput() {
        for (std::uint8_t level = 0; level < ELOG_LVL_TOTAL; ++level) elog_set_fmt(level, 0);
        struct sigaction action {};
        action.sa_sigaction = [](int signal, siginfo_t* info, void* context) {
            if (standard_write::stopFromHandler(signal, info, context)) ++s_told;
        };
        action.sa_flags = SA_SIGINFO;
        ::sigaction(SIGTERM, &action, &m_before);
        s_told = 0;
    }
    ~StandardOutput() override { ::sigaction(SIGTERM, &m_before, nullptr); }

    static void Log(const char* text = "text") { elog_output(kInfo, "fpga", "file", "func", 1, "%s", text); }
    static void Stop() { standard_write::stopFromHandler(SIGTERM, nullptr, nullptr); }

    static std::atomic<int> s_told;

private:
    struct sigaction m_before {};
};

std::atomic<int> StandardOutput::s_told{0};

/// A thread that logs one line, begun and asleep in it.
class WaitingLine {
public:
    WaitingLine()
        : m_thread([this] {
              m_tid = ::gettid();
              elog_output(kInfo, "fpga", "file", "func", 1, "waiting");
          }) {
        while (m_tid == 0) std::this_thread::yield();
        WaitUntilAsleep(m_tid);
    }
    ~WaitingLine() {
        if (m_thread.joinable()) m_thread.join();
    }
    WaitingLine(const WaitingLine&) = delete;
    WaitingLine& operator=(const WaitingLine&) = delete;

    void Signal() { ::pthread_kill(m_thread.native_handle(), SIGTERM); }
    void Join() { m_thread.join(); }

private:
    std::atomic<pid_t> m_tid{0};
    std::thread m_thread;
};

// ---- the order of the locks ----

TEST_F(StandardOutput, AThreadThatHoldsItMayLogWhileAnotherThreadLogs) {
    const std::string printed = Printed([] {
        ::flockfile(stdout);
        WaitingLine other;
        Log("held");
        ::funlockfile(stdout);
        other.Join();
    });

    EXPECT_EQ(printed, "held\nwaiting\n");
    EXPECT_EQ(dir.Read(kToday), printed);
}

TEST_F(StandardOutput, AThreadThatHoldsStandardErrorMayLogWhileAnotherReportsAnErrorOfTheLog) {
    elog_set_fmt(kInfo, ELOG_FMT_TIME);
    Printed([] { Log(); });
    clock.Advance(86400);
    std::filesystem::create_directory(kTomorrow);

    const std::string error = Printed(
        [] {
            Printed([] {
                ::flockfile(stderr);
                std::thread([] { Log(); }).join();
                Log();
                ::funlockfile(stderr);
            });
        },
        2);

    EXPECT_EQ(Lines(error).size(), 2u);
}

// ---- before the stop ----

TEST_F(StandardOutput, AStreamOfTheApplicationWithoutADescriptorGetsTheLines) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* const before = stdout;

    stdout = ::open_memstream(&text, &size);
    Log("first");
    Log("second");
    std::fclose(stdout);
    stdout = before;

    EXPECT_EQ(std::string(text, size), "first\nsecond\n");
    std::free(text);
}

TEST_F(StandardOutput, ALineWaitsForItsReader) {
    StalledPipe out;
    WaitingLine waiting;

    std::string got = out.Drain();
    waiting.Join();

    EXPECT_EQ(got + out.Drain(), "waiting\n");
}

/// SIGUSR1 interrupts calls, and does nothing else, while this lives.
class HarmlessSignal {
public:
    HarmlessSignal() {
        struct sigaction ignoring {};
        ignoring.sa_handler = [](int) {};
        ::sigaction(SIGUSR1, &ignoring, &m_before);
    }
    ~HarmlessSignal() { ::sigaction(SIGUSR1, &m_before, nullptr); }
    HarmlessSignal(const HarmlessSignal&) = delete;
    HarmlessSignal& operator=(const HarmlessSignal&) = delete;

private:
    struct sigaction m_before {};
};

TEST_F(StandardOutput, ASignalOfTheApplicationDoesNotEndTheWait) {
    const HarmlessSignal harmless;
    StalledPipe out;
    std::atomic<pid_t> tid{0};
    std::thread waiting([&tid] {
        tid = ::gettid();
        Log("waiting");
    });
    while (tid == 0) std::this_thread::yield();
    WaitUntilAsleep(tid);

    ::pthread_kill(waiting.native_handle(), SIGUSR1);
    std::string got = out.Drain();
    waiting.join();

    EXPECT_EQ(got + out.Drain(), "waiting\n");
}

TEST_F(StandardOutput, ATextThatSignalsOfTheApplicationCutGoesOnWhereItWasCut) {
    const HarmlessSignal harmless;
    std::string text;
    while (text.size() < 1'000'000) text += std::to_string(text.size()) + ' ';
    StalledPipe out;
    std::atomic<bool> written{false};
    std::thread writing([&] {
        elog_raw_huge("%s", text.c_str());
        written = true;
    });

    std::string got;
    while (!written) {
        ::pthread_kill(writing.native_handle(), SIGUSR1);
        got += out.Drain();
        std::this_thread::yield();
    }
    writing.join();

    EXPECT_TRUE(got + out.Drain() == text);
}

// ---- the stop ----

TEST_F(StandardOutput, AStopSignalEndsTheWaitOfItsOwnThread) {
    StalledPipe out;
    WaitingLine waiting;

    waiting.Signal();
    waiting.Join();

    EXPECT_EQ(dir.Read(kToday), "waiting\n");
    EXPECT_EQ(s_told, 1);
    EXPECT_THAT(out.Drain(), IsEmpty());
}

TEST_F(StandardOutput, AStopSignalOnAnotherThreadEndsTheWaitAndIsToldOnce) {
    StalledPipe out;
    WaitingLine waiting;

    ::raise(SIGTERM);
    waiting.Join();

    EXPECT_EQ(dir.Read(kToday), "waiting\n");
    EXPECT_EQ(s_told, 1);
}

TEST_F(StandardOutput, AStopSignalEndsTheWaitOfAllThatWaitInARow) {
    StalledPipe out;
    WaitingLine first;
    WaitingLine second;
    WaitingLine third;

    ::raise(SIGTERM);
    first.Join();
    second.Join();
    third.Join();

    EXPECT_EQ(dir.Read(kToday), "waiting\nwaiting\nwaiting\n");
}

// Steps through a line up to the system call that would wait, and stops there or at one instruction before.
volatile unsigned long g_stopAt = 0;
volatile unsigned long g_instruction = 0;

void StopAtOneInstruction() {
    auto* const context = static_cast<ucontext_t*>(SingleStep::Context());
    const auto at = reinterpret_cast<const char*>(context->uc_mcontext.gregs[REG_RIP]);
    if (g_instruction != g_stopAt && at != vexo_log_write_call) {
        g_instruction = g_instruction + 1;
        return;
    }
    standard_write::stopFromHandler(SIGTERM, nullptr, context);
    context->uc_mcontext.gregs[REG_EFL] &= ~0x100;  // no more steps
}

/// @return the number of instructions before the one at which it was stopped
unsigned long LogAndStopAt(unsigned long instruction) {
    standard_write::forgetStop();
    g_stopAt = instruction;
    g_instruction = 0;
    SingleStep::Run([] { elog_output(kInfo, "fpga", "file", "func", 1, "text"); }, StopAtOneInstruction);
    return g_instruction;
}

TEST_F(StandardOutput, AStopSignalAtAnyInstructionBeforeTheWaitPreventsIt) {
    if (!SingleStep::Works()) GTEST_SKIP() << "the thread sanitizer itself must not be interrupted at any instruction";
    std::size_t lines = 2;
    {
        const StalledPipe out;
        Stop();
        Log();  // whatever is done once in a process, such as the binding of symbols
        const unsigned long all = LogAndStopAt(~0UL);
        ASSERT_GT(all, 100u);
        for (unsigned long at = 0; at <= all; at += at + 100 < all ? 7 : 1, ++lines) LogAndStopAt(at);
    }
    EXPECT_THAT(Lines(dir.Read(kToday)), AllOf(SizeIs(lines), Each("text")));
}

// ---- after the stop ----

TEST_F(StandardOutput, AfterTheStopALineThatIsNotTakenAtOnceIsInTheFileAlone) {
    StalledPipe out;
    const int flags = out.Flags();
    Stop();

    Log();
    elog_raw("raw\n");
    elog_hexdump("pkt", 4, "SR50", 4);

    EXPECT_EQ(dir.Read(kToday), "text\nraw\n[DEBUG  ]HEX pkt: 0000-0004: 53 52 35 30   SR50\n");
    EXPECT_EQ(out.Flags(), flags);
    EXPECT_THAT(out.Drain(), IsEmpty());
}

TEST_F(StandardOutput, AfterTheStopALineIsPrintedWhereItIsTakenAtOnce) {
    StalledPipe out;
    Stop();
    out.Drain();

    Log();

    EXPECT_EQ(out.Drain(), "text\n");
    EXPECT_EQ(Printed([] { Log("to a file"); }), "to a file\n");
    EXPECT_EQ(dir.Read(kToday), "text\nto a file\n");
}

TEST_F(StandardOutput, AfterTheStopASocketThatIsFullDoesNotMakeALineWait) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    while (::send(ends[1], "....", 4, MSG_DONTWAIT) > 0) {
    }
    Stop();
    {
        const Redirected out(STDOUT_FILENO, ends[1]);
        Log();
    }
    ::close(ends[0]);
    ::close(ends[1]);

    EXPECT_EQ(dir.Read(kToday), "text\n");
}

TEST_F(StandardOutput, AfterTheStopATerminalThatIsHeldDoesNotMakeALineWait) {
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0) GTEST_SKIP() << "no /dev/pts here";
    const int terminal = ::open(::ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (terminal < 0) GTEST_SKIP() << "no /dev/pts here";
    while (::write(terminal, "....", 4) > 0) {
    }
    ::fcntl(terminal, F_SETFL, 0);
    Stop();
    {
        const Redirected out(STDOUT_FILENO, terminal);
        Log();
    }
    ::close(terminal);
    ::close(master);

    EXPECT_EQ(dir.Read(kToday), "text\n");
}

/// Another thread that keeps standard output.
class KeptByAnother {
public:
    KeptByAnother() {
        while (!m_isKept) std::this_thread::yield();
    }
    ~KeptByAnother() {
        m_isOver = true;
        m_keeper.join();
    }
    KeptByAnother(const KeptByAnother&) = delete;
    KeptByAnother& operator=(const KeptByAnother&) = delete;

private:
    std::atomic<bool> m_isKept{false};
    std::atomic<bool> m_isOver{false};
    std::thread m_keeper{[this] {
        ::flockfile(stdout);
        m_isKept = true;
        while (!m_isOver) std::this_thread::yield();
        ::funlockfile(stdout);
    }};
};

TEST_F(StandardOutput, AfterTheStopALineDoesNotWaitForAThreadThatKeepsStandardOutput) {
    const std::string printed = Printed([] {
        {
            const KeptByAnother kept;
            Stop();
            Log();
            elog_raw_huge("%s\n", "huge");
        }
        Log("later");
    });

    EXPECT_EQ(printed, "later\n");
    EXPECT_EQ(dir.Read(kToday), "text\nhuge\nlater\n");
}

TEST_F(StandardOutput, ALineThatIsInTheFileAloneHasItsWholePrefix) {
    elog_set_fmt(kInfo, ELOG_FMT_LVL | ELOG_FMT_TAG | ELOG_FMT_FILE | ELOG_FMT_FUNC | ELOG_FMT_LINE);

    const std::string printed = Printed([] {
        const KeptByAnother kept;
        Stop();
        Log();
    });

    EXPECT_EQ(printed, "");
    EXPECT_EQ(dir.Read(kToday), "[INFO   ][fpga](file func:1)text\n");
}

}  // namespace
