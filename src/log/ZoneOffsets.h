#pragma once

#include <ctime>

/// The UTC offsets of the process's time zone for the coming year, computed in advance: a signal handler may not call
/// the time-zone functions of the C library.
namespace zone_offsets {

/// Computes the offsets around @p now, unless they are known already. The caller holds the log lock.
/// @param utcOffset    of @p now
/// @param zoneChanged  the known offsets belong to another zone
void learn(std::time_t now, long utcOffset, bool zoneChanged);

/// Seconds east of UTC at @p when, in the zone that was learned last; 0 when none was. A signal handler may call it.
long at(std::time_t when);

}  // namespace zone_offsets
