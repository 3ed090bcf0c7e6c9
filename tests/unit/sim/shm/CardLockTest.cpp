// The locks of a card in shared memory, with real processes that die, stop and write nonsense.

#include <gmock/gmock.h>
#include <sys/mman.h>

#include <atomic>
#include <random>
#include <thread>

#include "tests/support/CaptureOutput.h"
#include "tests/unit/sim/shm/ShmFixture.h"

namespace vexo_sim {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
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
    EXPECT_EQ(card->locks().rootCore.lock([](pid_t, bool) {}),
              0);  // takes the first free slot, which was the dead one's
    EXPECT_EQ(card->locks().state.lock(), CardLock::kHolderDied);
}

// The lock of a stopped process, as a process that waits for it sees it.
struct StoppedHolder : ShmFixture {
    StoppedHolder() {
        EXPECT_TRUE(holder.IsReady());
        kill(holder.Id(), SIGSTOP);
    }
    void ExpectTold(test_support::CaptureOutput& output, const std::string& end) const {
        const std::string text = output.Stop();
        EXPECT_THAT(text,
                    AllOf(HasSubstr("test: process " + std::to_string(holder.Id()) + " ("),
                          HasSubstr("holds the simulated card at bus 0 and does not go on: was it stopped? " + end)));
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
    }
    Child holder{[this] { HoldState(*this); }};
};

TEST_F(StoppedHolder, LosesTheStateToTheNextAndIsNamedOnce) {
    const std::unique_ptr<SharedCard> card = Open();
    test_support::CaptureOutput output(STDERR_FILENO);
    for (const CardLock::Result expected : {CardLock::kTookOver, CardLock::kLocked, CardLock::kLocked}) {
        const StateLock lock(card->locks(), card->block().state);
        EXPECT_EQ(lock.result(), expected);
        card->tellOf(lock.result());
    }
    ExpectTold(output, "The others go on without it. When it goes on, its access fails (ECANCELED).\n");
    EXPECT_EQ(block->stateOwner.load(), 0U);
}

TEST_F(StoppedHolder, KeepsAProtectedLockAndMakesOthersFail) {
    const std::unique_ptr<SharedCard> card = Open();
    const std::uint64_t word = block->stateOwner | std::uint64_t{1} << 56;
    block->stateOwner = word;
    test_support::CaptureOutput output(STDERR_FILENO);
    for (int access = 0; access < 3; ++access) {
        const StateLock lock(card->locks(), card->block().state);
        EXPECT_FALSE(lock.owns());
        EXPECT_EQ(lock.result(), CardLock::kTimedOut);
        card->tellOf(lock.result());
    }
    EXPECT_EQ(block->stateOwner.load(), word) << "a failed lock was given back";
    ExpectTold(output, "Until it goes on or ends, accesses fail (ETIMEDOUT).\n");
    holder.Kill();
    EXPECT_EQ(card->locks().state.lock(), CardLock::kHolderDied);
}

TEST_F(StoppedHolder, KeepsItsLockWhenThereIsNoRoomToGoOnWithoutIt) {
    const std::unique_ptr<SharedCard> card = Open();
    const std::uint64_t word = block->stateOwner;
    block->places = ~std::uint32_t{0};  // the next number would be 0, which is the card's first place
    EXPECT_EQ(card->locks().state.lock(), CardLock::kTimedOut);
    EXPECT_EQ(block->stateOwner.load(), word);
    EXPECT_EQ(block->place.load(), 0U);
}

TEST_F(StoppedHolder, AProcessThatDiesWhileItTakesTheLockLeavesTheMoveToTheNext) {
    const std::unique_ptr<SharedCard> card = Open();
    holder.Kill();
    block->stateOwner = block->stateOwner | std::uint64_t{2} << 56;
    EXPECT_EQ(card->locks().state.lock(), CardLock::kTookOver);
    EXPECT_EQ(block->place.load(), 1U);
}

