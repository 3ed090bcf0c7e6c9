#pragma once

#include <ctime>

/// Local calendar time in the decimal forms that the card, the trading windows and the file names use. All local times
/// of the library come from here, so that a changed time zone takes effect everywhere. Safe to call from any thread;
/// not from a signal handler.
namespace local_time {

/// Breaks @p when down, in the zone that TZ names now: the application may have changed it without a call of tzset().
/// @return false when the C library cannot (the year does not fit).
bool breakDown(std::time_t when, std::tm& out);

/// The current local time; all zero when the C library cannot break it down.
inline std::tm now() {
    std::tm now{};
    breakDown(::time(nullptr), now);
    return now;
}

/// The current local time from the plain localtime(), which the exported functions promise to call. Its result is
/// static: another thread of the application must not call localtime() or gmtime() meanwhile.
/// @return false when the C library cannot
bool plainNow(std::tm& out);

/// YYYYMMDD
inline unsigned int date(const std::tm& t) {
    return static_cast<unsigned int>((t.tm_year + 1900) * 10000 + (t.tm_mon + 1) * 100 + t.tm_mday);
}

/// HHMMSS
inline unsigned int timeOfDay(const std::tm& t) {
    return static_cast<unsigned int>(t.tm_hour * 10000 + t.tm_min * 100 + t.tm_sec);
}

}  // namespace local_time
