#pragma once

#include "sim/scenario/IniFile.h"
#include "sim/scenario/Scenario.h"

namespace vexo_sim::scenario {

/// Takes over a section other than [fault NAME]. Throws Rejected.
void readCardSection(const Section& section, Scenario& scenario);

/// Whether the value of a key is a path.
bool isPath(const std::string& section, const std::string& key);

/// Rejects values that exclude each other. Throws Rejected.
void checkTogether(const IniFile& file, const Scenario& scenario);

std::vector<KeyName> cardKeys();

}  // namespace vexo_sim::scenario
