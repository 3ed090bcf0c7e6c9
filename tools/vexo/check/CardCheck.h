#pragma once

#include <vector>

#include "tools/vexo/check/ConfigCheck.h"
#include "tools/vexo/check/Report.h"

namespace vexo::check {

/// Adds the state of the cards that the configurations name, and who holds the streams that they name. Reads registers
/// only: it writes none, takes no core's lock, and resets nothing. It opens the named streams and closes them again.
/// @return whether there is a card at each bus
bool checkCards(const std::vector<ConfigFacts>& programs, Report& report);

}  // namespace vexo::check
