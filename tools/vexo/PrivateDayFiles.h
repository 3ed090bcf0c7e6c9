#pragma once

#include <string>

namespace vexo {

/// The directory of this user for the day files of simulated cards, made when it is missing. Nobody else may read or
/// write in it. Removes files that no start loads any more. Throws Failure when there can be none.
/// @param command  that the user typed, with which the program's day file can be shared: "vexo sim run"
std::string privateDayFiles(const std::string& command);

}  // namespace vexo
