#pragma once

#include <cstddef>
#include <ctime>

/// The local calendar of one second, as log lines need it. Breaking a time down costs more than writing the line; the
/// lines of one second share it.
struct LocalSecond {
    static constexpr std::size_t kTextSize = 17;

    std::time_t when;
    char text[kTextSize];  ///< YYYYMMDD-HH:MM:SS, not terminated
    long date;             ///< YYYYMMDD
    long utcOffset;        ///< seconds east of UTC
};

/// @return the second @p when in the process's time zone; null when the C library cannot tell the local time. A zone
///         that the process changed since the last call shows at once, or in the next second where both zones have
///         the same names and standard offset. The log lock is held, and the result valid, until it is released.
const LocalSecond* localSecondOf(std::time_t when);
/// Forgets the last one. The log lock is held.
void forgetLocalSecond();
