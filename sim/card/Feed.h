#pragma once

#include <cstdint>

#include "sim/card/CardState.h"

/// Quotes. While the decode switch is on, the card quotes each learned row with a mask in turn, on every open stream
/// that the mask names.
namespace vexo_sim::feed {

void powerOn(CardState& s);
/// Call this after every change that decides whether the card quotes at all.
void refresh(CardState& s);
void forgetInstruments(CardState& s);
void instrumentLearned(CardState& s, std::uint32_t number);
void maskChanged(CardState& s, std::uint32_t table, std::uint32_t row);

/// Sends the quotes that are due. Quotes missed in a long pause are never sent.
/// @return true when the readers set the pace and quotes went out: there may be room for more.
bool advance(CardState& s);

}  // namespace vexo_sim::feed
