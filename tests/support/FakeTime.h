#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <vector>

namespace test_support {

/// Replaces the clock of the whole process while it lives. The test binary defines `time`, `localtime`, `localtime_r`,
/// `clock_gettime` and `sleep`, and they use this clock, also for code in shared libraries. The fake clock stands still
/// until a test moves it. Without a FakeTime the same functions forward to the C library.
///
/// One object at a time. Reading and moving the clock is safe from any thread and from a signal handler; the other
/// members belong to the test's own thread. Calendar times are in the process time zone (TZ).
class FakeTime {
public:
    /// What CLOCK_MONOTONIC lags behind CLOCK_REALTIME, so that a test sees which of the two was read.
    static constexpr std::int64_t kMonotonicLagNs = 1000000000LL * 1000000000LL;

    /// Starts at 2025-03-03 10:00:00 local time, a Monday inside trading hours.
    FakeTime();
    FakeTime(int year, int month, int day, int hour, int minute, int second);
    ~FakeTime();
    FakeTime(const FakeTime&) = delete;
    FakeTime& operator=(const FakeTime&) = delete;

    /// @param month 1 to 12. The sub-second part becomes 0.
    void SetLocal(int year, int month, int day, int hour, int minute, int second);
    void SetEpoch(std::int64_t seconds, std::int64_t nanoseconds = 0);
    void Advance(std::int64_t seconds) { AdvanceNs(seconds * 1000000000LL); }
    void AdvanceNs(std::int64_t nanoseconds);

    /// Every `clock_gettime` of a faked clock first answers and then moves the clock by this much. 0, the default: it
    /// does not move. For code that spins on the clock, and for counting its reads.
    void SetStepPerRead(std::int64_t nanoseconds);

    /// Nanoseconds since the epoch; does not step.
    std::int64_t NowNs() const;

    /// Seconds of every `sleep` since this object was made, in order. A faked sleep moves the clock and returns 0
    /// at once.
    std::vector<unsigned int> Sleeps() const;

    /// Called by every `sleep(n)`, in its thread, after the clock has moved by n. Empty = none.
    void OnSleep(std::function<void(unsigned int seconds)> callback);

    /// While true, `localtime` and `localtime_r` return NULL with errno EOVERFLOW.
    void FailLocaltime(bool fail);

    /// From now on @p fails decides on each `localtime`, `localtime_r` and `clock_gettime` first, with the call's name
    /// and the address that it returns to. Outlives the object.
    static void AskFirst(bool (*fails)(const char* call, const void* caller));
};

}  // namespace test_support
