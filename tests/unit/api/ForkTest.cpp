#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

#include "src/card/FpgaServ.h"

extern std::mutex g_brixLogInit_mutex;

namespace {

/// Returns when a thread of this process sleeps: it waits for a lock or for a child.
void WaitUntilAsleep(pid_t tid) {
    for (std::string state; state != "S";) {
        std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/stat");
        std::string stat;
        std::getline(file, stat);
        state = stat.substr(stat.rfind(") ") + 2, 1);
    }
}

class Locks : public testing::TestWithParam<std::mutex*> {};

// A child that finds the lock taken waits for ever.
TEST_P(Locks, AreFreeInAChildThatIsForkedWhileAnotherThreadHasThem) {
    std::mutex& mutex = *GetParam();
    const pid_t self = ::gettid();
    std::atomic<bool> isHeld{false};
    std::thread holder([&] {
        const std::lock_guard<std::mutex> lock(mutex);
        isHeld = true;
        WaitUntilAsleep(self);
    });
    while (!isHeld) std::this_thread::yield();

    const pid_t child = ::fork();
    if (child == 0) {
        mutex.lock();
        ::_exit(0);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    holder.join();

    EXPECT_EQ(status, 0);
    EXPECT_TRUE(mutex.try_lock()) << "free in the parent, too";
    mutex.unlock();
}

INSTANTIATE_TEST_SUITE_P(Fork, Locks, testing::Values(&Vexo2_U50::CZceFpgaServ::subscribe_mutex, &g_brixLogInit_mutex),
                         [](const auto& test) { return test.index == 0 ? "OfTheCard" : "OfTheLogsStart"; });

}  // namespace
