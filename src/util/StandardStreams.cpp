#include "src/util/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace standard_streams {

std::atomic<bool> g_isClosed[3]{};

namespace {

constexpr int kCount = STDERR_FILENO + 1;

bool isStandard(int fd) { return fd >= 0 && fd < kCount; }

// Runs before main and before other constructors, so that nobody has yet opened a file with a number that the parent
// left closed.
__attribute__((constructor(101))) void lookAtLoad() { noteClosed(); }

}  // namespace

int moveAbove(int fd) {
    if (!isStandard(fd)) return fd;
    const int above = ::fcntl(fd, F_DUPFD_CLOEXEC, kCount);
    const int why = errno;
    ::close(fd);
    errno = why;
    return above;
}

void noteClosed() {
    const int saved = errno;
    for (int fd = 0; fd < kCount; ++fd) {
        if (::fcntl(fd, F_GETFD) < 0 && errno == EBADF) noteClosed(fd);
    }
    errno = saved;
}

void noteClosed(int fd) {
    if (isStandard(fd)) g_isClosed[fd].store(true, std::memory_order_relaxed);
}

int print(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    const int length = isOurs(STDOUT_FILENO) ? std::vprintf(format, args) : std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    return length;
}

void printError(const char* format, ...) {
    if (!isOurs(STDERR_FILENO)) return;
    std::va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
}

}  // namespace standard_streams
