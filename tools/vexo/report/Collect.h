#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/vexo/check/HostCheck.h"
#include "tools/vexo/report/TarFile.h"

namespace vexo::report {

/// What a report is to hold.
struct Wanted {
    std::vector<std::string> configs;
    check::HostPlaces places;
    std::size_t lines = 0;  ///< of the end of a log
    bool masked = false;    ///< without passwords and addresses
};

/// Everything that goes into a report, and nothing else. A file that is missing is left out; a configuration that
/// cannot be read ends vexo.
std::vector<Part> collect(const Wanted& wanted);

}  // namespace vexo::report
