#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace vexo_sim {

/// A mutex in memory that processes share. A holder that dies, thread or process, releases it.
class RobustMutex {
public:
    /// Call once, before anybody can see it. There is no counterpart: the memory is just given up.
    void init();

    enum Result { kLocked, kHolderDied, kBusy, kFailed };
    /// kHolderDied: locked too, and what it protects may be half changed. kFailed: the calling thread holds it already.
    Result lock();
    Result tryLock();
    void unlock();

private:
    Result taken(int error);

    pthread_mutex_t m_mutex;
};

/// The lock that a core itself offers its users: across threads and processes, and refusing a second lock by the
/// same thread instead of waiting for ever.
class CoreLock {
public:
    void init();
    /// 0 or an errno value.
    int lock();
    int unlock();

private:
    RobustMutex m_mutex;
    std::atomic<std::int32_t> m_holder;  // kept here too: sanitizers call a refused unlock a defect of the caller
};

}  // namespace vexo_sim