// What the process changes after it has lost the lock reaches nobody.
struct LostAccess : ShmFixture {
    // Changes a register of each kind for as long as it goes on, all in one access.
    static void WorkAndStop(const ShmFixture& card) {
        static std::unique_ptr<SharedCard> shared = card.Open();
        CardState& state = shared->block().state;
        StateLock lock(shared->locks(), state);
        Write(state, 1);
        raise(SIGSTOP);
        Write(state, 2);
        _exit(lock.release() ? 1 : 0);
    }
    static void Write(CardState& state, std::uint32_t value) {
        state.registers.stored[0x106] = value;
        state.tables[1].words[8191][63] = value;
        state.down[3].busySends = value;
        for (UpStreamState& stream : state.up) stream.errors = value;
    }
    static void Expect(const CardState& state, std::uint32_t value) {
        EXPECT_EQ(state.registers.stored[0x106], value);
        EXPECT_EQ(state.tables[1].words[8191][63], value);
        EXPECT_EQ(state.down[3].busySends, value);
        for (const UpStreamState& stream : state.up) EXPECT_EQ(stream.errors, value);
    }
    // @return its exit status
    int GoOn() const {
        int status = -1;
        kill(stopped, SIGCONT);
        waitpid(stopped, &status, 0);
        return status;
    }

    LostAccess() {
        stopped = fork();
        if (stopped == 0) WorkAndStop(*this);
        waitpid(stopped, nullptr, WUNTRACED);
    }
    pid_t stopped = 0;
};

TEST_F(LostAccess, IsSeenUpToTheStopByTheOthersAndFailsForTheProcessThatGoesOn) {
    const std::unique_ptr<SharedCard> card = Open();
    CardState& state = card->block().state;
    EXPECT_EQ(card->locks().state.lock(), CardLock::kTookOver);
    Expect(state, 1);
    Write(state, 3);
    EXPECT_TRUE(card->locks().state.unlock());
    EXPECT_EQ(GoOn(), 0) << "the process was told that its access counts";
    EXPECT_EQ(card->locks().state.lock(), CardLock::kLocked);
    Expect(state, 3);
}

TEST_F(LostAccess, IsFoundInItsNewPlaceByAProcessThatComesLater) {
    const std::unique_ptr<SharedCard> card = Open();
    EXPECT_EQ(card->locks().state.lock(), CardLock::kTookOver);
    Write(card->block().state, 3);
    card->locks().state.unlock();
    Child later([this] {
        const std::unique_ptr<SharedCard> own = Open();
        const StateLock lock(own->locks(), own->block().state);
        if (own->block().state.registers.stored[0x106] != 3) _exit(1);
        Write(own->block().state, 4);
    });
    EXPECT_TRUE(later.IsReady());
    EXPECT_EQ(GoOn(), 0);
    const StateLock lock(card->locks(), card->block().state);
    Expect(card->block().state, 4);
}

TEST_F(LostAccess, OfAHostilePlaceIsNotMapped) {
    const std::unique_ptr<SharedCard> card = Open();
    for (const std::uint32_t place : {1U, 1000U, ~std::uint32_t{0}}) {
        block->stateOwner = 0;
        block->place = place;
        EXPECT_EQ(card->locks().state.lock(), CardLock::kTimedOut) << place;
        EXPECT_EQ(block->stateOwner.load(), 0U);
    }
    block->place = 0;
    EXPECT_EQ(card->locks().state.lock(), CardLock::kLocked);
    kill(stopped, SIGKILL);
    waitpid(stopped, nullptr, 0);
}

// The state is what the last process that had the lock left, whoever was stopped and went on.
TEST_F(CardLockTest, ProcessesThatAreStoppedAtAnyMomentNeverLoseTheCountOfTheOthers) {
    constexpr int kRounds = 3;
    std::mt19937 random(11);
    const std::unique_ptr<SharedCard> card = Open();
    std::uint64_t* done = static_cast<std::uint64_t*>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const auto count = [&](int user) {
        const std::unique_ptr<SharedCard> own = Open();
        for (;;) {
            StateLock lock(own->locks(), own->block().state);
            if (!lock.owns()) _exit(1);
            const std::uint64_t next = own->block().state.down[user].bytes + 1;
            own->block().state.down[user].bytes = next;
            if (lock.release()) ++done[user];
        }
    };
    pid_t users[2];
    for (int user = 0; user < 2; ++user) {
        users[user] = fork();
        if (users[user] == 0) count(user);
    }
    const auto countOf = [&](int user) {
        StateLock lock(card->locks(), card->block().state);
        EXPECT_TRUE(lock.owns());
        return card->block().state.down[user].bytes;
    };
    for (int round = 0; round < kRounds; ++round) {
        const int user = round % 2;
        usleep(static_cast<useconds_t>(random() % 3000));
        kill(users[user], SIGSTOP);
        const std::uint64_t other = countOf(1 - user);
        while (countOf(1 - user) == other) usleep(100);
        kill(users[user], SIGCONT);
        const std::uint64_t own = countOf(user);
        while (countOf(user) == own) usleep(100);
    }
    for (const pid_t user : users) {
        kill(user, SIGKILL);
        waitpid(user, nullptr, 0);
    }
    for (int user = 0; user < 2; ++user) {
        EXPECT_GE(countOf(user), done[user]) << "an access that counted is gone";
        EXPECT_LE(countOf(user), done[user] + 1 + kRounds) << "accesses that did not count are there";
    }
    munmap(done, 4096);
}

