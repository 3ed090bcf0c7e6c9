#pragma once

#include "sim/card/CardState.h"

/// Contract-map packets (type 2) on channel 0's stream say which row the card decodes each id under. While transmission
/// is on, the card sends all learned instruments round after round and never skips one.
namespace vexo_sim::contract_map {

/// Call this after every change that decides whether packets may be sent.
void refresh(CardState& s);

/// Sends the packets that are due.
void advance(CardState& s);

/// Judged by the type. A packet too short to have a type is none.
bool isMapPacket(const unsigned char* packet, std::uint32_t size);

}  // namespace vexo_sim::contract_map
