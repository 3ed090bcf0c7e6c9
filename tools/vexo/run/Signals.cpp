#include "tools/vexo/run/Signals.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "tools/vexo/Failure.h"

namespace vexo::run {
namespace {

// SIGABRT is how systemd's watchdog asks for a core dump: of the application, not of its supervisor.
constexpr int kPassedOn[] = {SIGTERM, SIGINT, SIGQUIT, SIGHUP, SIGABRT, SIGUSR1, SIGUSR2};
constexpr unsigned kStops[] = {SIGTERM, SIGINT, SIGQUIT, SIGHUP};

// As nohup leaves SIGHUP.
bool isIgnored(int signal) {
    struct sigaction action {};
    return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

Signals::Signals(std::initializer_list<int> more) {
    sigset_t all;
    sigemptyset(&all);
    sigaddset(&all, SIGCHLD);
    for (const int one : more) sigaddset(&all, one);
    for (const int one : kPassedOn)
        if (!isIgnored(one)) sigaddset(&all, one);
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    ::sigaction(SIGCHLD, &action, nullptr);  // where it is ignored, a child leaves no status
    action.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &action, &m_pipeBefore);
    ::sigprocmask(SIG_BLOCK, &all, &m_before);
    m_fd = ::signalfd(-1, &all, SFD_CLOEXEC | SFD_NONBLOCK);
    if (m_fd < 0) throw Failure(kFinding, std::string("no descriptor for signals: ") + std::strerror(errno));
}

Signals::~Signals() {
    ::close(m_fd);
    restore();
}

void Signals::restore() const {
    ::sigaction(SIGPIPE, &m_pipeBefore, nullptr);
    ::sigprocmask(SIG_SETMASK, &m_before, nullptr);
}

std::optional<signalfd_siginfo> Signals::wait(double seconds) {
    pollfd waiting{m_fd, POLLIN, 0};
    ::poll(&waiting, 1, static_cast<int>(std::min(std::ceil(seconds * 1000), 1e9)));
    signalfd_siginfo signal;
    if (::read(m_fd, &signal, sizeof signal) != sizeof signal) return std::nullopt;
    return signal;
}

bool isStop(unsigned signal) { return std::find(std::begin(kStops), std::end(kStops), signal) != std::end(kStops); }

bool isFromTerminal(const signalfd_siginfo& signal) { return signal.ssi_code == SI_KERNEL; }

}  // namespace vexo::run
