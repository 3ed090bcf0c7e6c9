#pragma once

#include <cstdint>

namespace vexo_sim {

/// What a packet fault does to the packets that it strikes.
enum class PacketFaultKind : std::uint32_t {
    kDrop,        // not delivered; its numbers are used up
    kDouble,      // delivered twice
    kCut,         // ends after `value` bytes
    kRunt,        // ends after 0, 1 ... 11 bytes, one more with each packet struck, then from 0 again
    kType,        // the type in the head becomes `value`
    kHeadLength,  // the length in the head becomes `value`
    kFlip,        // one bit behind the head, which the card's generator chooses, is wrong
    kMapLength,   // contract map: the length of message `message` becomes `value`
    kMapArea,     // contract map: the length of the message area becomes `value`
    kMapCount,    // contract map: the number of learned instruments becomes `value`
    kMapIndex,    // contract map: the index in message `message` becomes `value`
    kEnd
};

inline constexpr std::uint32_t kQuotePackets = 1;
inline constexpr std::uint32_t kMapPackets = 2;
inline constexpr std::uint32_t kMillion = 1'000'000;
inline constexpr std::uint32_t kPacketFaults = 32;

/// A rule: which of the packets that the card sends by itself are changed, and how. It counts the packets of its
/// channels and sort from 1. A quote that goes to three channels is three packets.
struct PacketFault {
    PacketFaultKind kind = PacketFaultKind::kDrop;
    std::uint32_t channels = 0xFFFF;                      // bit n = channel n
    std::uint32_t packets = kQuotePackets | kMapPackets;  // which sorts; kinds of the contract map strike that alone
    std::uint32_t first = 1;                              // the first packet that may be struck
    std::uint32_t every = 1;                              // from there on each n-th one; from 1
    std::uint32_t times = 0;                              // strikes until the rule rests; 0 = for good
    std::uint32_t perMillion = kMillion;                  // chance of each of those packets, by the card's generator
    std::uint32_t value = 0;                              // what it means depends on the kind
    std::uint32_t message = 0;                            // number of a message in a contract-map packet, from 0
};

/// False for an unknown kind, no channel, no sort of packet, a `first` or `every` of 0, or a chance above a million.
bool isValid(const PacketFault& fault);

/// A rule at work.
struct PacketFaultState {
    PacketFault rule;
    std::uint64_t seen;
    std::uint64_t strikes;
};

}  // namespace vexo_sim
