#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace vexo::terminal {

/// Adds --color to a subcommand. @param when  becomes auto, always or never
void addColorOption(CLI::App& command, std::string& when);

/// Whether to colour what goes to standard output. With "auto" it must be a terminal that can, and NO_COLOR must not be
/// set.
bool isColored(const std::string& when);

/// Writes out what standard output still holds. Throws Failure when it did not take everything. @return @p status
int statusOfOutput(int status);

}  // namespace vexo::terminal
