#include "src/log/ThreadMutex.h"

namespace MOSK2 {

CThreadMutex::CThreadMutex() { renew(); }

void CThreadMutex::renew() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

CThreadMutex::~CThreadMutex() { pthread_mutex_destroy(&m_mutex); }

int CThreadMutex::TryAcquire() { return pthread_mutex_trylock(&m_mutex); }

}  // namespace MOSK2
