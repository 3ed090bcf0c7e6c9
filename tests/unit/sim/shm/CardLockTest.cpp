// The locks of a card in shared memory, with real processes that die, stop and write nonsense.

#include <gmock/gmock.h>

#include <atomic>
#include <random>
#include <thread>

#include "tests/support/CaptureOutput.h"
#include "tests/unit/sim/shm/ShmFixture.h"

namespace vexo_sim {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using CardLockTest = ShmFixture;

// Takes the lock over the card's state and keeps it.
void HoldState(const ShmFixture& card) {
    static std::unique_ptr<SharedCard> shared = card.Open();
    if (shared->locks().state.lock() != CardLock::kLocked) _exit(1);
}

TEST_F(CardLockTest, AFreeLockIsTakenAndGivenBack) {
    const std::unique_ptr<SharedCard> card = Open();
    EXPECT_EQ(card->locks().state.lock(), CardLock::kLocked);
    EXPECT_NE(block->stateOwner.load(), 0U);
    card->locks().state.unlock();
    EXPECT_EQ(block->stateOwner.load(), 0U);
}

TEST_F(CardLockTest, AnotherProcessIsExcludedUntilItIsGivenBack) {
    Child holder([this] { HoldState(*this); });
    ASSERT_TRUE(holder.IsReady());
    const std::unique_ptr<SharedCard> card = Open();
    EXPECT_EQ(card->locks().state.tryLock(), CardLock::kBusy);
    EXPECT_EQ(card->locks().state.tryLock(), CardLock::kBusy) << "a failed lock was given back";
}

TEST_F(CardLockTest, AHolderThatWasKilledGivesItUpAndTheNextOneIsTold) {
    Child holder([this] { HoldState(*this); });
    ASSERT_TRUE(holder.IsReady());
    holder.Kill();
    const std::unique_ptr<SharedCard> card = Open();
    EXPECT_EQ(card->locks().state.lock(), CardLock::kHolderDied);
    card->locks().state.unlock();
    EXPECT_EQ(card->locks().state.lock(), CardLock::kLocked);
    card->locks().state.unlock();
}

TEST_F(CardLockTest, AProcessThatTakesTheSlotOfADeadHolderIsNotMistakenForIt) {
    Child holder([this] { HoldState(*this); });
    holder.Kill();
    const std::unique_ptr<SharedCard> card = Open();
    EXPECT_EQ(card->locks().rootCore.lock([](pid_t) {}), 0);  // takes the first free slot, which was the dead one's
    EXPECT_EQ(card->locks().state.lock(), CardLock::kHolderDied);
}

TEST_F(CardLockTest, AHolderThatWasStoppedMakesOthersFailAfterAWhileAndIsNamedOnce) {
    Child holder([this] { HoldState(*this); });
    ASSERT_TRUE(holder.IsReady());
    kill(holder.Id(), SIGSTOP);
    const std::unique_ptr<SharedCard> card = Open();
    const std::uint64_t word = block->stateOwner;
    test_support::CaptureOutput output(STDERR_FILENO);
    for (int access = 0; access < 3; ++access) {
        const StateLock lock(card->locks(), block->state);
        EXPECT_FALSE(lock.owns());
        EXPECT_EQ(lock.result(), CardLock::kTimedOut);
        card->tellStuckHolder();
    }
    EXPECT_EQ(block->stateOwner.load(), word) << "a failed lock was given back";
    const std::string text = output.Stop();
    EXPECT_THAT(text, AllOf(HasSubstr("test: process " + std::to_string(holder.Id()) + " ("),
                            HasSubstr("holds the simulated card at bus 0 and does not go on")));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
    holder.Kill();
    EXPECT_EQ(card->locks().state.lock(), CardLock::kHolderDied);
}

TEST_F(CardLockTest, AWordThatNobodyCanHaveWrittenIsTakenOver) {
    const std::unique_ptr<SharedCard> card = Open();
    std::mt19937_64 random(20310305);
    for (int round = 0; round < 1000; ++round) {
        block->stateOwner = random() | 1;
        ASSERT_EQ(card->locks().state.lock(), CardLock::kHolderDied);
        card->locks().state.unlock();
    }
}

TEST_F(CardLockTest, WhoeverOverwritesTheWordOfAHolderCannotMakeItReleaseAnothersLock) {
    const std::unique_ptr<SharedCard> card = Open();
    ASSERT_EQ(card->locks().state.lock(), CardLock::kLocked);
    block->stateOwner = 0x1234;
    card->locks().state.unlock();
    EXPECT_EQ(block->stateOwner.load(), 0x1234U);
}

TEST_F(CardLockTest, ProcessesAndThreadsTakeTurns) {
    constexpr std::uint64_t kRounds = 2000;
    const auto work = [this](SharedCard& card) {
        for (std::uint64_t round = 0; round < kRounds; ++round) {
            const StateLock lock(card.locks(), card.block().state);
            if (!lock.owns()) _exit(1);
            std::uint64_t& counter = card.block().state.down[0].bytes;
            const std::uint64_t before = counter;
            if (round % 64 == 0) sched_yield();
            counter = before + 1;
        }
    };
    {
        Child other([&] { work(*Open()); });
        ASSERT_TRUE(other.IsReady());
    }
    Child first([&] { work(*Open()); });
    const std::unique_ptr<SharedCard> card = Open();
    std::thread thread([&] { work(*card); });
    work(*card);
    thread.join();
    EXPECT_TRUE(first.IsReady());
    EXPECT_EQ(block->state.down[0].bytes, 4 * kRounds);
}

TEST_F(CardLockTest, AProcessThatWasKilledAtAnyMomentNeverLeavesItStuck) {
    std::mt19937 random(7);
    const std::unique_ptr<SharedCard> card = Open();
    for (int round = 0; round < 100; ++round) {
        std::unique_ptr<Child> user;
        const pid_t pid = fork();
        if (pid == 0) {
            const std::unique_ptr<SharedCard> own = Open();
            for (;;) {
                const StateLock lock(own->locks(), own->block().state);
                if (!lock.owns()) _exit(1);
            }
        }
        usleep(static_cast<useconds_t>(random() % 3000));
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        ASSERT_TRUE(CardLock::isLocked(card->locks().state.lock()));
        card->locks().state.unlock();
    }
}

TEST_F(CardLockTest, ACoreLockIsRefusedToItsHolderAndItsUnlockToOthers) {
    const std::unique_ptr<SharedCard> card = Open();
    CoreLock& lock = card->locks().registerCore;
    const auto nobody = [](pid_t) { ADD_FAILURE() << "no wait was long"; };
    EXPECT_EQ(lock.unlock(), EPERM);
    EXPECT_EQ(lock.lock(nobody), 0);
    EXPECT_EQ(lock.lock(nobody), EDEADLK);
    std::thread([&] { EXPECT_EQ(lock.unlock(), EPERM); }).join();
    EXPECT_EQ(lock.unlock(), 0);
}

TEST_F(CardLockTest, AThreadThatEndsGivesItsCoreLockUp) {
    const std::unique_ptr<SharedCard> card = Open();
    CoreLock& lock = card->locks().registerCore;
    std::thread([&] { EXPECT_EQ(lock.lock([](pid_t) {}), 0); }).join();
    EXPECT_EQ(lock.lock([](pid_t) {}), 0);
    EXPECT_EQ(lock.unlock(), 0);
}

TEST_F(CardLockTest, AChildOfForkOwnsNoneOfItsParentsLocks) {
    const std::unique_ptr<SharedCard> card = Open();
    ASSERT_EQ(card->locks().registerCore.lock([](pid_t) {}), 0);
    const std::uint64_t word = block->registerOwner;
    const pid_t child = fork();
    if (child == 0) _exit(card->locks().registerCore.unlock() == EPERM ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(block->registerOwner.load(), word);
    EXPECT_EQ(card->locks().registerCore.unlock(), 0);
}

TEST(OwnCardLock, AChildOfForkFindsItFreeWhateverThreadHeldIt) {
    CardLocks locks;
    std::atomic<int> step{0};
    std::thread holder([&] {
        EXPECT_EQ(locks.state.lock(), CardLock::kLocked);
        step = 1;
        while (step != 2) sched_yield();
        locks.state.unlock();
    });
    while (step != 1) sched_yield();
    const pid_t child = fork();
    if (child == 0) _exit(locks.state.tryLock() == CardLock::kHolderDied ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    step = 2;
    holder.join();
}

}  // namespace
}  // namespace vexo_sim
