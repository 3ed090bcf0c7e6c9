#include "src/log/elog_mutex.h"

MOSK2::CThreadMutex g_log_mutex;

int elog_mutex_lock() { return g_log_mutex.Acquire(); }

int elog_mutex_unlock() { return g_log_mutex.Release(); }
