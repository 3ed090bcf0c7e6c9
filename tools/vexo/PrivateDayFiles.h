#pragma once

#include <string>

namespace vexo {

/// The directory of this user for the day files of simulated cards, made when it is missing. Nobody else may read or
/// write in it. Removes files that no start loads any more. Throws Failure when there can be none.
std::string privateDayFiles();

}  // namespace vexo
