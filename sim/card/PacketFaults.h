#pragma once

#include <cstdint>

#include "sim/card/CardState.h"

/// Changes packets on their way into a stream, by the rules in the card's state. The same rules, seed and packets give
/// the same bytes.
namespace vexo_sim::packet_faults {

/// @return the rule's number, or -1 when it is not valid or there is no room for another.
int add(CardState& s, const PacketFault& rule);
void clear(CardState& s);

/// Stops the card with the packet after the next @p packets; 0 = never.
void stopAfter(CardState& s, std::uint64_t packets);

/// Whether any rule or planned stop is active. While none is, the feed calls nothing else here.
inline bool armed(const CardState& s) { return s.faults.armed; }

/// The result for one packet.
struct Verdict {
    std::uint32_t copies;  // 0, 1 or more
    std::uint32_t size;    // never larger than it was
};

/// Changes the packet in place. @p sort is kQuotePackets or kMapPackets.
Verdict spoil(CardState& s, std::uint32_t channel, std::uint32_t sort, unsigned char* packet, std::uint32_t size);

/// The same for a packet that is reserved in its ring. Commits the result.
void commitSpoiled(CardState& s, std::uint32_t channel, std::uint32_t sort, unsigned char* packet, std::uint32_t size);

}  // namespace vexo_sim::packet_faults
