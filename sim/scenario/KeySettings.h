#pragma once

#include <string>
#include <vector>

namespace vexo_sim::scenario {

/// The environment variable that hands settings to the card of a process, one a line.
inline constexpr char kSettingsVariable[] = "VEXO_SIM_SET";

/// Single keys of a scenario, each written as section.key=value. They replace the same keys of the scenario file.
struct KeySettings {
    std::string option;  // how they were given, for messages: "--set"
    std::vector<std::string> texts;

    /// What a message names: "--set card.seed=7".
    std::string placeOf(const std::string& text) const { return option + " " + text; }
};

/// The settings of kSettingsVariable. @param lines  its value
KeySettings settingsOfEnvironment(const std::string& lines);
/// The opposite: what the variable must hold.
std::string linesOf(const KeySettings& settings);

/// Makes every path absolute, for a process that may change its directory. A malformed setting stays as it is; load()
/// rejects it.
KeySettings withAbsolutePaths(const KeySettings& settings);

}  // namespace vexo_sim::scenario
