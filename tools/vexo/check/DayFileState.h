#pragma once

#include <sys/types.h>
#include <cstddef>
#include <ctime>
#include <string>

#include "tools/vexo/check/Report.h"

namespace vexo::check {

/// What a start of a master would find in the place of the day file.
struct DayFileState {
    std::string path;
    bool present = false;
    bool writable = true;    ///< this user could write it, or create it
    std::string unreadable;  ///< why it cannot be read; empty when it can
    std::string distrusted;  ///< why the library would not load it
    bool complete = false;   ///< it has its end tag
    std::size_t instruments = 0;
    bool simulated = false;  ///< it is the built-in instrument list of the simulated card
    long age = 0;            ///< seconds since it was written
    std::string owner;
    pid_t writer = 0;  ///< process that is writing it; -1 for one that cannot be named, 0 for none
};

/// "/.zce_YYYYMMDD_am", from 17:00 on "_pm".
std::string todaysDayFile(std::time_t now);

DayFileState stateOfDayFile(const std::string& path);

/// The state in words, and how much it matters to a start of a master.
/// @param hasCard    a real one: the map of a simulated card must not reach it
/// @param isPrivate  the file is a simulated card's own, which no start on a real card loads
Finding findingOf(const DayFileState& state, bool hasCard, bool isPrivate = false);

}  // namespace vexo::check
