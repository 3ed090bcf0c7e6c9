#include "src/log/ThreadMutex.h"

namespace MOSK2 {

CThreadMutex::CThreadMutex() { init(); }

// The child's thread has a new id, so it does not count as the owner and the release may fail. The thread sanitizer
// takes it for one all the same; without it, it would still see a locked mutex.
void CThreadMutex::releaseInChild() {
    Release();
    init();
}

void CThreadMutex::init() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

CThreadMutex::~CThreadMutex() { pthread_mutex_destroy(&m_mutex); }

int CThreadMutex::TryAcquire() { return pthread_mutex_trylock(&m_mutex); }

}  // namespace MOSK2
