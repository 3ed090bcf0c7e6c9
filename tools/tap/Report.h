#pragma once

#include <string>

#include "capture/StandardStreams.h"

namespace tap {

/// Writes one line to standard error. Standard output is the application's.
inline void report(const std::string& line) { capture::printError("vexo tap: %s\n", line.c_str()); }

}  // namespace tap
