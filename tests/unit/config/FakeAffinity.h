#pragma once

#include <sched.h>
#include <sys/types.h>

#include <cstddef>
#include <vector>

/// Answers `sched_setaffinity` in place of the host while it lives; the function is interposed in the test binary.
/// Without one of these the call reaches the kernel.
class FakeAffinity {
public:
    /// @param error 0 = every call succeeds, else the errno that every call fails with
    explicit FakeAffinity(int error = 0);
    ~FakeAffinity();
    FakeAffinity(const FakeAffinity&) = delete;
    FakeAffinity& operator=(const FakeAffinity&) = delete;

    struct Call {
        pid_t pid;
        std::size_t size;       ///< bytes of the set
        std::vector<int> cpus;  ///< its members, ascending
    };
    std::vector<Call> calls;

    int Answer(pid_t pid, std::size_t size, const cpu_set_t* set);

private:
    int m_error;
};
