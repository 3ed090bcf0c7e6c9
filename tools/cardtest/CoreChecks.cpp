#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>

#include "tools/cardtest/CardUnderTest.h"
#include "tools/cardtest/Helper.h"

namespace cardtest {
namespace {

void treeHasRoot(const TestPlan& plan) {
    const MmioHandle mmio = openMmio(openCard(plan.bus));
    errno = 0;
    enyx_hw_core_tree* tree = enyx_hw_enumerate_cores(mmio.get());
    expect(tree != nullptr, "a core tree", "null, " + errnoText(errno));
    expect(enyx_hw_core_tree_get_root(tree) != nullptr, "a root core", "null, " + errnoText(errno));
}

void registerCoreIsFound(const TestPlan& plan) {
    const MmioHandle mmio = openMmio(openCard(plan.bus));
    enyx_hw_core* found[8] = {};
    errno = 0;
    const ssize_t count = enyx_hw_core_enumerate(rootOf(mmio.get()), kRegisterCoreId, found, 1);
    expect(count == 1 && found[0] != nullptr, "1 core of hardware id 474", resultText(count, errno));
}

void unknownCoreIsNone(const TestPlan& plan) {
    constexpr std::uint16_t kNoCore = 0xFFFF;
    const MmioHandle mmio = openMmio(openCard(plan.bus));
    enyx_hw_core* found[8] = {};
    errno = 0;
    const ssize_t count = enyx_hw_core_enumerate(rootOf(mmio.get()), kNoCore, found, 1);
    expect(count == 0, "0 cores of hardware id 65535", resultText(count, errno));
}

void lockAgain(const TestPlan& plan) {
    constexpr int kRounds = 1000;
    const RegisterCore registers(plan.bus);
    for (int round = 0; round < kRounds; ++round) {
        errno = 0;
        const int locked = enyx_hw_core_lock(registers.core());
        expect(locked == 0, "result 0 of a lock", resultText(locked, errno));
        const int unlocked = enyx_hw_core_unlock(registers.core());
        expect(unlocked == 0, "result 0 of an unlock", resultText(unlocked, errno));
    }
}

// A second thread that wants the lock. It is detached: when it never gets the lock, the check ends without it.
struct Waiter {
    std::atomic<long> thread{0};
    std::atomic<bool> locked{false};
    std::atomic<int> result{0};

    static std::shared_ptr<Waiter> start(enyx_hw_core* core) {
        auto waiter = std::make_shared<Waiter>();
        std::thread([waiter, core] {
            waiter->thread = syscall(SYS_gettid);
            waiter->result = enyx_hw_core_lock(core);
            waiter->locked = true;
            if (waiter->result == 0) enyx_hw_core_unlock(core);
        }).detach();
        return waiter;
    }

    bool isAsleep() const { return cardtest::isAsleep("self/task/" + std::to_string(thread)); }
};

void lockExcludesThreads(const TestPlan& plan) {
    const RegisterCore registers(plan.bus);
    std::shared_ptr<Waiter> waiter;
    {
        const HeldCoreLock lock(registers.core());
        waiter = Waiter::start(registers.core());
        // Once it sleeps inside the call it has had its chance, even on a busy machine.
        const std::int64_t watched = nowMs() + kWatchMs;
        within(kPatienceMs, [&] { return waiter->locked || (nowMs() >= watched && waiter->isAsleep()); });
        expect(!waiter->locked, "a thread that waits while another holds the lock",
               "it got " + resultText(waiter->result, 0));
    }
    expect(within(kPatienceMs, [&] { return waiter->locked.load(); }), "the lock, once it was given back",
           "the thread still waits");
    expect(waiter->result == 0, "result 0", resultText(waiter->result, errno));
}

}  // namespace

std::vector<Check> coreChecks() {
    constexpr const char* g = "cores and locks";
    return {
        {g, "core-root", "The register space has a core tree, and the tree a root.", treeHasRoot},
        {g, "core-registers", "Below the root is one core of hardware id 474, the registers.", registerCoreIsFound},
        {g, "core-unknown", "A hardware id that no core has is found 0 times.", unknownCoreIsNone},
        {g, "lock-again", "The core's lock is taken and given back with result 0, any number of times.", lockAgain},
        {g, "lock-threads", "The core's lock excludes other threads, and goes to the next one when it is given back.",
         lockExcludesThreads},
    };
}

}  // namespace cardtest
