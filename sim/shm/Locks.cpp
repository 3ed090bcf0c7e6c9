#include "shm/Locks.h"

#include <cerrno>

namespace vexo_sim {
namespace {

// Of the calling thread, in its process. Its kernel id would take a system call.
std::uintptr_t threadMark() {
    thread_local char mark;
    return reinterpret_cast<std::uintptr_t>(&mark);
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

int RobustMutex::unlock() { return pthread_mutex_unlock(&m_mutex); }

void CoreLock::init() {
    m_mutex.init();
    m_holder = 0;
}

// A holder that died needs no repair: no register access is ever half done.
int CoreLock::lock() {
    if (m_mutex.lock() == RobustMutex::kFailed) return EDEADLK;
    m_holder = threadMark();
    return 0;
}

int CoreLock::unlock() {
    if (m_holder != threadMark()) return EPERM;
    m_holder = 0;
    const int error = m_mutex.unlock();
    if (error != 0) m_holder = threadMark();
    return error;
}

}  // namespace vexo_sim
