#pragma once

#include <ctime>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace vexo::check {

/// The lines of a day file that name an instrument.
std::set<std::string_view> instrumentLines(std::string_view content);

/// The day files that `vexo sim run` keeps for simulated cards of this user, in order of their names.
std::vector<std::string> keptDayFiles();

/// Whether a map is certainly that of a simulated card: it is a built-in list of the months up to @p written, or a part
/// of one, or the same as a day file that `vexo sim run` keeps for this user. A list of a scenario that was never run
/// so is not recognised.
bool isSimulatedMap(const std::set<std::string_view>& lines, std::time_t written);

}  // namespace vexo::check
