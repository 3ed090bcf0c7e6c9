#pragma once

#include <string>

namespace test_support {

/// Collects everything that reaches one file descriptor while it lives: stdio, streams, plain writes and child
/// processes. Goes through a file, not a pipe, so that no amount of output can block the writer.
class CaptureOutput {
public:
    /// @param fd 1 (standard output) or 2 (standard error). Throws std::system_error when no file can be made.
    explicit CaptureOutput(int fd = 1);
    ~CaptureOutput();
    CaptureOutput(const CaptureOutput&) = delete;
    CaptureOutput& operator=(const CaptureOutput&) = delete;

    /// What was written so far; capturing goes on.
    std::string Text() const;

    /// Gives the descriptor back and returns all that was captured. A second call returns the same text.
    std::string Stop();

private:
    int m_fd;
    int m_savedFd;
    int m_fileFd;
};

}  // namespace test_support
