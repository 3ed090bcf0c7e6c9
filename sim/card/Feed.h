#pragma once

#include <cstdint>

#include "sim/card/CardState.h"

/// Quotes: while the decode switch is on, each learned row with a mask is quoted in turn, on every open stream that
/// its mask names.
namespace vexo_sim::feed {

void powerOn(CardState& s);
/// To be called whenever something changed that decides whether the card quotes at all.
void refresh(CardState& s);
void forgetInstruments(CardState& s);
void instrumentLearned(CardState& s, std::uint32_t number);
void maskChanged(CardState& s, std::uint32_t table, std::uint32_t row);

/// Sends the quotes that are due; those that a long pause left over are never sent.
/// @return true when the readers set the pace and quotes went out: there may be room for more.
bool advance(CardState& s);

}  // namespace vexo_sim::feed
