#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/cli/Command.h"

/// Checks of the values of options. All programs word their errors alike: "--keep: 0 is not a whole number from 1 to
/// 9".
namespace cli {

/// A whole number in decimal digits. Zeros in front go: they would make the number octal.
Check wholeNumber(std::uint64_t least, std::uint64_t most);

/// A process.
Check processId();

/// A number, also with a fraction.
Check number(double least, double most);

/// One of some words.
Check oneOf(const std::vector<std::string>& words);

/// Any text but an empty one, which is what a variable of a script that is not set becomes.
Check notEmpty();

/// A directory that is there.
Check directory();

/// Why a file that was named cannot be read, and what to do: "No such file or directory; check the path".
/// @param error  errno
std::string faultOfReading(int error);

/// Why a new file of this name cannot be created; empty when it can, as far as that can be seen before.
std::string faultOfNewFile(const std::string& path);

}  // namespace cli
