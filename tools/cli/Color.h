#pragma once

#include <string>

#include "tools/cli/Command.h"

namespace cli {

// What a terminal is told before a text in a colour, and after it.
inline constexpr char kPlain[] = "\033[0m";
inline constexpr char kBold[] = "\033[1m";
inline constexpr char kFaint[] = "\033[2m";
inline constexpr char kRed[] = "\033[31m";
inline constexpr char kBoldRed[] = "\033[1;31m";
inline constexpr char kGreen[] = "\033[32m";
inline constexpr char kYellow[] = "\033[33m";
inline constexpr char kCyan[] = "\033[36m";

/// Adds --color to a program or subcommand. @param when  becomes auto, always or never
void addColorOption(const cli::Command& command, std::string& when);

/// Whether to colour what goes to standard output. With "auto" it must be a terminal that can, and NO_COLOR must not be
/// set.
bool isColored(const std::string& when);

/// The text in a colour, if colours are wanted.
std::string painted(const std::string& text, const char* color, bool colored);

}  // namespace cli
