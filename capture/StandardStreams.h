#pragma once

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

/// printf to standard error. Silent when it was closed as the process started: its number may be a file of the
/// application now.
void printError(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace capture
