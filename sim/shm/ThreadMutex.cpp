#include "sim/shm/ThreadMutex.h"

#include <cerrno>
#include <mutex>

namespace vexo_sim {

// All mutexes of the process. Never destroyed: a program's last destructors may still make calls.
struct AllMutexes {
    std::mutex mutex;
    ThreadMutex* first = nullptr;
    std::uint32_t generation = 0;

    AllMutexes() { pthread_atfork(beforeFork, afterForkInParent, afterForkInChild); }

    static AllMutexes& instance() {
        static AllMutexes& all = *new AllMutexes;
        return all;
    }
    static void beforeFork() { instance().mutex.lock(); }
    static void afterForkInParent() { instance().mutex.unlock(); }
    static void afterForkInChild() {
        AllMutexes& all = instance();
        ++all.generation;
        for (ThreadMutex* one = all.first; one != nullptr; one = one->m_next) one->resetInChild();
        all.mutex.unlock();
    }
};

std::uint32_t forkGeneration() { return AllMutexes::instance().generation; }

ThreadMutex::ThreadMutex() {
    init();
    AllMutexes& all = AllMutexes::instance();
    const std::lock_guard<std::mutex> lock(all.mutex);
    m_next = all.first;
    all.first = this;
}

ThreadMutex::~ThreadMutex() {
    AllMutexes& all = AllMutexes::instance();
    const std::lock_guard<std::mutex> lock(all.mutex);
    ThreadMutex** place = &all.first;
    while (*place != this) place = &(*place)->m_next;
    *place = m_next;
}

void ThreadMutex::init() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&m_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

void ThreadMutex::resetInChild() {
    if (pthread_mutex_trylock(&m_mutex) == 0)
        pthread_mutex_unlock(&m_mutex);
    else
        m_leftByParent = true;
    init();
}

ThreadMutex::Result ThreadMutex::takenRarely(int error) {
    if (error == EBUSY) return kBusy;
    const bool died = error == EOWNERDEAD && pthread_mutex_consistent(&m_mutex) == 0;
    if (error != 0 && !died) return kFailed;
    m_leftByParent = false;
    return kHolderDied;
}

}  // namespace vexo_sim
