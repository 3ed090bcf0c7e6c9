#pragma once

#include "tools/cli/Color.h"

namespace vexo::terminal {

using cli::addColorOption;
using cli::isColored;

/// Writes out what standard output still holds. Throws Failure when it did not take everything. @return @p status
int statusOfOutput(int status);

}  // namespace vexo::terminal
