#pragma once

#include <cstring>

#include "sim/card/CardState.h"

namespace vexo_sim {

/// Puts a packet into a stream, open or not.
/// @return false when the ring is full: the packet is lost and counted as back-pressure.
inline bool put(UpStreamState& stream, const void* data, std::uint32_t size) {
    unsigned char* room = ring::reserve(stream.ring, size);
    if (room == nullptr) {
        ++stream.backPressure;
        return false;
    }
    if (size > 0) std::memmove(room, data, size);  // the data may lie in the same ring: a packet that goes out twice
    ring::commit(stream.ring, size);
    ++stream.packets;
    return true;
}

}  // namespace vexo_sim
