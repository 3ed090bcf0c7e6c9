#pragma once

#include <sys/types.h>

#include <map>
#include <string>

namespace remote_tests {

/// A program on a remote card: remote_user.cpp, which does one thing for each line that it is sent.
class RemoteUser {
public:
    using Environment = std::map<std::string, std::string>;

    /// @param errors  file for its standard error
    RemoteUser(const Environment& environment, std::string errors);
    /// A program that is still running is ended, by closing its input.
    ~RemoteUser();
    RemoteUser(const RemoteUser&) = delete;
    RemoteUser& operator=(const RemoteUser&) = delete;

    /// Sends a line and waits for the answer. "ended" when the program ended instead.
    std::string Ask(const std::string& line);
    /// Closes its input and waits for its end. @return the exit status, or 128 + signal.
    int End();
    pid_t Id() const { return m_pid; }
    /// What it has written to standard error.
    std::string Errors() const;

private:
    std::string m_errors;
    pid_t m_pid = 0;
    int m_input = -1;
    int m_output = -1;
    int m_status = -1;
};

}  // namespace remote_tests
