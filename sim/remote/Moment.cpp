#include "sim/remote/Moment.h"

#include <algorithm>
#include <cstdio>

namespace vexo_sim::remote {
namespace {

constexpr std::uint64_t kSecondNs = 1'000'000'000;
constexpr std::int64_t kDaySeconds = 86400;
constexpr std::int64_t kZoneSeconds = 8 * 3600;
constexpr std::uint64_t kLastSecond = 10'000'000'000;  // in the year 2286
constexpr std::size_t kMostPlaces = 9;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

/// Reads a text from its begin on.
class Cursor {
public:
    explicit Cursor(const std::string& text) : m_at(text.c_str()) {}

    bool isAtEnd() const { return *m_at == '\0'; }
    bool take(char c) {
        if (*m_at != c) return false;
        ++m_at;
        return true;
    }
    /// So many digits, at most @p most.
    bool take(unsigned digits, unsigned most, unsigned& number) {
        number = 0;
        for (unsigned n = 0; n < digits; ++n, ++m_at) {
            if (!isDigit(*m_at)) return false;
            number = number * 10 + static_cast<unsigned>(*m_at - '0');
        }
        return number <= most;
    }
    /// Digits behind a point, in nanoseconds.
    bool takeFraction(std::uint64_t& ns) {
        ns = 0;
        std::uint64_t place = kSecondNs;
        std::size_t digits = 0;
        for (; isDigit(*m_at) && digits < kMostPlaces; ++m_at, ++digits) {
            place /= 10;
            ns += place * static_cast<std::uint64_t>(*m_at - '0');
        }
        return digits > 0;
    }

private:
    const char* m_at;
};

// Of the Gregorian calendar, since 1970.
std::int64_t dayNumber(std::int64_t year, std::int64_t month, std::int64_t day) {
    const std::int64_t shifted = month > 2 ? year : year - 1;  // years begin in March
    const std::int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    return 365 * shifted + shifted / 4 - shifted / 100 + shifted / 400 + dayOfYear - 719468;
}

bool isDate(unsigned year, unsigned month, unsigned day) {
    constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (year < 1971 || month < 1 || day < 1) return false;
    const bool isLeap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return day <= kDays[month - 1] + (isLeap && month == 2 ? 1U : 0U);
}

// HH:MM, HH:MM:SS or HH:MM:SS.F, to the end of the text.
bool takeTime(Cursor& text, std::uint64_t& ns) {
    unsigned hour = 0;
    unsigned minute = 0;
    unsigned second = 0;
    std::uint64_t fraction = 0;
    if (!text.take(2, 23, hour) || !text.take(':') || !text.take(2, 59, minute)) return false;
    if (text.take(':') && !text.take(2, 59, second)) return false;
    if (text.take('.') && !text.takeFraction(fraction)) return false;
    ns = (hour * std::uint64_t{3600} + minute * 60U + second) * kSecondNs + fraction;
    return text.isAtEnd();
}

std::optional<std::uint64_t> datedMoment(const std::string& text) {
    Cursor cursor(text);
    unsigned year = 0;
    unsigned month = 0;
    unsigned day = 0;
    std::uint64_t time = 0;
    if (!cursor.take(4, 2285, year) || !cursor.take('-') || !cursor.take(2, 12, month) || !cursor.take('-') ||
        !cursor.take(2, 31, day) || !isDate(year, month, day))
        return std::nullopt;
    if (!cursor.isAtEnd() && !((cursor.take(' ') || cursor.take('T')) && takeTime(cursor, time))) return std::nullopt;
    const std::int64_t midnight = dayNumber(year, month, day) * kDaySeconds - kZoneSeconds;
    return static_cast<std::uint64_t>(midnight) * kSecondNs + time;
}

std::optional<std::uint64_t> timeOfDay(const std::string& text, std::uint64_t nowNs) {
    Cursor cursor(text);
    std::uint64_t time = 0;
    if (!takeTime(cursor, time)) return std::nullopt;
    constexpr std::uint64_t kDayNs = kDaySeconds * kSecondNs;
    constexpr std::uint64_t kZoneNs = kZoneSeconds * kSecondNs;
    const std::uint64_t midnight = (nowNs + kZoneNs) / kDayNs * kDayNs;  // as many in the exchange's zone
    const std::uint64_t today = midnight + time;
    const std::uint64_t last = today <= nowNs + kZoneNs ? today : today - kDayNs;
    return last - kZoneNs;
}

// As files of holidays have it. As seconds it would be a day of the seventies.
bool isDateOfDigits(const std::string& text) {
    return text.size() == 8 && std::all_of(text.begin(), text.end(), isDigit);
}

std::optional<std::uint64_t> sinceEpoch(const std::string& text) {
    std::size_t digits = 0;
    std::uint64_t seconds = 0;
    for (; digits < text.size() && isDigit(text[digits]) && seconds < kLastSecond; ++digits)
        seconds = seconds * 10 + static_cast<std::uint64_t>(text[digits] - '0');
    if (digits == 0 || seconds >= kLastSecond) return std::nullopt;
    std::uint64_t fraction = 0;
    const std::string behind = text.substr(digits);
    Cursor rest(behind);
    if (rest.take('.') && !rest.takeFraction(fraction)) return std::nullopt;
    if (!rest.isAtEnd()) return std::nullopt;
    return seconds * kSecondNs + fraction;
}

}  // namespace

std::optional<std::uint64_t> pastMomentOf(const std::string& text, std::uint64_t nowNs) {
    if (isDateOfDigits(text))
        return pastMomentOf(text.substr(0, 4) + '-' + text.substr(4, 2) + '-' + text.substr(6), nowNs);
    const bool isDated = text.find('-') != std::string::npos;
    const bool isTime = text.find(':') != std::string::npos;
    const auto moment = isDated ? datedMoment(text) : isTime ? timeOfDay(text, nowNs) : sinceEpoch(text);
    return moment && *moment <= nowNs ? moment : std::nullopt;
}

std::string momentText(std::uint64_t ns) {
    const auto seconds = static_cast<std::int64_t>(ns / kSecondNs) + kZoneSeconds;
    const std::int64_t days = seconds / kDaySeconds;
    std::int64_t year = 1970 + days / 366;
    while (dayNumber(year + 1, 1, 1) <= days) ++year;
    std::int64_t month = 1;
    while (month < 12 && dayNumber(year, month + 1, 1) <= days) ++month;
    const std::int64_t ofDay = seconds % kDaySeconds;
    char text[96];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", static_cast<int>(year),
                  static_cast<int>(month), static_cast<int>(days - dayNumber(year, month, 1) + 1),
                  static_cast<int>(ofDay / 3600), static_cast<int>(ofDay / 60 % 60), static_cast<int>(ofDay % 60),
                  static_cast<int>(ns % kSecondNs / 1'000'000));
    return text;
}

std::string secondsText(std::uint64_t ns) {
    char text[32];
    std::snprintf(text, sizeof text, "%llu.%09llu", static_cast<unsigned long long>(ns / kSecondNs),
                  static_cast<unsigned long long>(ns % kSecondNs));
    return text;
}

}  // namespace vexo_sim::remote
