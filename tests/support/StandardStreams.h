#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

namespace test_support {

/// What @p act returns in a fork that has closed a subset of its standard streams, bit n for descriptor n; -1 when it
/// does not return.
inline int InProcessWithout(unsigned int streams, const std::function<int()>& act) {
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        for (int fd = 0; fd < 3; ++fd) {
            if ((streams >> fd & 1) != 0) ::close(fd);
        }
        ::_exit(act());
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

constexpr unsigned int kAllStandardStreams = 7;

/// Whether nobody has taken the numbers of the streams that were closed. Takes them itself: to be called last.
inline bool AreStandardNumbersFree() {
    for (int fd = 0; fd < 3; ++fd) {
        if (::open("/dev/null", O_RDONLY) != fd) return false;
    }
    return true;
}

}  // namespace test_support
