#pragma once

#include "sim/scenario/IniFile.h"
#include "sim/scenario/Scenario.h"

namespace vexo_sim::scenario {

/// Takes over a [fault NAME] section. Throws Rejected.
void readFault(const Section& section, Scenario& scenario);

std::vector<FaultKindName> faultKinds();

}  // namespace vexo_sim::scenario
