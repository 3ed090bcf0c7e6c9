#pragma once

#include <string>

namespace CLI {
class Option;
}

/// What --help and the manual pages say of an option besides its names and its description.
namespace cli {

/// What stands for its value: "N"; empty for a flag.
std::string valueOf(const CLI::Option& option);

/// Which values it takes: "1 to 9"; empty when that is not fixed.
std::string rangeOf(const CLI::Option& option);

/// The other options that it goes with: "needs --hosted; not with --json, --loss"; empty when that is any.
std::string conditionsOf(const CLI::Option& option);

}  // namespace cli
