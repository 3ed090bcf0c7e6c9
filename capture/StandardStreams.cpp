#include "capture/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace capture {
namespace {

bool isFree(int fd) { return ::fcntl(fd, F_GETFD) < 0; }

bool g_isErrorClosed = false;

// Before main and before other constructors: nobody has had a chance to open a file under the number.
__attribute__((constructor(101))) void lookAtLoad() { g_isErrorClosed = isFree(STDERR_FILENO); }

}  // namespace

StandardNumbersTaken::StandardNumbersTaken() {
    for (int& fd : m_fds) {
        const auto number = static_cast<int>(&fd - m_fds);
        fd = isFree(number) ? ::open("/", O_PATH | O_CLOEXEC) : -1;
    }
}

StandardNumbersTaken::~StandardNumbersTaken() {
    for (const int fd : m_fds) {
        if (fd >= 0) ::close(fd);
    }
}

namespace {

sigset_t onlyPipe() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

bool isPending() {
    sigset_t pending;
    return ::sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
}

}  // namespace

NoPipeSignal::NoPipeSignal() : m_wasPending(isPending()) {
    const sigset_t pipe = onlyPipe();
    ::pthread_sigmask(SIG_BLOCK, &pipe, &m_before);
}

// A signal that a write has raised is taken away. One that was pending before is the application's.
NoPipeSignal::~NoPipeSignal() {
    const int error = errno;
    const sigset_t pipe = onlyPipe();
    const timespec atOnce{};
    while (!m_wasPending && isPending() && ::sigtimedwait(&pipe, nullptr, &atOnce) < 0 && errno == EINTR) {
    }
    ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    errno = error;
}

void printError(const char* format, ...) {
    if (g_isErrorClosed) return;
    const NoPipeSignal quiet;
    std::va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
}

}  // namespace capture
