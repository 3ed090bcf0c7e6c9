#include "src/api/SignalProcess.h"

#include <cerrno>
#include <cstring>

#include "src/log/StandardWrite.h"
#include "src/log/log.h"

std::atomic<bool> CSignalProcess::m_isExit{false};

static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

namespace {

constexpr char kLogFile[] = "SignalProcess";

// Record with everything cleared; SIGPIPE's ignore goes in with the flags of the others.
struct sigaction emptyAction() {
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_SIGINFO;
    return action;
}

}  // namespace

int CSignalProcess::InitSignal() {
    struct sigaction stop = emptyAction();
    stop.sa_sigaction = SignalHandler;
    if (::sigaction(SIGINT, &stop, nullptr) != 0) {
        LOG_ERROR("Failed to install SIGINT handle! msg:%s.", std::strerror(errno));
        return -1;
    }
    if (::sigaction(SIGTERM, &stop, nullptr) != 0) {
        LOG_ERROR("Failed to install SIGTERM handle! msg:%s.", std::strerror(errno));
        return -1;
    }
    struct sigaction ignore = emptyAction();
    ignore.sa_handler = SIG_IGN;
    if (::sigaction(SIGPIPE, &ignore, nullptr) != 0) {
        LOG_ERROR("Failed to install SIGPIPE handle! msg:%s.", std::strerror(errno));
        return -1;
    }
    return 0;
}

void CSignalProcess::SignalHandler(int sig, siginfo_t* info, void* ctx) {
    if (!standard_write::stopFromHandler(sig, info, ctx)) return;
    elog_output_from_handler(ELOG_LVL_WARN, "fpga", kLogFile, __func__, __LINE__, "Received signal %d !!", sig);
    m_isExit.store(true, std::memory_order_relaxed);
}
