// Every thread takes the library's locks in the order that docs/architecture.md lists.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "src/card/FpgaServ.h"
#include "src/log/elog_mutex.h"
#include "tests/integration/Scenario.h"
#include "tests/threads/FourChannels.h"
#include "tests/threads/LockRecorder.h"

namespace {

class LockOrder : public testing::Test {
protected:
    void SetUp() override {
        if (!lock_recorder::Works()) GTEST_SKIP() << "the thread sanitizer has its own functions for locks";
    }
};

// Takes all locks that the library has announced by now.
void Fork() {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(0);
    ::waitpid(child, nullptr, 0);
}

TEST_F(LockOrder, IsTheSameInEveryThread) {
    const scenario::DayFile dayFile(2066, 1, 12, false);
    const scenario::Outcome outcome = scenario::RunInChild([] {
        lock_recorder::Start();
        four_channels::Run();
        Fork();
        EXPECT_EQ(lock_recorder::Inversions(), std::vector<std::string>());
        // The run has really gone through them.
        EXPECT_TRUE(lock_recorder::WasTakenInside("g_brixLogInit_mutex", "s_mutex"));
        EXPECT_TRUE(lock_recorder::WasTakenInside("order_mutex", "subscribe_mutex"));
        EXPECT_TRUE(lock_recorder::WasTakenInside("subscribe_mutex", "core lock"));
        EXPECT_TRUE(lock_recorder::WasTakenInside("s_coreMutex", "g_log_mutex"));
        EXPECT_TRUE(lock_recorder::WasTakenInside("standard output", "g_log_mutex"));
        EXPECT_TRUE(lock_recorder::WasTakenInside("standard output", "s_mutex"));
        return 0;
    });

    EXPECT_EQ(outcome.exitStatus, 0);
}

TEST_F(LockOrder, AnInversionIsFound) {
    const scenario::Outcome outcome = scenario::RunInChild([] {
        lock_recorder::Start();
        {
            const LogLock log;
            ::flockfile(stdout);
            ::funlockfile(stdout);
        }
        {
            const LogLock log;
            const std::lock_guard<std::mutex> card(Vexo2_U50::CZceFpgaServ::subscribe_mutex);
        }
        EXPECT_EQ(lock_recorder::Inversions(), (std::vector<std::string>{"g_log_mutex before subscribe_mutex",
                                                                         "g_log_mutex before standard output"}));
        return 0;
    });

    EXPECT_EQ(outcome.exitStatus, 0);
}

}  // namespace
