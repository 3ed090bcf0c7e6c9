#pragma once

#include <algorithm>
#include <cstdint>

#include "sim/card/CardState.h"

namespace vexo_sim {

/// The card must check for work at @p ns of its own clock, or earlier.
inline void wakeAt(CardState& s, std::uint64_t ns) { s.nextDueNs = std::min(s.nextDueNs, ns); }

inline std::uint64_t nsFromMs(std::uint32_t ms) { return std::uint64_t{ms} * 1'000'000; }

}  // namespace vexo_sim
