#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>

#include "sim/shm/OwnerBook.h"
#include "sim/shm/ThreadMutex.h"

namespace vexo_sim {

/// Excludes the other threads of this process and, on a card in shared memory, the other processes. Threads exclude
/// each other by a mutex in this process's own memory, processes by an owner word in shared memory. When the holder
/// dies, a thread or a process, the lock is released.
class CardLock {
public:
    /// The lock of a card in this process's own memory.
    CardLock() = default;
    /// The lock of a card in shared memory. @p contended counts how often a process found it taken.
    CardLock(OwnerBook& book, OwnerWord& word, std::atomic<std::uint64_t>& contended)
        : m_book(&book), m_word(&word), m_contended(&contended) {}

    enum Result {
        kLocked,
        kHolderDied,  // locked, and what it protects may be half changed
        kBusy,        // not locked
        kTimedOut,    // not locked: another process holds it and does not go on
        kDeadlock,    // not locked: the calling thread holds it already
        kFull,        // not locked: too many processes use the card
    };
    static bool isLocked(Result result) { return result <= kHolderDied; }
    /// The errno value of a lock that failed.
    static int errorOf(Result result);

    Result tryLock() {
        const ThreadMutex::Result here = m_threads.tryLock();
        if (m_word == nullptr && here == ThreadMutex::kLocked) return kLocked;
        return finish(here, kOneTry);
    }
    /// Waits at most a few seconds for a process that is stopped, and without a limit for all others.
    Result lock() { return finish(m_threads.lock(), kPatience); }
    /// Waits as long as it takes.
    Result lockPatiently() { return finish(m_threads.lock(), 0); }
    void unlock() {
        if (m_word != nullptr) leave();
        m_threads.unlock();
    }

    /// After kTimedOut: the process that holds the lock too long. Reports each such hold once. Nothing when it was
    /// reported before, or the process has released the lock.
    std::optional<pid_t> stuckHolder();

private:
    static constexpr std::uint32_t kOneTry = 1;
    static constexpr std::uint32_t kPatience = 3000;  // rounds with one and the same holder: 2 seconds and more

    Result finish(ThreadMutex::Result here, std::uint32_t rounds);
    Result enter(std::uint32_t rounds);
    Result tryEnter(bool looksForTheDead);
    void leave();

    ThreadMutex m_threads;
    OwnerBook* m_book = nullptr;
    OwnerWord* m_word = nullptr;  // in shared memory
    std::atomic<std::uint64_t>* m_contended = nullptr;
    std::uint64_t m_mine = 0;                 // what m_word holds while this process has the lock
    std::atomic<std::uint64_t> m_stuckAt{0};  // the word of the last wait that timed out: the next wait for it is short
    std::atomic<std::uint64_t> m_stuckToldOf{0};
};

/// The lock of a core, for its users. A thread cannot lock it twice, and only the thread that locked it can unlock it.
class CoreLock {
public:
    CoreLock() = default;
    CoreLock(OwnerBook& book, OwnerWord& word, std::atomic<std::uint64_t>& contended) : m_lock(book, word, contended) {}

    /// 0 or an errno value. Calls @p tellHolder(pid_t) once when it waits long for another process.
    template <typename TellHolder>
    int lock(TellHolder tellHolder) {
        CardLock::Result result = m_lock.lock();
        if (result == CardLock::kTimedOut) {
            if (const std::optional<pid_t> holder = m_lock.stuckHolder()) tellHolder(*holder);
            result = m_lock.lockPatiently();
        }
        return taken(result);
    }
    int unlock();

private:
    int taken(CardLock::Result result);

    CardLock m_lock;
    std::atomic<std::int32_t> m_holder{0};  // thread
};

/// The locks of a card.
struct CardLocks {
    CardLocks() = default;
    CardLocks(OwnerBook& book, CardBlock& block)
        : state(book, block.stateOwner, block.contended),
          rootCore(book, block.rootOwner, block.contended),
          registerCore(book, block.registerOwner, block.contended) {}

    CardLock state;  // protects the card's state, except the reader's side of the rings
    CoreLock rootCore;
    CoreLock registerCore;
};

/// Exclusive use of a card's state. If a user died in the middle of a change, repairs what it left half done.
class StateLock {
public:
    StateLock(CardLocks& locks, CardState& state) : StateLock(locks.state.lock(), locks, state) {}
    /// Does not wait.
    StateLock(CardLocks& locks, CardState& state, std::try_to_lock_t)
        : StateLock(locks.state.tryLock(), locks, state) {}
    ~StateLock() {
        if (owns()) m_lock.unlock();
    }
    StateLock(const StateLock&) = delete;
    StateLock& operator=(const StateLock&) = delete;

    /// False when the lock failed: leave the state alone then.
    bool owns() const { return CardLock::isLocked(m_result); }
    CardLock::Result result() const { return m_result; }

private:
    StateLock(CardLock::Result result, CardLocks& locks, CardState& state) : m_lock(locks.state), m_result(result) {
        if (result == CardLock::kHolderDied) repair(state);
    }
    static void repair(CardState& state);

    CardLock& m_lock;
    CardLock::Result m_result;
};

}  // namespace vexo_sim
