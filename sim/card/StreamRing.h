#pragma once

#include <atomic>
#include <cstdint>

#include "sim/card/CardConfig.h"

namespace vexo_sim {

/// Bounded packet ring, one producer (the card) and one consumer (the reader of the stream). A packet always lies
/// in one piece, so a reader gets a pointer and nothing is copied. Zero bytes plus init() make an empty ring.
struct RingState {
    // producer's line
    alignas(64) std::atomic<std::uint64_t> head;
    std::uint64_t tailSeen;
    std::uint64_t reserved;  // where the packet being written starts
    std::uint64_t keptFrom;  // nothing from here on is written over, taken or not; kKeepNothing: all taken may be
    // consumer's line
    alignas(64) std::atomic<std::uint64_t> tail;
    std::uint64_t headSeen;
    alignas(64) std::uint64_t capacity;
    alignas(64) unsigned char bytes[kMaxRingBytes];
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "the ring is shared between processes");

/// A packet inside the ring; data is null when there is none.
struct PacketView {
    const unsigned char* data = nullptr;
    std::uint32_t size = 0;
};

inline constexpr std::uint64_t kKeepNothing = ~std::uint64_t{0};

namespace ring {

/// Empties the ring. No reader and no writer may be active.
void init(RingState& ring, std::uint32_t capacityBytes);

/// Room for a packet of up to @p size bytes, or null when the ring is too full. Nothing is visible before commit().
unsigned char* reserve(RingState& ring, std::uint32_t size);
/// Publishes the reserved packet with the @p size really used.
void commit(RingState& ring, std::uint32_t size);

/// The oldest packet, without taking it. Valid until release().
PacketView peek(RingState& ring);
/// Takes the packet that peek() returned.
void release(RingState& ring);
/// Takes everything.
void drain(RingState& ring);

/// From now on packets stay in the ring until forEachKept() has seen them. For the producer.
void keep(RingState& ring);
/// The packets put since the last call or keep(), whether the reader has taken them or not: visit(PacketView).
template <typename Visit>
void forEachKept(RingState& ring, Visit visit);

/// Ring size for a configured number of bytes: the next power of two.
std::uint32_t capacityFor(std::uint32_t bytes);
/// The largest packet that a ring of this capacity holds wherever its write position stands.
std::uint32_t largestPacket(std::uint32_t capacity);

/// The packet at a position that one was put at, or at which the ring wraps; moves @p position behind it.
PacketView next(RingState& ring, std::uint64_t& position);

template <typename Visit>
void forEachKept(RingState& ring, Visit visit) {
    const std::uint64_t head = ring.head.load(std::memory_order_relaxed);
    // Positions that cannot be were written by another process: nothing is kept then.
    std::uint64_t position = ring.keptFrom;
    while (head - position - 1 < kMaxRingBytes) {
        const PacketView packet = next(ring, position);
        if (packet.data != nullptr) visit(packet);
    }
    ring.keptFrom = head;
}

}  // namespace ring
}  // namespace vexo_sim
