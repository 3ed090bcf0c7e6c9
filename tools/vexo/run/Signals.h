#pragma once

#include <sys/signalfd.h>
#include <csignal>
#include <initializer_list>
#include <optional>

namespace vexo::run {

/// While it lives, signals that a supervisor passes on, and SIGCHLD, come one at a time out of a descriptor, and
/// SIGPIPE does nothing.
class Signals {
public:
    /// Throws Failure. @param more  signals that come out of it, too
    explicit Signals(std::initializer_list<int> more = {});
    ~Signals();
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    /// Waits for a signal. @return nothing after @p seconds
    std::optional<signalfd_siginfo> wait(double seconds);

    /// Gives a child of fork() what this process had before.
    void restore() const;
    /// What was blocked before.
    const sigset_t& before() const { return m_before; }

private:
    int m_fd = -1;
    sigset_t m_before{};
    struct sigaction m_pipeBefore {};
};

/// Whether the signal asks an application to end.
bool isStop(unsigned signal);

/// Whether a terminal has sent the signal to all processes in its foreground, the application too.
bool isFromTerminal(const signalfd_siginfo& signal);

}  // namespace vexo::run
