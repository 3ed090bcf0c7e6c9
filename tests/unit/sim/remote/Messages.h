#pragma once

#include <cstdint>
#include <numeric>
#include <vector>

#include "sim/remote/Wire.h"

namespace vexo_sim::wire {

using Packet = std::vector<unsigned char>;

inline constexpr std::uint32_t kLargestPacket = 107;  // of PacketOf()

/// A packet that says its number, of a size that depends on it.
inline Packet PacketOf(std::uint64_t number) {
    Packet packet(8 + number % 100);
    std::iota(packet.begin(), packet.end(), static_cast<unsigned char>(number));
    __builtin_memcpy(packet.data(), &number, sizeof number);
    return packet;
}

/// A relay's message with packets number @p head.first and the following @p count - 1.
inline Packet MessageOf(const Head& head, std::uint32_t count) {
    MessageWriter writer(kHeadBytes + count * footprint(kLargestPacket));
    for (std::uint32_t n = 0; n < count; ++n) {
        const Packet packet = PacketOf(head.first + n);
        writer.add(head.timeNs + n, packet.data(), static_cast<std::uint32_t>(packet.size()));
    }
    const Bytes bytes = writer.finish(head);
    return {bytes.data, bytes.data + bytes.size};
}

}  // namespace vexo_sim::wire
