#pragma once

#include "log/ThreadMutex.h"

extern MOSK2::CThreadMutex g_log_mutex;  ///< held while a line is formatted and written

int elog_mutex_lock();
int elog_mutex_unlock();
