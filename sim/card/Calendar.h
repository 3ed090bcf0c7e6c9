#pragma once

#include <cstdint>

namespace vexo_sim::calendar {

/// Days of the Gregorian calendar since the first of March of the year 0, which puts the leap day at a year's end.
/// @param date  decimal YYYYMMDD
constexpr std::int64_t dayNumber(std::int64_t date) {
    const std::int64_t month = (date / 100 % 100 + 9) % 12;
    const std::int64_t year = date / 10000 - month / 10;
    return year * 365 + year / 4 - year / 100 + year / 400 + (month * 306 + 5) / 10 + date % 100 - 1;
}

constexpr std::int64_t firstDayOf(std::int64_t year) { return year * 365 + year / 4 - year / 100 + year / 400; }

/// The date YYYYMMDD of a day number.
constexpr std::int64_t dateOf(std::int64_t day) {
    std::int64_t year = (day * 10000 + 14780) / 3652425;
    if (day < firstDayOf(year)) --year;
    const std::int64_t rest = day - firstDayOf(year);
    const std::int64_t month = (rest * 100 + 52) / 3060;
    return (year + (month + 2) / 12) * 10000 + ((month + 2) % 12 + 1) * 100 + rest - (month * 306 + 5) / 10 + 1;
}

constexpr std::uint32_t dateAfter(std::uint32_t date, std::int64_t days) {
    return static_cast<std::uint32_t>(dateOf(dayNumber(date) + days));
}

/// Whether the calendar has such a date.
constexpr bool isDate(std::uint32_t date) { return date <= 99991231 && dateOf(dayNumber(date)) == date; }

}  // namespace vexo_sim::calendar
