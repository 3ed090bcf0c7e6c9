#pragma once

#include <csignal>

/// Descriptors 0 to 2, which a daemon may have closed: their numbers then go to the next files that anybody opens.
namespace capture {

/// Keeps the free ones of the three taken while it lives, so that no file that is opened meanwhile gets such a number.
/// There, it would get what others print.
class StandardNumbersTaken {
public:
    StandardNumbersTaken();
    ~StandardNumbersTaken();
    StandardNumbersTaken(const StandardNumbersTaken&) = delete;
    StandardNumbersTaken& operator=(const StandardNumbersTaken&) = delete;

private:
    int m_fds[3];
};

/// While it lives, no write of this thread to a pipe that nobody reads ends the process by SIGPIPE.
class NoPipeSignal {
public:
    NoPipeSignal();
    ~NoPipeSignal();
    NoPipeSignal(const NoPipeSignal&) = delete;
    NoPipeSignal& operator=(const NoPipeSignal&) = delete;

private:
    sigset_t m_before;
    bool m_wasPending;
};

/// printf to standard error. Silent when it was closed as the process started: its number may be a file of the
/// application now. A line that nobody reads does no harm to the application.
void printError(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace capture
