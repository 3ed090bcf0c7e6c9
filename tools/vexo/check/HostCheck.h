#pragma once

#include <string>
#include <vector>

#include "tools/vexo/check/ConfigCheck.h"
#include "tools/vexo/check/Report.h"

namespace vexo::check {

/// Where the checks of the host look. Tests give directories of their own.
struct HostPlaces {
    std::string directory = ".";  ///< in which the program will run
    std::string cpus = "/sys/devices/system/cpu";
    std::string dayFiles = "/tmp";
};

/// Adds what the host means for a start of these programs. Changes nothing on it, and judges for the user that runs the
/// check.
void checkHost(const std::vector<ConfigFacts>& programs, const HostPlaces& places, Report& report);

// The parts of checkHost().
/// @return whether there is a card
bool checkBoard(Report& report);
void checkCpu(const ConfigFacts& facts, const HostPlaces& places, Report& report);
void checkDirectory(const HostPlaces& places, Report& report);

/// Whether a list of the kernel such as "0-3,8" has a number.
bool listHas(const std::string& list, long number);

}  // namespace vexo::check
