#pragma once

#include <cstdint>

#include "tools/cli/Color.h"

namespace vexo::terminal {

using cli::addColorOption;
using cli::isColored;

/// The colour of a log line's level; empty for INFO, and for a line without a level.
const char* colorOfLevel(std::uint8_t level);

/// Writes out what standard output still holds. Throws Failure when it did not take everything. @return @p status
int statusOfOutput(int status);

}  // namespace vexo::terminal
