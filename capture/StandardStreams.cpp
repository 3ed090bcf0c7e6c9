#include "capture/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>
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

void printError(const char* format, ...) {
    if (g_isErrorClosed) return;
    std::va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
}

}  // namespace capture
