#include "src/log/elog_mutex.h"

#include "src/log/elog.h"
#include "src/util/ForkSafe.h"

MOSK2::CThreadMutex g_log_mutex;

namespace {

// The lock of standard output needs no help: the C library frees it in a child.
constexpr fork_safe::Actions kForkActions{[] { g_log_mutex.Acquire(); }, [] { g_log_mutex.Release(); },
                                          [] {
                                              g_log_mutex.releaseInChild();
                                              elog_renew_after_fork();
                                          }};
const struct ForkGuard {
    ForkGuard() { fork_safe::add(fork_safe::Rank::kLog, kForkActions); }
} s_forkGuard;

}  // namespace

int elog_mutex_lock() { return g_log_mutex.Acquire(); }

int elog_mutex_unlock() { return g_log_mutex.Release(); }
