#pragma once

#include "sim/scenario/IniFile.h"
#include "sim/scenario/Scenario.h"

namespace vexo_sim::scenario {

/// Takes over a section other than [fault NAME]. Throws Rejected.
void readCardSection(const Section& section, const std::string& path, Scenario& scenario);

/// What no key alone can tell: values that exclude each other. Throws Rejected.
void checkTogether(const IniFile& file, const Scenario& scenario);

std::vector<KeyName> cardKeys();

}  // namespace vexo_sim::scenario
