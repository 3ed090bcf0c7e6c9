#pragma once

#include <ctime>

/// Local calendar time in the decimal forms that the card, the trading windows and the file names use.
/// Safe to call from any thread, unlike the exported trading-hours test, which is bound to localtime().
namespace local_time {

/// Breaks @p when down. @return false when the C library cannot (the year does not fit).
inline bool breakDown(std::time_t when, std::tm& out) { return ::localtime_r(&when, &out) != nullptr; }

/// The current local time; all zero when the C library cannot break it down.
inline std::tm now() {
    std::tm now{};
    breakDown(::time(nullptr), now);
    return now;
}

/// YYYYMMDD
inline unsigned int date(const std::tm& t) {
    return static_cast<unsigned int>((t.tm_year + 1900) * 10000 + (t.tm_mon + 1) * 100 + t.tm_mday);
}

/// HHMMSS
inline unsigned int timeOfDay(const std::tm& t) {
    return static_cast<unsigned int>(t.tm_hour * 10000 + t.tm_min * 100 + t.tm_sec);
}

}  // namespace local_time
