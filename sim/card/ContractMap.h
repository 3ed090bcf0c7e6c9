#pragma once

#include "sim/card/CardState.h"

/// Contract-map packets (type 2) on channel 0's stream: which id the card decodes under which row. While their
/// transmission is on, all learned instruments go up round after round; none is ever skipped.
namespace vexo_sim::contract_map {

/// To be called whenever something changed that decides whether packets may be sent.
void refresh(CardState& s);

/// Sends the packets that are due.
void advance(CardState& s);

/// By its type; a packet too short for one is none.
bool isMapPacket(const unsigned char* packet, std::uint32_t size);

}  // namespace vexo_sim::contract_map
