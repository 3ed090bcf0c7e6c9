#ifndef VEXO_ZCE_SESSION_H
#define VEXO_ZCE_SESSION_H

// Which day and which session a quote belongs to. C++11, header only: an application needs nothing else of the library.
//
// A quote carries a time of the exchange, and no date that can be relied on. The day comes from the host's clock. The
// night session belongs to the next trading day: a quote of Friday 21:30 has Monday's trading day.
//
//     vexo_zce::SessionClock clock;                        // one for each thread
//     vexo_zce::QuoteTime when;
//     if (clock.place(213000, 500000000, vexo_zce::hostTimeOf(nsSince1970), when))
//         std::printf("%u\n", when.tradingDate);
//
// Times of the exchange are those of UTC+8, the whole year. Days are counted here, by civil rules: no function asks the
// C library for a time zone. Nothing allocates, throws, locks or asks the locale.

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace vexo_zce {

constexpr std::uint32_t kSecondsOfDay = 86400;
constexpr std::int64_t kNsPerSecond = 1000000000;
/// The exchange's clock is so many seconds ahead of UTC.
constexpr std::int64_t kExchangeUtcOffset = 8 * 3600;

// ---- dates ----
// A date is decimal YYYYMMDD. A day number counts days since 1970-01-01. Years 1970 to 2261: nanoseconds since 1970 fit
// 64 bits until then.

/// The day number of a date that isDate() accepts.
inline std::int64_t dayNumber(std::uint32_t date) {
    // The year begins in March here, so that the leap day is its last one.
    const std::int64_t month = (date / 100 % 100 + 9) % 12;
    const std::int64_t year = date / 10000 - month / 10;
    return year * 365 + year / 4 - year / 100 + year / 400 + (month * 306 + 5) / 10 + date % 100 - 1 - 719468;
}

/// The date of a day number, 0 to 106650.
inline std::uint32_t dateOf(std::int64_t day) {
    const std::int64_t days = day + 719468;
    const std::int64_t era = days / 146097;
    const std::int64_t dayOfEra = days % 146097;
    const std::int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::int64_t month = (5 * dayOfYear + 2) / 153;
    const std::int64_t civilMonth = month < 10 ? month + 3 : month - 9;
    const std::int64_t year = yearOfEra + era * 400 + (civilMonth <= 2 ? 1 : 0);
    return static_cast<std::uint32_t>(year * 10000 + civilMonth * 100 + dayOfYear - (153 * month + 2) / 5 + 1);
}

/// Whether the calendar has this date, in the years 1970 to 2261.
inline bool isDate(std::uint32_t date) {
    const std::uint32_t month = date / 100 % 100;
    const std::uint32_t day = date % 100;
    if (date < 19700101 || date > 22611231 || month < 1 || month > 12 || day < 1 || day > 31) return false;
    return dateOf(dayNumber(date)) == date;
}

/// Saturday or Sunday. The exchange does not trade then, not even when the country works.
inline bool isWeekend(std::int64_t day) { return (day + 3) % 7 >= 5; }

// ---- holidays ----

/// The days on which the exchange does not trade besides weekends. It announces them each December for the next year.
/// Reading may be shared between threads; add() may not.
class HolidayList {
public:
    /// Days that a list can hold: about 20 years.
    static constexpr std::size_t kMost = 512;

    HolidayList() : m_days(), m_count(0) {}
    /// @param date  YYYYMMDD; a date that is in the list already changes nothing
    /// @return false if there is no such date, or no more room
    bool add(std::uint32_t date) {
        if (!isDate(date)) return false;
        const std::int32_t day = static_cast<std::int32_t>(dayNumber(date));
        const std::size_t place = placeOf(day);
        if (place < m_count && m_days[place] == day) return true;
        if (m_count == kMost) return false;
        for (std::size_t i = m_count; i > place; --i) m_days[i] = m_days[i - 1];
        m_days[place] = day;
        ++m_count;
        return true;
    }
    /// Whether a day is in the list. @param day  its day number @return true if it is
    bool has(std::int64_t day) const { return countUntil(day, day + 1) > 0; }
    /// Counts the days of a range. @param first  day number of its first day @param end  that of the day after it
    /// @return how many of them are in the list
    std::size_t countUntil(std::int64_t first, std::int64_t end) const { return placeOf(end) - placeOf(first); }
    /// Days in the list. @return 0 to kMost
    std::size_t count() const { return m_count; }

private:
    /// Where a day stands or would stand. @return m_count after the last one
    std::size_t placeOf(std::int64_t day) const {
        std::size_t low = 0;
        for (std::size_t high = m_count; low < high;) {
            const std::size_t middle = (low + high) / 2;
            if (m_days[middle] < day) {
                low = middle + 1;
            } else {
                high = middle;
            }
        }
        return low;
    }

    std::int32_t m_days[kMost];  // day numbers, rising
    std::size_t m_count;
};

namespace detail {

/// @return 0 if the text does not begin with a date YYYY-MM-DD or YYYYMMDD; otherwise the date, and @p text after it
inline std::uint32_t takeDate(const char*& text) {
    const char* at = text;
    std::uint32_t date = 0;
    bool hasDashes = false;
    for (unsigned digits = 0; digits < 8; ++digits) {
        if (digits == 4) hasDashes = *at == '-';
        if (hasDashes && (digits == 4 || digits == 6) && *at++ != '-') return 0;
        if (*at < '0' || *at > '9') return 0;
        date = date * 10 + static_cast<std::uint32_t>(*at++ - '0');
    }
    if (!isDate(date)) return 0;
    text = at;
    return date;
}

inline void skipBlanks(const char*& text) {
    while (*text == ' ' || *text == '\t' || *text == '\r' || *text == '\n') ++text;
}
inline bool isAtEnd(const char*& text) {
    skipBlanks(text);
    return *text == '\0' || *text == '#';
}

}  // namespace detail

/// Adds what one line of a holiday file says: nothing, a day, or the first and the last day of a holiday with a blank
/// between them. A day is written 2027-02-05 or 20270205. A number sign begins a comment.
/// @param line  terminated; may end with a line feed
/// @return null; otherwise what is wrong, static text. The list may then hold a part of the holiday.
inline const char* addHolidayLine(HolidayList& list, const char* line) {
    if (detail::isAtEnd(line)) return nullptr;
    const std::uint32_t first = detail::takeDate(line);
    if (first == 0) return "this is no date YYYY-MM-DD";
    std::uint32_t last = first;
    if (!detail::isAtEnd(line)) {
        last = detail::takeDate(line);
        if (last == 0 || !detail::isAtEnd(line)) return "a day, or a first and a last day, is all that a line has";
    }
    const std::int64_t end = dayNumber(last) + 1;
    if (end <= dayNumber(first)) return "the last day is before the first one";
    if (end - dayNumber(first) > 31) return "a holiday takes 31 days at most";
    for (std::int64_t day = dayNumber(first); day < end; ++day) {
        if (!list.add(dateOf(day))) return "there are more than 512 days";
    }
    return nullptr;
}

/// What loadHolidays() found. Without a fault, text is null.
struct HolidayFault {
    const char* text;  ///< static
    unsigned line;     ///< from 1; 0 if the fault is the file's
};

/// Adds the holidays of a file; see addHolidayLine(). Opens and closes it.
/// @return the first fault; what precedes it is in the list
inline HolidayFault loadHolidays(HolidayList& list, const char* path) {
    HolidayFault fault = {"the file cannot be opened", 0};
    std::FILE* file = std::fopen(path, "re");
    if (file == nullptr) return fault;
    fault.text = nullptr;
    char line[256];
    while (fault.text == nullptr && std::fgets(line, sizeof line, file) != nullptr) {
        ++fault.line;
        std::size_t length = 0;
        while (line[length] != '\0') ++length;
        const bool isCut = length + 1 == sizeof line && line[length - 1] != '\n';
        fault.text = isCut ? "the line is longer than 254 characters" : addHolidayLine(list, line);
    }
    if (fault.text == nullptr) {
        fault.line = 0;
        if (std::ferror(file) != 0) fault.text = "the file cannot be read";
    }
    std::fclose(file);
    return fault;
}

// ---- sessions ----

/// A time in which the exchange sends quotes, the call auction before it included.
struct SessionHours {
    const char* name;     ///< several rows may have one name
    std::uint32_t from;   ///< seconds since midnight of the day on which it begins
    std::uint32_t until;  ///< its last second, which belongs to it: the last quote of a session carries its end.
                          ///< Above 86399 for a session that goes on after midnight.
    bool isNight;         ///< belongs to the next trading day; not held before a holiday
};

/// The hours of an exchange. Must live as long as the clocks that use it.
struct SessionTable {
    const SessionHours* rows;  ///< @p count of them, in any order; they do not overlap
    std::size_t count;         ///< of rows
    std::uint32_t dayChange;   ///< from this second on, a time belongs to the next trading day
};

/// The hours of the Zhengzhou Commodity Exchange: auctions from 20:55 and 08:55, night 21:00 to 23:00, day 09:00 to
/// 10:15, 10:30 to 11:30 and 13:30 to 15:00. The trading day changes at 17:00, as the day file of the library does.
/// When the exchange changes its hours, give SessionClock a table of your own. ZceIsInTradeTime() has other, wider
/// hours.
inline const SessionTable& exchangeSessions() {
    static const SessionHours rows[] = {
        {"night", 20 * 3600 + 55 * 60, 23 * 3600, true},
        {"morning", 8 * 3600 + 55 * 60, 10 * 3600 + 15 * 60, false},
        {"morning", 10 * 3600 + 30 * 60, 11 * 3600 + 30 * 60, false},
        {"afternoon", 13 * 3600 + 30 * 60, 15 * 3600, false},
    };
    static const SessionTable table = {rows, sizeof rows / sizeof rows[0], 17 * 3600};
    return table;
}

/// What the host knows of the moment in which a quote arrived, in the exchange's time zone.
struct HostTime {
    std::uint32_t date;    ///< YYYYMMDD
    std::uint32_t second;  ///< since midnight, 0 to 86399; kNoSecond if only the date is known
};
constexpr std::uint32_t kNoSecond = 0xFFFFFFFF;

/// The host's time from its clock. @param ns  nanoseconds since 1970 UTC, as get_time() or a capture has them
inline HostTime hostTimeOf(std::uint64_t ns) {
    const std::uint64_t seconds = ns / 1000000000U + static_cast<std::uint64_t>(kExchangeUtcOffset);
    const HostTime time = {dateOf(static_cast<std::int64_t>(seconds / kSecondsOfDay)),
                           static_cast<std::uint32_t>(seconds % kSecondsOfDay)};
    return time;
}

/// When a quote was sent.
struct QuoteTime {
    std::uint32_t naturalDate;    ///< YYYYMMDD: the calendar's day of the exchange's time
    std::uint32_t tradingDate;    ///< YYYYMMDD: the day whose trading it belongs to
    const SessionHours* session;  ///< row of the table; null outside of all sessions, and on a day without this one
    std::int64_t nsOfDay;         ///< the exchange's time, nanoseconds since its midnight
    std::int64_t nsSince1970;     ///< the same moment, UTC
};

/// Gives quotes their days and sessions, and counts those whose time is nonsense. For one thread at a time.
class SessionClock {
public:
    SessionClock() : m_table(&exchangeSessions()), m_dropped(0) {}
    /// @param table  hours to use in place of exchangeSessions(); not copied
    explicit SessionClock(const SessionTable& table) : m_table(&table), m_dropped(0) {}

    /// The exchange's holidays: none at first. Fill the list before the first quote. @return the list of this clock
    HolidayList& holidays() { return m_holidays; }

    /// @param time   the exchange's, decimal HHMMSS
    /// @param nanos  of that second, 0 to 999999999
    /// @param host   when the quote arrived. With the second known, the quote gets the day that puts it nearest to the
    ///               host's time: the two clocks may be on different sides of midnight.
    /// @param out    filled when the result is true
    /// @return false, and the quote counts as dropped, when there is no such time or no such date
    bool place(std::uint32_t time, std::uint32_t nanos, const HostTime& host, QuoteTime& out) {
        const std::uint32_t second = time / 10000 * 3600 + time / 100 % 100 * 60 + time % 100;
        const bool isTime = time <= 235959 && time / 100 % 100 < 60 && time % 100 < 60 && nanos < 1000000000U;
        const bool isHost = isDate(host.date) && (host.second < kSecondsOfDay || host.second == kNoSecond);
        if (!isTime || !isHost) {
            ++m_dropped;
            return false;
        }
        const std::int64_t day = naturalDay(second, host);
        out.naturalDate = dateOf(day);
        out.tradingDate = dateOf(tradingDay(second, day));
        out.session = sessionOf(second, day);
        out.nsOfDay = second * kNsPerSecond + nanos;
        out.nsSince1970 = (day * kSecondsOfDay - kExchangeUtcOffset) * kNsPerSecond + out.nsOfDay;
        return true;
    }
    /// The same for a time as text: 21:30:00 or 21:30:00.5, with up to nine digits after the point. 99:99:99.9, which
    /// the exchange sends for "no time", is nonsense like any other text.
    /// @param text    ends with its first zero byte or after @p length bytes
    /// @param length  most bytes to read
    /// @param host    when the quote arrived
    /// @param out     filled when the result is true
    /// @return false, and the quote counts as dropped, when there is no such time or no such date
    bool place(const char* text, std::size_t length, const HostTime& host, QuoteTime& out) {
        std::uint32_t nanos = 0;
        const std::uint32_t time = readTime(text, length, nanos);
        return place(time, nanos, host, out);
    }

    /// Quotes that were dropped. @return how often place() returned false
    std::uint64_t dropped() const { return m_dropped; }

    /// Whether the exchange trades on a day. @param day  a day number @return false on weekends and holidays
    bool isTradingDay(std::int64_t day) const { return !isWeekend(day) && !m_holidays.has(day); }
    /// The next trading day. @param day  a day number @return that of the first trading day after it
    std::int64_t tradingDayAfter(std::int64_t day) const {
        do {
            ++day;
        } while (!isTradingDay(day));
        return day;
    }
    /// Whether a night session begins on a day: on trading days, unless a holiday follows. A weekend is no holiday.
    /// @param day  a day number @return true if it does
    bool hasNight(std::int64_t day) const {
        return isTradingDay(day) && m_holidays.countUntil(day + 1, tradingDayAfter(day)) == 0;
    }

private:
    static std::int64_t naturalDay(std::uint32_t second, const HostTime& host) {
        const std::int64_t day = dayNumber(host.date);
        if (host.second == kNoSecond) return day;
        const std::int64_t ahead = static_cast<std::int64_t>(second) - static_cast<std::int64_t>(host.second);
        if (ahead > kSecondsOfDay / 2 && day > 0) return day - 1;
        return ahead < -static_cast<std::int64_t>(kSecondsOfDay) / 2 ? day + 1 : day;
    }

    std::int64_t tradingDay(std::uint32_t second, std::int64_t day) const {
        return second < m_table->dayChange && isTradingDay(day) ? day : tradingDayAfter(day);
    }

    bool isHeld(const SessionHours& row, std::int64_t day) const {
        return row.isNight ? hasNight(day) : isTradingDay(day);
    }

    const SessionHours* sessionOf(std::uint32_t second, std::int64_t day) const {
        for (std::size_t i = 0; i < m_table->count; ++i) {
            const SessionHours& row = m_table->rows[i];
            if (second >= row.from && second <= row.until && isHeld(row, day)) return &row;
            // It began on the day before.
            if (second + kSecondsOfDay >= row.from && second + kSecondsOfDay <= row.until && isHeld(row, day - 1)) {
                return &row;
            }
        }
        return nullptr;
    }

    /// @return HHMMSS; a number above 235959 for what is no time
    static std::uint32_t readTime(const char* text, std::size_t length, std::uint32_t& nanos) {
        const std::uint32_t nonsense = 999999;
        std::size_t end = 0;
        while (end < length && end < 19 && text[end] != '\0') ++end;
        if (end < 8 || end == 9 || end > 18 || (end > 8 && text[8] != '.')) return nonsense;
        std::uint32_t time = 0;
        for (std::size_t i = 0; i < 8; ++i) {
            const bool isColon = i == 2 || i == 5;
            if (isColon ? text[i] != ':' : text[i] < '0' || text[i] > '9') return nonsense;
            if (!isColon) time = time * 10 + static_cast<std::uint32_t>(text[i] - '0');
        }
        for (std::size_t i = 9; i < 18; ++i) {
            if (i < end && (text[i] < '0' || text[i] > '9')) return nonsense;
            nanos = nanos * 10 + (i < end ? static_cast<std::uint32_t>(text[i] - '0') : 0);
        }
        return time;
    }

    const SessionTable* m_table;
    HolidayList m_holidays;
    std::uint64_t m_dropped;
};

}  // namespace vexo_zce

#endif
