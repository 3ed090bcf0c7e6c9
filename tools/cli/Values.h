#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace CLI {
class Validator;
}

/// Checks of the values of options. All programs word their errors alike: "--keep: 0 is not a whole number from 1 to
/// 9".
namespace cli {

/// A whole number in decimal digits. Use with transform(): zeros in front go, which would make the number octal.
CLI::Validator wholeNumber(std::uint64_t least, std::uint64_t most);

/// A process. Use with transform(), too.
CLI::Validator processId();

/// A number, also with a fraction.
CLI::Validator number(double least, double most);

/// One of some words.
CLI::Validator oneOf(const std::vector<std::string>& words);

/// A directory that is there.
CLI::Validator directory();

/// Why a new file of this name cannot be created; empty when it can, as far as that can be seen before.
std::string faultOfNewFile(const std::string& path);

}  // namespace cli
