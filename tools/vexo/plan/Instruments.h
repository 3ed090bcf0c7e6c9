#pragma once

#include <string>
#include <vector>

namespace vexo::plan {

struct Instrument {
    std::string id;
    unsigned short index;
};

/// What the card of a plan announces.
struct Instruments {
    std::vector<Instrument> list;
    std::string origin;     ///< in words
    std::string file;       ///< that they come from; empty for a built-in list
    bool isLoaded = false;  ///< a start now loads them from this day file; otherwise it learns them from the card
};

inline constexpr char kDayFile[] = "day-file";
inline constexpr char kSimulated[] = "simulated";
inline constexpr char kFull[] = "full";

/// @param asked  one of the words above, or the path of a day file or a text file. Empty: the day file that a start now
///               loads; without one the newest of the last days; without one the simulated card's list.
/// Throws Failure when there is no such file, or when it cannot be used.
Instruments chooseInstruments(const std::string& asked);

}  // namespace vexo::plan
