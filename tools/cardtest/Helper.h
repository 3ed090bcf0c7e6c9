#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tools/cardtest/Check.h"

namespace cardtest {

/// Timeout of a step that a healthy card does at once.
inline constexpr int kPatienceMs = 10'000;
/// How long a check watches that a held lock stays held.
inline constexpr int kWatchMs = 300;

std::int64_t nowMs();
void restMs(int ms);

/// Polls until @p condition holds; false after @p ms milliseconds.
template <typename Condition>
bool within(int ms, Condition condition) {
    for (const std::int64_t end = nowMs() + ms; !condition(); restMs(2))
        if (nowMs() >= end) return false;
    return true;
}

/// Whether the thread @p task of /proc waits in the kernel.
bool isAsleep(const std::string& task);

/// A second process of this program that uses the card too. It holds a stream or the lock and reports over a pipe.
class Helper {
public:
    static Helper holdingStream(const TestPlan& plan, std::uint32_t channel);
    static Helper holdingLock(const TestPlan& plan);
    ~Helper();
    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;

    /// Its next line; empty when none comes within @p ms milliseconds or the process has ended.
    std::string line(int ms = kPatienceMs);
    /// Its next line. Throws Untestable when that is not @p what.
    std::string demand(const char* what);
    /// Lets it go on. It releases what it holds; told "die", it ends without releasing.
    void tell(const std::string& text);
    void kill();
    bool isAsleep() const;

private:
    explicit Helper(const std::vector<std::string>& role);
    void end();

    pid_t m_pid = -1;
    int m_in = -1;
    int m_out = -1;
};

inline constexpr char kRoleOption[] = "--role";

/// Runs this process as such a helper when the arguments say so. @return the exit status, or -1 when they do not.
int runRole(int argc, char** argv);

}  // namespace cardtest
