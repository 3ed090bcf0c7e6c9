#include "sim/shm/Locks.h"

#include <unistd.h>

#include <cerrno>

namespace vexo_sim {
namespace {

thread_local std::int32_t t_threadId = 0;

// The kernel's number of the calling thread, asked once: a system call at each lock would cost more than the lock.
std::int32_t threadId() {
    static const int forgetsInChild = pthread_atfork(nullptr, nullptr, [] { t_threadId = 0; });
    if (t_threadId == 0 || forgetsInChild != 0) t_threadId = gettid();
    return t_threadId;
}

}  // namespace

void RobustMutex::init() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutex_init(&m_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

RobustMutex::Result RobustMutex::taken(int error) {
    if (error == 0) return kLocked;
    if (error == EBUSY) return kBusy;
    if (error == EOWNERDEAD && pthread_mutex_consistent(&m_mutex) == 0) return kHolderDied;
    return kFailed;
}

RobustMutex::Result RobustMutex::lock() { return taken(pthread_mutex_lock(&m_mutex)); }

RobustMutex::Result RobustMutex::tryLock() { return taken(pthread_mutex_trylock(&m_mutex)); }

void RobustMutex::unlock() { pthread_mutex_unlock(&m_mutex); }

void CoreLock::init() {
    m_mutex.init();
    m_holder = 0;
}

// A holder that died needs no repair: no register access is ever half done.
int CoreLock::lock() {
    if (m_mutex.lock() == RobustMutex::kFailed) return EDEADLK;
    m_holder = threadId();
    return 0;
}

int CoreLock::unlock() {
    if (m_holder != threadId()) return EPERM;
    m_holder = 0;
    m_mutex.unlock();
    return 0;
}

}  // namespace vexo_sim