TEST_F(CardLockTest, AWordThatNobodyCanHaveWrittenIsTakenOver) {
    const std::unique_ptr<SharedCard> card = Open();
    std::mt19937_64 random(20310305);
    for (int round = 0; round < 1000; ++round) {
        block->stateOwner = random() | 1;
        const CardLock::Result result = card->locks().state.lock();
        ASSERT_TRUE(result == CardLock::kHolderDied || result == CardLock::kTookOver) << result;
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
    const auto nobody = [](pid_t, bool) { ADD_FAILURE() << "no wait was long"; };
    EXPECT_EQ(lock.unlock(), EPERM);
    EXPECT_EQ(lock.lock(nobody), 0);
    EXPECT_EQ(lock.lock(nobody), EDEADLK);
    std::thread([&] { EXPECT_EQ(lock.unlock(), EPERM); }).join();
    EXPECT_EQ(lock.unlock(), 0);
}

TEST_F(CardLockTest, AStoppedProcessLosesItsCoreLockAndFindsOutWhenItGoesOn) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t holder = fork();
    if (holder == 0) {
        const std::unique_ptr<SharedCard> own = Open();
        CoreLock& lock = own->locks().registerCore;
        if (lock.lock([](pid_t, bool) {}) != 0 || lock.isLost()) _exit(1);
        raise(SIGSTOP);
        if (!lock.isLost()) _exit(2);
        if (lock.unlock() != ECANCELED || lock.isLost()) _exit(3);
        if (write(ready[1], "x", 1) != 1) _exit(4);
        _exit(lock.lock([](pid_t, bool) {}) == 0 ? 0 : 5);
    }
    waitpid(holder, nullptr, WUNTRACED);
    const std::unique_ptr<SharedCard> card = Open();
    CoreLock& lock = card->locks().registerCore;
    std::vector<pid_t> told;
    EXPECT_EQ(lock.lock([&](pid_t pid, bool isStopped) {
        EXPECT_TRUE(isStopped);
        told.push_back(pid);
    }),
              0);
    EXPECT_THAT(told, ElementsAre(holder));
    EXPECT_FALSE(lock.isLost());
    kill(holder, SIGCONT);
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    EXPECT_FALSE(lock.isLost()) << "the process has released a lock that it had lost";
    EXPECT_EQ(lock.unlock(), 0);
    int status = -1;
    waitpid(holder, &status, 0);
    EXPECT_EQ(status, 0);
    for (const int end : ready) close(end);
}

TEST_F(CardLockTest, AProcessThatOnlyWorksForLongKeepsItsCoreLock) {
    Child holder([this] {
        static std::unique_ptr<SharedCard> own = Open();
        if (own->locks().registerCore.lock([](pid_t, bool) {}) != 0) _exit(1);
    });
    ASSERT_TRUE(holder.IsReady());
    const std::unique_ptr<SharedCard> card = Open();
    std::vector<pid_t> told;
    EXPECT_EQ(card->locks().registerCore.lock([&](pid_t pid, bool isStopped) {
        EXPECT_FALSE(isStopped);
        told.push_back(pid);
        holder.Kill();
    }),
              0);
    EXPECT_EQ(told.size(), 1U);
}

TEST_F(CardLockTest, AThreadThatEndsGivesItsCoreLockUp) {
    const std::unique_ptr<SharedCard> card = Open();
    CoreLock& lock = card->locks().registerCore;
    std::thread([&] { EXPECT_EQ(lock.lock([](pid_t, bool) {}), 0); }).join();
    EXPECT_EQ(lock.lock([](pid_t, bool) {}), 0);
    EXPECT_EQ(lock.unlock(), 0);
}

TEST_F(CardLockTest, AChildOfForkOwnsNoneOfItsParentsLocks) {
    const std::unique_ptr<SharedCard> card = Open();
    ASSERT_EQ(card->locks().registerCore.lock([](pid_t, bool) {}), 0);
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
