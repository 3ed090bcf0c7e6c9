#pragma once

#include <pthread.h>

namespace MOSK2 {

/// A recursive POSIX mutex: the thread that holds it may lock it again without blocking, so a message logged
/// while the log or a card cache is locked cannot deadlock its own thread.
/// Every operation returns the system's result, 0 on success.
class CThreadMutex {
public:
    CThreadMutex();
    ~CThreadMutex();
    CThreadMutex(const CThreadMutex&) = delete;
    CThreadMutex& operator=(const CThreadMutex&) = delete;

    int Acquire() { return pthread_mutex_lock(&m_mutex); }
    int TryAcquire();  ///< non-zero at once when another thread holds it
    int Release() { return pthread_mutex_unlock(&m_mutex); }
    /// Frees the mutex in a child of fork(), whose parent's thread took it for the fork.
    void releaseInChild();

private:
    void init();

    pthread_mutex_t m_mutex;
};

/// Holds a CThreadMutex for a scope.
class CThreadGuard {
public:
    explicit CThreadGuard(CThreadMutex& mutex) : m_mutex(mutex) { m_mutex.Acquire(); }
    ~CThreadGuard() { m_mutex.Release(); }
    CThreadGuard(const CThreadGuard&) = delete;
    CThreadGuard& operator=(const CThreadGuard&) = delete;

private:
    CThreadMutex& m_mutex;
};

}  // namespace MOSK2
