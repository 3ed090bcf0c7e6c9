#pragma once

#include <cstdint>

#include "sim/card/CardState.h"

/// The card's static-data parser. The exchange repeats the list of its instruments all day; the card gives each
/// instrument a table row when it first meets it.
namespace vexo_sim::static_data {

/// Forgets all instruments, the masks and ids of all rows, and the counters.
void forget(CardState& s);
/// Forgets, then learns from the beginning.
void restart(CardState& s);

/// Learns what is due, and repairs the ids that the host overwrote when the static data comes round again.
void advance(CardState& s);

/// Recomputes what depends on the learned instruments and the masks of their rows.
void repair(CardState& s);

/// The host changed an id word of the row.
void idOverwritten(CardState& s, std::uint32_t table, std::uint32_t row);

}  // namespace vexo_sim::static_data
