#pragma once

#include <mutex>

/// Locks that a child of fork() finds free. Without this the child would get a copy of every lock as it was. A lock
/// that another thread held would stay locked for ever, because that thread is not in the child.
namespace fork_safe {

/// The order in which the library takes its locks, outermost first. fork() takes them in this order.
enum class Rank {
    kLogStart,
    kInstruments,
    kCard,
    kDriverUsers,
    kDriverStart,
    kCores,
    kLog,
    kLocalTime,
    kCount,
};

/// What fork() does with the lock of one rank.
struct Actions {
    void (*take)();     ///< before the fork: waits until no other thread holds the lock
    void (*release)();  ///< afterwards in the parent
    void (*renew)();    ///< afterwards in the child
};

/// One lock a rank. @p actions stays valid for ever.
void add(Rank rank, const Actions& actions);

/// Registers a std::mutex of static storage duration:
///     const fork_safe::Guard<s_mutex> s_forkGuard(fork_safe::Rank::kCard);
template <std::mutex& kMutex>
struct Guard {
    explicit Guard(Rank rank) { add(rank, kActions); }

    // The child's one thread is the copy of the one that took the lock, so it may release it. Making the mutex anew
    // would free it too, but the thread sanitizer would not see that.
    static constexpr Actions kActions{[] { kMutex.lock(); }, [] { kMutex.unlock(); }, [] { kMutex.unlock(); }};
};

}  // namespace fork_safe
