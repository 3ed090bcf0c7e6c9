#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "VexoZceUtil.h"
#include "src/util/ForkSafe.h"
#include "src/util/LocalTime.h"
#include "tests/support/FakeTime.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/TimeZone.h"

namespace {

using test_support::FakeTime;
using test_support::TimeZone;

TEST(LocalTime, ATimeZoneThatIsSetWithoutTzsetShowsAtOnce) {
    FakeTime clock;
    clock.SetEpoch(1741039200);  // 2025-03-03 22:00:00 UTC
    local_time::now();

    const TimeZone zone("XST-9");

    EXPECT_EQ(local_time::date(local_time::now()), 20250304u);
    EXPECT_EQ(local_time::timeOfDay(local_time::now()), 70000u);
}

TEST(LocalTime, TheExportedFunctionsShowTheSameZone) {
    FakeTime clock;
    clock.SetEpoch(1741039200);
    const TimeZone zone("XST-9");
    unsigned long day = 20250303;

    EXPECT_EQ(CheckIsRotateDay(day), 1u);
    EXPECT_EQ(day, 20250304u);
    EXPECT_FALSE(ZceIsInTradeTime());
}

std::mutex g_mutex;
const fork_safe::Guard<g_mutex> g_guard(fork_safe::Rank::kCard);

// A child that finds the lock taken waits for ever.
TEST(ForkSafe, AChildFindsALockFreeThatAnotherThreadHeld) {
    if (kWithThreadSanitizer) GTEST_SKIP() << "the thread sanitizer does not follow a fork of several threads";
    std::atomic<bool> isHeld{false};
    std::atomic<bool> isForking{false};
    std::thread holder([&] {
        const std::lock_guard<std::mutex> lock(g_mutex);
        isHeld = true;
        while (!isForking) std::this_thread::yield();
        for (int i = 0; i < 1000; ++i) ::sched_yield();  // the fork begins meanwhile, or finds the lock free
    });
    while (!isHeld) std::this_thread::yield();
    isForking = true;
    const pid_t child = ::fork();
    if (child == 0) {
        g_mutex.lock();
        g_mutex.unlock();
        ::_exit(0);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    holder.join();
    EXPECT_TRUE(g_mutex.try_lock()) << "the parent has released it";
    g_mutex.unlock();
}

TEST(ForkSafe, AChildMayAskForTheLocalTimeWhileAThreadOfItsParentDid) {
    if (kWithThreadSanitizer) GTEST_SKIP() << "the thread sanitizer does not follow a fork of several threads";
    std::atomic<bool> done{false};
    std::thread asking([&done] {
        while (!done) local_time::now();
    });
    for (int i = 0; i < 100; ++i) {
        const pid_t child = ::fork();
        if (child == 0) ::_exit(local_time::now().tm_year > 100 ? 0 : 1);
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    done = true;
    asking.join();
}

}  // namespace
