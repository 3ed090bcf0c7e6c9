#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/vexo/plan/Plan.h"

namespace vexo::plan {

/// A plan as it is shown.
struct Shown {
    const Instruments& instruments;
    const Plan& plan;
    std::vector<std::string> against;  ///< configurations that it is compared with; empty for none
    std::vector<CardDifference> differences;
};

/// @param all  every name and every row, not only the first names
std::string asText(const Shown& shown, bool all, bool colored);
std::string asJson(const Shown& shown);

}  // namespace vexo::plan
