#pragma once

#include <csignal>
#include <ctime>

namespace vexo_sim::remote {

/// Blocks all signals for the calling thread, and for the threads that are started meanwhile: those belong to the
/// engine's library, and a handler of the application must not run there. A write to a broken connection leaves no
/// SIGPIPE behind.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_before);
        m_isPipePending = isPipePending();
    }
    ~SignalsBlocked() {
        if (!m_isPipePending && isPipePending()) {
            sigset_t pipe;
            sigemptyset(&pipe);
            sigaddset(&pipe, SIGPIPE);
            const std::timespec now{};
            sigtimedwait(&pipe, nullptr, &now);
        }
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    static bool isPipePending() {
        sigset_t pending;
        return sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    }

    sigset_t m_before;
    bool m_isPipePending = false;
};

}  // namespace vexo_sim::remote
