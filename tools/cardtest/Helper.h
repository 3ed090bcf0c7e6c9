#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tools/cardtest/Check.h"

namespace cardtest {

/// How long a step may take that a healthy card does at once.
inline constexpr int kPatienceMs = 10'000;
/// How long a lock is watched that must not be given away.
inline constexpr int kWatchMs = 300;

std::int64_t nowMs();
void restMs(int ms);

/// Looks again and again until @p condition holds; false after @p ms milliseconds.
template <typename Condition>
bool within(int ms, Condition condition) {
    for (const std::int64_t end = nowMs() + ms; !condition(); restMs(2))
        if (nowMs() >= end) return false;
    return true;
}

/// Whether the thread that /proc knows under @p task waits in the kernel, and so can do nothing by itself.
bool isAsleep(const std::string& task);

/// This program once more, as another user of the card: it holds something, and says over a pipe what it got.
class Helper {
public:
    static Helper holdingStream(const TestPlan& plan, std::uint32_t channel);
    static Helper holdingLock(const TestPlan& plan);
    ~Helper();
    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;

    /// The next line it says; empty when it says none within @p ms milliseconds or has ended.
    std::string line(int ms = kPatienceMs);
    /// What it says next, or throws Untestable.
    std::string demand(const char* what);
    /// Lets it go on: it gives back what it holds, or with "die" ends without doing so.
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

/// The part of such a helper: runs it when the arguments name one. @return the exit status, or -1 when they do not.
int runRole(int argc, char** argv);

}  // namespace cardtest
