#pragma once

#include <ctime>

#include "sim/card/CardTime.h"

namespace vexo_sim {

/// The host's clocks. Reads them only through the C library, so that a test can replace its functions.
class HostClock {
public:
    CardTime now() {
        const std::uint64_t elapsed = nanoseconds(CLOCK_MONOTONIC);
        const std::time_t second = time(nullptr);
        if (second != m_second) readLocalTime(second, elapsed);
        m_now.monotonicNs = elapsed;
        m_now.millis = millisOf(second, elapsed);
        return m_now;
    }

    /// The whole wall clock is read once a second. After this call, the next use reads it even within the same second.
    void forget() { m_second = -1; }

private:
    static std::uint64_t nanoseconds(clockid_t clock) {
        timespec value{};
        clock_gettime(clock, &value);
        return static_cast<std::uint64_t>(value.tv_sec) * kSecond + static_cast<std::uint64_t>(value.tv_nsec);
    }

    void readLocalTime(std::time_t second, std::uint64_t elapsed) {
        std::tm local{};
        if (localtime_r(&second, &local) == nullptr) return;
        m_second = second;
        m_sinceEpoch = nanoseconds(CLOCK_REALTIME) - elapsed;
        const int date = (local.tm_year + 1900) * 10000 + (local.tm_mon + 1) * 100 + local.tm_mday;
        m_now.date = static_cast<std::uint32_t>(date);
        m_now.time = static_cast<std::uint32_t>(local.tm_hour * 10000 + local.tm_min * 100 + local.tm_sec);
    }

    // time() may change to the next second a little later than the fine clock. Until then the milliseconds stay at 999.
    std::uint32_t millisOf(std::time_t second, std::uint64_t elapsed) const {
        const std::uint64_t fine = elapsed + m_sinceEpoch;
        if (fine / kSecond > static_cast<std::uint64_t>(second)) return 999;
        return static_cast<std::uint32_t>(fine % kSecond / 1'000'000);
    }

    static constexpr std::uint64_t kSecond = 1'000'000'000;

    std::time_t m_second = -1;
    std::uint64_t m_sinceEpoch = 0;  // wall clock minus monotonic clock
    CardTime m_now;
};

}  // namespace vexo_sim
