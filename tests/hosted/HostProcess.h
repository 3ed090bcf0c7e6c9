#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace hosted {

/// A directory, in shared memory where there is enough, that stands for the machine's own: cards of other tests, and of
/// the user, are not seen. Set in the environment for all that the test starts; gone with all its content at the end.
class CardDirectory {
public:
    CardDirectory();
    ~CardDirectory();
    CardDirectory(const CardDirectory&) = delete;
    CardDirectory& operator=(const CardDirectory&) = delete;

    const std::string& Path() const { return m_path; }
    std::vector<std::string> Files() const;

private:
    std::string m_path;
};

/// Another program, or a copy of this one, that the test started.
class Process {
public:
    /// @p errors is the file that standard error goes to; empty: the test's own.
    explicit Process(const std::vector<std::string>& command, const std::string& output = {},
                     const std::string& errors = {});
    /// A process that is still running is killed.
    ~Process();
    Process(Process&& other) noexcept : m_pid(other.m_pid) { other.m_pid = 0; }
    Process& operator=(Process&& other) noexcept;

    pid_t Id() const { return m_pid; }
    bool IsRunning();
    void Signal(int signal) const;
    /// Waits for the end. @return the exit status, or 128 + signal.
    int Wait();

private:
    pid_t m_pid = 0;
    int m_status = -1;
};

/// A running vexo-simcard whose card is there to be used. Throws when it ends instead.
Process StartHost(const std::vector<std::string>& options);

/// The status of the card at a bus; empty when there is none.
std::string StatusJson(std::uint32_t bus = 0);

/// Of the user that runs the test.
std::string UserName();
std::string GroupName();

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);

/// Looks again and again until @p condition holds. False after many minutes: a machine may be slow, a condition that
/// never holds must not hang the test.
template <typename Condition>
bool Eventually(Condition condition);

void ShortPause();

template <typename Condition>
bool Eventually(Condition condition) {
    for (int look = 0; look < 100'000; ++look) {
        if (condition()) return true;
        ShortPause();
    }
    return false;
}

}  // namespace hosted
