#pragma once

#include <optional>
#include <string>

#include "scenario/Scenario.h"

namespace vexo_sim {

struct EmbeddedCard;

/// The scenario that the environment asks for (VEXO_SIM_SCENARIO).
/// @return false when it asks for one that cannot be used; standard error then says why, and there must be no card.
bool scenarioOfEnvironment(std::optional<scenario::Scenario>& wanted);

/// Switches one embedded card, which has memory, on as a scenario says.
void powerOnAs(const scenario::Scenario& scenario, EmbeddedCard& card);

/// Makes the calls of this process fail as a scenario says, besides those that fail already.
void addCallFailures(const scenario::Scenario& scenario);

/// Switches all embedded cards off and on as a scenario file says.
/// @param error  says why the file cannot be used
/// @return 0, or -1 with errno set: EINVAL for such a file, with nothing changed; ENOMEM.
int powerCycleAs(const char* path, std::string& error);

}  // namespace vexo_sim
