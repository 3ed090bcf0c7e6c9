#pragma once

#include <pthread.h>

#include <cstdint>

namespace vexo_sim {

/// The number of forks between the first ancestor and this process. A parent and its child never have the same number.
std::uint32_t forkGeneration();

/// A mutex of the threads of one process, in the process's own memory. A thread that ends releases it. A child of
/// fork() finds it free.
class ThreadMutex {
public:
    ThreadMutex();
    ~ThreadMutex();
    ThreadMutex(const ThreadMutex&) = delete;
    ThreadMutex& operator=(const ThreadMutex&) = delete;

    enum Result { kLocked, kHolderDied, kBusy, kFailed };
    /// kHolderDied: locked too, and what it protects may be half changed. kFailed: the calling thread holds it already.
    Result lock() { return taken(pthread_mutex_lock(&m_mutex)); }
    Result tryLock() { return taken(pthread_mutex_trylock(&m_mutex)); }
    void unlock() { pthread_mutex_unlock(&m_mutex); }

private:
    friend struct AllMutexes;

    Result taken(int error) { return error == 0 && !m_leftByParent ? kLocked : takenRarely(error); }
    Result takenRarely(int error);
    void init();
    void resetInChild();

    pthread_mutex_t m_mutex;
    bool m_leftByParent = false;  // in a child of fork(): a thread that the child does not have held it
    ThreadMutex* m_next = nullptr;
};

}  // namespace vexo_sim
