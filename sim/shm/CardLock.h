#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <utility>

#include "sim/shm/Holder.h"
#include "sim/shm/OwnerBook.h"
#include "sim/shm/StateHome.h"
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
    /// @p home  where the state lies that the lock protects; null when it protects no memory
    CardLock(OwnerBook& book, OwnerWord& word, std::atomic<std::uint64_t>& contended, StateHome* home = nullptr)
        : m_book(&book), m_word(&word), m_contended(&contended), m_home(home) {}

    enum Result {
        kLocked,
        kHolderDied,  // locked, and what it protects may be half changed
        kTookOver,    // locked: another process did not go on and has lost it
        kBusy,        // not locked
        kTimedOut,    // not locked: another process holds it and does not go on
        kDeadlock,    // not locked: the calling thread holds it already
        kFull,        // not locked: too many processes use the card
    };
    static bool isLocked(Result result) { return result <= kTookOver; }
    /// The errno value of a lock that failed.
    static int errorOf(Result result);

    Result tryLock() {
        const ThreadMutex::Result here = m_threads.tryLock();
        if (m_word == nullptr && here == ThreadMutex::kLocked) return kLocked;
        return finish(here, kOneTry, Holding::kOrdinary);
    }
    /// Waits without a limit for processes that take turns, and about two seconds for one that does not go on. Then it
    /// takes the lock of a state away from that process, and times out for any other lock.
    Result lock(Holding holding = Holding::kOrdinary) { return finish(m_threads.lock(), kPatience, holding); }
    /// False when another process has taken the lock away meanwhile: then what was done under it does not count.
    bool unlock() {
        const bool isOwn = m_word == nullptr || leave();
        m_threads.unlock();
        return isOwn;
    }
    /// Whether another process has taken the lock away. For the thread that locked it.
    bool isLost() const { return m_word != nullptr && m_word->load(std::memory_order_relaxed) != m_mine; }

    /// The process for which the last wait timed out. Nothing when it has died.
    std::optional<pid_t> stuckHolder() const;
    /// The same, but only once for each time that the process held the lock.
    std::optional<pid_t> stuckHolderOnce();
    /// After a wait timed out: takes the lock away from that process. kBusy when it has released the lock meanwhile.
    Result takeOver();

private:
    static constexpr std::uint32_t kOneTry = 1;
    static constexpr std::uint32_t kPatience = 3000;  // rounds with one and the same holder: 2 seconds and more

    Result finish(ThreadMutex::Result here, std::uint32_t rounds, Holding holding);
    Result enter(std::uint32_t rounds, Holding holding);
    Result tryEnter(bool looksForTheDead, Holding holding);
    Result replace(std::uint64_t word, Holding holding);
    Result moveState(std::uint64_t before);
    bool leave();

    ThreadMutex m_threads;
    OwnerBook* m_book = nullptr;
    OwnerWord* m_word = nullptr;  // in shared memory
    std::atomic<std::uint64_t>* m_contended = nullptr;
    StateHome* m_home = nullptr;
    std::uint64_t m_mine = 0;               // what m_word holds while this process has the lock
    std::atomic<std::uint64_t> m_stuck{0};  // the word of the last wait that timed out
    std::atomic<std::uint64_t> m_stuckToldOf{0};
};

/// The lock of a core, for its users. A thread cannot lock it twice, and only the thread that locked it can unlock it.
class CoreLock {
public:
    CoreLock() = default;
    CoreLock(OwnerBook& book, OwnerWord& word, std::atomic<std::uint64_t>& contended) : m_lock(book, word, contended) {}

    /// 0 or an errno value. After a wait of about two seconds it calls @p tell(pid_t holder, bool isStopped), once for
    /// each answer. It then takes the lock away from a process that was stopped, and goes on waiting for any other.
    template <typename Tell>
    int lock(Tell tell) {
        CardLock::Result result = m_lock.lock();
        bool told[2] = {};
        while (result == CardLock::kTimedOut) {
            const std::optional<pid_t> holder = m_lock.stuckHolder();
            const bool stopped = holder && isStopped(*holder);
            if (holder && !std::exchange(told[stopped ? 1 : 0], true)) tell(*holder, stopped);
            if (stopped) result = m_lock.takeOver();
            if (!stopped || result == CardLock::kBusy) result = m_lock.lock();
        }
        return taken(result);
    }
    /// 0 or an errno value: ECANCELED when another process has taken the lock away meanwhile.
    int unlock();
    /// Whether another process has taken the lock away from the calling thread: then it must not use the core.
    bool isLost() const;

private:
    int taken(CardLock::Result result);

    CardLock m_lock;
    std::atomic<std::int32_t> m_holder{0};  // thread
};

/// The locks of a card.
struct CardLocks {
    CardLocks() = default;
    CardLocks(OwnerBook& book, CardBlock& block, StateHome& home)
        : state(book, block.stateOwner, block.contended, &home),
          rootCore(book, block.rootOwner, block.contended),
          registerCore(book, block.registerOwner, block.contended) {}

    CardLock state;  // protects the card's state, except the reader's side of the rings
    CoreLock rootCore;
    CoreLock registerCore;
};

/// Exclusive use of a card's state. If a user died in the middle of a change, repairs what it left half done.
class StateLock {
public:
    StateLock(CardLocks& locks, CardState& state, Holding holding = Holding::kOrdinary)
        : StateLock(locks.state.lock(holding), locks, state) {}
    /// Does not wait.
    StateLock(CardLocks& locks, CardState& state, std::try_to_lock_t)
        : StateLock(locks.state.tryLock(), locks, state) {}
    ~StateLock() { release(); }
    StateLock(const StateLock&) = delete;
    StateLock& operator=(const StateLock&) = delete;

    /// False when the lock failed, or was released: leave the state alone then.
    bool owns() const { return m_owns; }
    CardLock::Result result() const { return m_result; }
    /// Ends the use. False when this process did not go on for seconds and another one took the lock away: nothing of
    /// what it changed counts.
    bool release() {
        if (!m_owns) return true;
        m_owns = false;
        return m_lock.unlock();
    }

private:
    StateLock(CardLock::Result result, CardLocks& locks, CardState& state)
        : m_lock(locks.state), m_result(result), m_owns(CardLock::isLocked(result)) {
        if (result == CardLock::kHolderDied) repair(state);
    }
    static void repair(CardState& state);

    CardLock& m_lock;
    CardLock::Result m_result;
    bool m_owns;
};

}  // namespace vexo_sim
