#pragma once

#include <cstddef>
#include <cstdint>

#include "sim/card/CardState.h"

namespace vexo_sim {

/// Fills @p list (room for kMaxInstruments) with a built-in list, single-leg rows before combinations, each table
/// from row 0. The contracts are those listed on @p date (YYYYMMDD; a date that is none counts as 2025-01-01).
/// @return the number of instruments.
std::uint32_t makeInstrumentList(InstrumentChoice choice, std::uint32_t date, Instrument* list);

/// Whether a list may be learned: rows inside their table and used once, ids not empty and terminated.
bool isValidList(const Instrument* list, std::size_t count);

}  // namespace vexo_sim
