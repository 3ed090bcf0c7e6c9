#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "tools/vexo/check/ConfigCheck.h"
#include "tools/vexo/check/Report.h"

namespace vexo::check {

/// Where the checks of the host look. Tests give directories of their own.
struct HostPlaces {
    std::string directory = ".";  ///< in which the program will run
    std::string cpus = "/sys/devices/system/cpu";
    bool cardIsRead = false;  ///< another check says whether the card is there
};

/// Adds what the host means for a start of these programs. Changes nothing on it, and judges for the user that runs the
/// check. Behind `vexo sim run` it tells, too, when a simulated card is missing.
void checkHost(const std::vector<ConfigFacts>& programs, const HostPlaces& places, Report& report);

// The parts of checkHost().
/// @return whether there is a real card
bool checkBoard(Report& report);
void checkCpu(const ConfigFacts& facts, const HostPlaces& places, Report& report);
void checkDirectory(const HostPlaces& places, Report& report);
/// @param bytes  that this user can still write in the directory
void checkSpace(const std::string& directory, std::uintmax_t bytes, Report& report);
/// @param utcOffset  of the local time, in seconds
void checkTimeZone(long utcOffset, Report& report);
void checkSimulatedCards(const std::vector<ConfigFacts>& programs, Report& report);
/// @param cards    those that have a master
/// @param hasCard  a real one
void checkDayFiles(const std::set<std::uint32_t>& cards, bool hasCard, Report& report);

/// Whether a list of the kernel such as "0-3,8" has a number.
bool listHas(const std::string& list, long number);

}  // namespace vexo::check
