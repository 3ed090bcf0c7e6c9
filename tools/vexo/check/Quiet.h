#pragma once

#include <fcntl.h>
#include <unistd.h>
#include <cstdio>

namespace vexo::check {

/// While it lives, nothing reaches standard error: the library's checks and the commands that they start complain
/// there, and the report says the same in its own words.
class Quiet {
public:
    Quiet() : m_saved(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
        std::fflush(stderr);
        const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (m_saved >= 0 && nowhere >= 0) ::dup2(nowhere, STDERR_FILENO);
        if (nowhere >= 0) ::close(nowhere);
    }
    ~Quiet() {
        std::fflush(stderr);
        if (m_saved < 0) return;
        ::dup2(m_saved, STDERR_FILENO);
        ::close(m_saved);
    }
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;

private:
    int m_saved;
};

}  // namespace vexo::check
