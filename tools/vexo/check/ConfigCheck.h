#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/vexo/check/Report.h"
#include "tools/vexo/check/ValueCheck.h"

namespace vexo::check {

/// What the checks of the host need of a configuration.
struct ConfigFacts {
    std::string file;
    std::size_t deviceLine = 0;
    Device device;  ///< not valid when the file names none
    long cpu = -1;  ///< that the thread is to be pinned to
    std::size_t cpuLine = 0;
    long hardware = -1;  ///< version that the card needs for this library
    std::size_t hardwareLine = 0;
    std::map<std::string, std::size_t> lines;  ///< of the keys that count, by "section:key" in lower case
};

/// Adds everything that is wrong with a configuration file to @p report. Throws std::runtime_error when the file cannot
/// be read.
ConfigFacts checkConfig(const std::string& path, Report& report);

/// Adds what is wrong between the configurations of several programs on one host.
void checkTogether(const std::vector<ConfigFacts>& programs, Report& report);

}  // namespace vexo::check
