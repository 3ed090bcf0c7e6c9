#pragma once

#include "src/log/ThreadMutex.h"

extern MOSK2::CThreadMutex g_log_mutex;  ///< held while a line is formatted and written

int elog_mutex_lock();
int elog_mutex_unlock();

/// Holds the log mutex for a scope. A thread that is cancelled inside the scope releases it too.
struct LogLock {
    LogLock() { g_log_mutex.Acquire(); }
    ~LogLock() { g_log_mutex.Release(); }
    LogLock(const LogLock&) = delete;
    LogLock& operator=(const LogLock&) = delete;
};
