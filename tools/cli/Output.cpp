#include "tools/cli/Output.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

namespace cli {
namespace {

// The error of the call that failed may be lost by now: stdio keeps only that there was one. What has been written is
// not whole, so one more line feed does no harm: it fails as the call before did.
int causeOfFault() {
    if (::write(STDOUT_FILENO, "\n", 1) < 0) return errno;
    return EIO;
}

}  // namespace

void guardStandardStreams() {
    for (const int number : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(number, F_GETFD) >= 0) continue;
        // The lowest free number is this one: those below are taken. The wrong way round, so that its use fails.
        [[maybe_unused]] const int fd = ::open("/dev/null", (number == STDIN_FILENO ? O_WRONLY : O_RDONLY) | O_CLOEXEC);
    }
}

std::string faultOfOutput(int error) {
    return std::string("standard output: ") + (error == EBADF ? "it is closed" : std::strerror(error));
}

std::string faultOfOutput() {
    std::cout.flush();
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0 && std::cout.good()) return {};
    return faultOfOutput(causeOfFault());
}

}  // namespace cli
