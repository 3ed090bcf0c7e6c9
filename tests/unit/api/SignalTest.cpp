#include "src/log/elog.h"
#include "src/log/elog_mutex.h"
#include "tests/doubles/LogLines.h"
#include "tests/support/HostCalls.h"
#include "tests/unit/api/ApiFixture.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <future>
#include <iterator>
#include <regex>
#include <sstream>
#include <thread>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// ---- installation ----

class Installation : public testing::Test {
protected:
    HostCalls host;
    test_support::LogLines log;
};

TEST_F(Installation, StopSignalsGetTheHandlerAndABrokenPipeIsIgnored) {
    EXPECT_EQ(CSignalProcess::InitSignal(), 0);

    ASSERT_EQ(host.installed.size(), 3U);
    EXPECT_EQ(host.installed[0].signal, SIGINT);
    EXPECT_EQ(host.installed[0].action.sa_sigaction, &CSignalProcess::SignalHandler);
    EXPECT_EQ(host.installed[1].signal, SIGTERM);
    EXPECT_EQ(host.installed[1].action.sa_sigaction, &CSignalProcess::SignalHandler);
    EXPECT_EQ(host.installed[2].signal, SIGPIPE);
    EXPECT_EQ(host.installed[2].action.sa_handler, SIG_IGN);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(Installation, ActionsAreClearedButForTheirHandlerAndFlag) {
    CSignalProcess::InitSignal();

    for (const HostCalls::Installed& call : host.installed) {
        EXPECT_EQ(call.action.sa_flags, SA_SIGINFO) << call.signal;
        EXPECT_EQ(call.action.sa_restorer, nullptr) << call.signal;
        for (int signal = 1; signal < NSIG; ++signal)
            EXPECT_EQ(sigismember(&call.action.sa_mask, signal), 0) << call.signal << ' ' << signal;
    }
}

TEST_F(Installation, LinesNameTheirSourceAndFunction) {
    elog_set_fmt(ELOG_LVL_ERROR, ELOG_FMT_LVL | ELOG_FMT_TAG | ELOG_FMT_FILE | ELOG_FMT_FUNC);
    host.refusedSignal = SIGINT;

    CSignalProcess::InitSignal();
    EXPECT_THAT(log.Take(), ElementsAre("ERROR (SignalProcess InitSignal)Failed to install SIGINT handle! msg:Invalid "
                                        "argument."));
}

struct RefusedRow {
    const char* name;
    int signal;
    std::size_t calls;
};

class RefusedTable : public Installation, public testing::WithParamInterface<RefusedRow> {};

TEST_P(RefusedTable, RefusedOneIsLoggedAndEndsTheInstallation) {
    host.refusedSignal = GetParam().signal;

    EXPECT_EQ(CSignalProcess::InitSignal(), -1);

    EXPECT_EQ(host.installed.size(), GetParam().calls);
    EXPECT_THAT(log.Take(), ElementsAre(std::string("ERROR Failed to install ") + GetParam().name +
                                        " handle! msg:Invalid argument."));
}

INSTANTIATE_TEST_SUITE_P(Installation, RefusedTable,
                         testing::Values(RefusedRow{"SIGINT", SIGINT, 1}, RefusedRow{"SIGTERM", SIGTERM, 2},
                                         RefusedRow{"SIGPIPE", SIGPIPE, 3}),
                         [](const auto& test) { return test.param.name; });

// ---- signals that really arrive ----

class StopSignal : public ApiTest {
protected:
    /// A receiving channel 3 in a child, where a stop signal has its default effect unless the library changes it.
    ChildResult Receiving(const std::function<void(IVexoZceMdApi& api)>& then) {
        return RunInChild([&] {
            for (const int signal : {SIGINT, SIGTERM, SIGPIPE}) std::signal(signal, SIG_DFL);
            IVexoZceMdApi* api = Started(3);
            then(*api);
            IVexoZceMdApi::DestroyVexoZceMdApi(*api);
        });
    }
    /// The same after the first market-data packet.
    ChildResult Armed(const std::function<void(IVexoZceMdApi& api)>& then) {
        return Receiving([&](IVexoZceMdApi& api) {
            Quote(3);
            EXPECT_EQ(api.VexoRecv(), 1);
            then(api);
        });
    }
    static std::vector<std::string> Warnings(const ChildResult& child) {
        std::vector<std::string> warnings;
        for (const std::string& line : child.Lines()) {
            if (line.compare(0, 5, "WARN ") == 0) warnings.push_back(line);
        }
        return warnings;
    }
};

class EachStopSignal : public StopSignal, public testing::WithParamInterface<int> {};

TEST_P(EachStopSignal, EndsTheProcessWhileNoMarketDataHasCome) {
    const ChildResult child = Receiving([](IVexoZceMdApi& api) {
        api.VexoRecv();
        std::raise(GetParam());
    });
    EXPECT_EQ(child.signal, GetParam());
    EXPECT_THAT(Warnings(child), IsEmpty());
}

TEST_P(EachStopSignal, EndsTheReceivingOnceMarketDataHasCome) {
    const ChildResult child = Armed([](IVexoZceMdApi& api) {
        std::raise(GetParam());
        EXPECT_EQ(api.VexoRecv(), -1);
        EXPECT_EQ(api.VexoRecv(), -1);
    });
    EXPECT_TRUE(child.returned) << child.err;
    EXPECT_THAT(Warnings(child), ElementsAre("WARN Received signal " + std::to_string(GetParam()) + " !!"));
}

TEST_P(EachStopSignal, LetsThePacketBeHandledToItsEnd) {
    const ChildResult child = Armed([this](IVexoZceMdApi& api) {
        Quote(3);
        spi.onCall = [] { std::raise(GetParam()); };
        EXPECT_EQ(api.VexoRecv(), 1);
        EXPECT_EQ(spi.calls, 2);
        EXPECT_EQ(api.VexoRecv(), -1);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_P(EachStopSignal, LetsTheBlockingModeReturn0) {
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        Quote(3);
        Quote(3);
        spi.onCall = [] { std::raise(GetParam()); };
        EXPECT_EQ(api->VexoRecvStart(spi, Ini(0, 3).c_str()), 0);
        EXPECT_EQ(spi.calls, 1);
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

INSTANTIATE_TEST_SUITE_P(StopSignal, EachStopSignal, testing::Values(SIGINT, SIGTERM), [](const auto& test) {
    return std::string(test.param == SIGINT ? "Interrupt" : "Terminate");
});

TEST_F(StopSignal, SecondOneOnlyLogsAgain) {
    const ChildResult child = Armed([](IVexoZceMdApi& api) {
        std::raise(SIGINT);
        std::raise(SIGTERM);
        EXPECT_TRUE(CSignalProcess::m_isExit);
        EXPECT_EQ(api.VexoRecv(), -1);
    });
    EXPECT_TRUE(child.returned) << child.err;
    EXPECT_THAT(Warnings(child), ElementsAre("WARN Received signal 2 !!", "WARN Received signal 15 !!"));
}

TEST_F(StopSignal, LineOfTheHandlerHasTheFormOfTheOthers) {
    const ChildResult child = Armed([](IVexoZceMdApi&) { std::raise(SIGINT); });

    const std::string line = "[WARN   ][" + day.Text() + "-12:00:00][fpga]Received signal 2 !!\n";
    EXPECT_THAT(child.out, testing::HasSubstr('\n' + line));
    EXPECT_THAT(dir.Read("fpga_" + day.Text() + ".log"), testing::HasSubstr('\n' + line));
}

TEST_F(StopSignal, EndAfterOneIsOrderly) {
    const ChildResult child = Armed([this](IVexoZceMdApi&) {
        hw.counters[Stream(3)].packets = 1;
        std::raise(SIGINT);
    });
    EXPECT_TRUE(child.returned) << child.err;
    const std::vector<std::string> lines = child.Lines();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_THAT(std::vector<std::string>(lines.end() - 3, lines.end()),
                ElementsAre("WARN Received signal 2 !!",
                            "INFO [channel:3] DMA count info: backpress:0, dma2soft:1, fifo:0, error:0.",
                            "INFO dma channel CUSTOM_CHAN3_DATA has released."));
}

TEST_F(StopSignal, NewObjectOfAStoppedProcessReceivesNothing) {
    const ChildResult child = Armed([this](IVexoZceMdApi&) {
        std::raise(SIGINT);
        IVexoZceMdApi* next = Started(4);
        EXPECT_EQ(next->VexoRecv(), -1);
        IVexoZceMdApi::DestroyVexoZceMdApi(*next);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

// ---- a broken pipe ----

int WriteToAClosedPipe() {
    int ends[2];
    if (::pipe(ends) != 0) return -1;
    ::close(ends[0]);
    const ssize_t written = ::write(ends[1], "x", 1);
    const int error = written < 0 ? errno : 0;
    ::close(ends[1]);
    return error;
}

TEST_F(StopSignal, BrokenPipeEndsTheProcessWhileNoMarketDataHasCome) {
    EXPECT_EQ(Receiving([](IVexoZceMdApi&) { WriteToAClosedPipe(); }).signal, SIGPIPE);
}

TEST_F(StopSignal, BrokenPipeIsAnErrorOnceMarketDataHasCome) {
    const ChildResult child = Armed([this](IVexoZceMdApi& api) {
        EXPECT_EQ(WriteToAClosedPipe(), EPIPE);
        Quote(3);
        EXPECT_EQ(api.VexoRecv(), 1);
    });
    EXPECT_TRUE(child.returned) << child.err;
    EXPECT_THAT(Warnings(child), IsEmpty());
}

// ---- a signal at a bad moment ----

/// "S" when the first thread of a process sleeps.
std::string StateOf(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/stat");
    std::string stat;
    std::getline(file, stat);
    const std::size_t name = stat.rfind(") ");
    return name != std::string::npos ? stat.substr(name + 2, 1) : "";
}

TEST_F(StopSignal, ErrnoOfTheInterruptedCodeSurvives) {
    const ChildResult child = Armed([](IVexoZceMdApi&) {
        ::close(STDOUT_FILENO);  // the handler's own write now fails
        errno = ERANGE;
        std::raise(SIGINT);
        EXPECT_EQ(errno, ERANGE);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_F(StopSignal, ArrivesWhileItsThreadHoldsTheLogLock) {
    const ChildResult child = Armed([](IVexoZceMdApi& api) {
        elog_mutex_lock();
        std::raise(SIGINT);
        elog_mutex_unlock();
        EXPECT_EQ(api.VexoRecv(), -1);
    });
    EXPECT_TRUE(child.returned) << child.err;
    EXPECT_THAT(Warnings(child), ElementsAre("WARN Received signal 2 !!"));
}

TEST_F(StopSignal, ArrivesWhileAnotherThreadHoldsTheLogLock) {
    const ChildResult child = Armed([](IVexoZceMdApi& api) {
        std::promise<void> locked;
        std::promise<void> raised;
        std::thread other([&] {
            elog_mutex_lock();
            locked.set_value();
            raised.get_future().wait();
            elog_mutex_unlock();
        });
        locked.get_future().wait();
        std::raise(SIGINT);
        EXPECT_EQ(api.VexoRecv(), -1);
        raised.set_value();
        other.join();
    });
    EXPECT_TRUE(child.returned) << child.err;
    EXPECT_THAT(Warnings(child), ElementsAre("WARN Received signal 2 !!"));
}

/// A pipe in the place of standard output, full and never read.
void StallStandardOutput() {
    int ends[2];
    if (::pipe2(ends, O_NONBLOCK) != 0) return;
    const std::string block(4096, '.');
    while (::write(ends[1], block.data(), block.size()) > 0) {
    }
    ::fcntl(ends[1], F_SETFL, 0);
    ::dup2(ends[1], STDOUT_FILENO);
}

// What waits for the reader here waits for ever.
TEST_F(StopSignal, OneEndsAProcessWhoseStandardOutputNobodyReads) {
    const ChildResult child = Armed([this](IVexoZceMdApi& api) {
        hw.counters[Stream(3)].packets = 1;
        StallStandardOutput();
        std::raise(SIGTERM);
        EXPECT_EQ(api.VexoRecv(), -1);
    });
    EXPECT_TRUE(child.returned) << child.err;
    EXPECT_THAT(dir.Read("fpga_" + day.Text() + ".log"),
                testing::HasSubstr("Received signal 15 !!\n[INFO   ][" + day.Text() +
                                   "-12:00:00][fpga][channel:3] DMA count info: backpress:0, dma2soft:1, fifo:0, "
                                   "error:0.\n[INFO   ][" +
                                   day.Text() + "-12:00:00][fpga]dma channel CUSTOM_CHAN3_DATA has released.\n"));
}

TEST_F(StopSignal, OneEndsALineThatWaitsForAReader) {
    const ChildResult child = Armed([](IVexoZceMdApi& api) {
        StallStandardOutput();
        std::atomic<bool> sent{false};
        std::thread sender([&sent, pid = ::getpid()] {
            while (!sent) {
                const std::string state = StateOf(pid);
                if (state == "S") sent = ::kill(pid, SIGTERM) == 0;
            }
        });
        elog_output(ELOG_LVL_INFO, "fpga", "SignalTest", "f", 1, "a line of the %s", "application");
        sender.join();
        EXPECT_EQ(api.VexoRecv(), -1);
    });
    EXPECT_TRUE(child.returned) << child.err;
    const std::string log = dir.Read("fpga_" + day.Text() + ".log");
    EXPECT_THAT(log, testing::HasSubstr("a line of the application\n"));
    const std::regex told("Received signal 15 !!\n");
    EXPECT_EQ(std::distance(std::sregex_iterator(log.begin(), log.end(), told), {}), 1);
}

// Wherever in the log core they strike, every line stays whole and nothing hangs.
TEST_F(StopSignal, ManyArriveWhileTheThreadLogs) {
    constexpr int kSignals = 2000;
    const ChildResult child = Armed([](IVexoZceMdApi&) {
        std::atomic<bool> done{false};
        const pthread_t logging = ::pthread_self();
        std::thread sender([&] {
            for (int i = 0; i < kSignals; ++i) ::pthread_kill(logging, i % 2 == 0 ? SIGINT : SIGTERM);
            done = true;
        });
        do {
            elog_output(ELOG_LVL_INFO, "fpga", "SignalTest", "f", 1, "a line of the %s", "application");
        } while (!done);
        sender.join();
    });
    EXPECT_TRUE(child.returned) << child.err;

    const std::string log = dir.Read("fpga_" + day.Text() + ".log");
    for (const std::string& text : {child.out, log}) {
        const std::string stamp = R"(\[)" + day.Text() + R"(-12:00:00\])";
        const std::regex whole(R"(\[(INFO   \])" + stamp + R"(\[(fpga|log)\].*|WARN   \])" + stamp +
                               R"(\[fpga\]Received signal (2|15) !!))");
        std::istringstream lines(text);
        std::size_t torn = 0;
        for (std::string line; std::getline(lines, line);) torn += std::regex_match(line, whole) ? 0 : 1;
        EXPECT_EQ(torn, 0U);
        EXPECT_THAT(text, testing::HasSubstr("a line of the application"));
        EXPECT_THAT(text, testing::HasSubstr("Received signal"));
    }
}

}  // namespace
