#pragma once

#include <cstddef>
#include <ctime>

/// The last second that was asked for, as local calendar time. To break a time down costs more than to write the line,
/// so all lines of one second share the result.
class LocalSecond {
public:
    static constexpr std::size_t kTextSize = 17;
    /// "[level  ][YYYYMMDD-HH:MM:SS][fpga]", what stands before the message in nearly all lines. The caller sets the
    /// level.
    static constexpr char kTag[] = "fpga";
    static constexpr std::size_t kLevelSize = 9;
    static constexpr std::size_t kHeadSize = kLevelSize + 1 + kTextSize + 1 + sizeof kTag + 1;

    /// Breaks @p when down in the process's time zone. A changed TZ takes effect in the next second. If the application
    /// calls tzset(), it takes effect at once, except between zones of the same name and standard offset.
    /// @return false when the C library cannot tell the local time
    bool set(std::time_t when) { return holds(when) || breakDown(when); }
    /// Whether set() has broken @p when down last, and the zone is still that one.
    bool holds(std::time_t when) const {
        return m_when == when && m_isKnown && m_zone.west == ::timezone && m_zone.name == ::tzname[0];
    }
    void forget() { m_isKnown = false; }

    const char* head() const { return m_head; }
    const char* text() const { return m_head + kLevelSize + 1; }  ///< YYYYMMDD-HH:MM:SS, not terminated
    long date() const { return m_date; }                          ///< YYYYMMDD
    long utcOffset() const { return m_utcOffset; }                ///< seconds east of UTC
    /// Whether the zone has changed since the time before.
    bool isNewZone() const { return m_isNewZone; }

private:
    // What tzset() changes when the zone does.
    struct Zone {
        long west;
        int hasSummer;
        const char* name;
        const char* summerName;

        static Zone current() { return {::timezone, ::daylight, ::tzname[0], ::tzname[1]}; }
        bool operator==(const Zone& other) const {
            return west == other.west && hasSummer == other.hasSummer && name == other.name &&
                   summerName == other.summerName;
        }
    };

    bool breakDown(std::time_t when);

    std::time_t m_when = 0;
    char m_head[kHeadSize + 1] = "[       ][YYYYMMDD-HH:MM:SS][fpga]";
    bool m_isKnown = false;
    bool m_isNewZone = false;
    long m_date = 0;
    long m_utcOffset = 0;
    Zone m_zone{};
};

/// The second of the line that is being made. Belongs to the thread that holds standard output's lock.
extern LocalSecond g_lineSecond;
/// The second that dates the log file. Belongs to the thread that holds the log lock.
extern LocalSecond g_fileSecond;
