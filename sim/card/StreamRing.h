#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "sim/card/CardConfig.h"

namespace vexo_sim {

inline constexpr std::size_t kPageBytes = 4096;

/// Bounded packet ring, one producer (the card) and one consumer (the reader of the stream). A packet always lies
/// in one piece, so a reader gets a pointer and nothing is copied. Zero bytes plus init() make an empty ring. A ring
/// has pages of its own: it stays where it is when the rest of a shared card's state moves.
struct RingState {
    // producer's line
    alignas(kPageBytes) std::atomic<std::uint64_t> head;
    std::uint64_t tailSeen;
    std::uint64_t reserved;  // where the packet being written starts
    std::uint64_t keptFrom;  // nothing from here on is written over, taken or not; kKeepNothing: all taken may be
    // consumer's line
    alignas(64) std::atomic<std::uint64_t> tail;
    std::uint64_t headSeen;
    alignas(64) std::uint64_t capacity;
    alignas(64) unsigned char bytes[kMaxRingBytes];
};
static_assert(sizeof(RingState) % kPageBytes == 0);
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

// ---- the rest is how it is done ----

// Each packet is preceded by its size; both start on 8 bytes. The marker sends the reader back to the start.
inline constexpr std::uint64_t kPrefix = 8;
inline constexpr std::uint32_t kWrapMarker = 0xFFFFFFFF;

constexpr std::uint64_t footprint(std::uint32_t size) {
    return kPrefix + ((std::uint64_t{size} + 7) & ~std::uint64_t{7});
}

// Always inside the ring's bytes and on 8 of them, whatever another process has written into the capacity or a
// position.
inline std::uint64_t offsetOf(const RingState& ring, std::uint64_t position) {
    return position & (ring.capacity - 1) & (kMaxRingBytes - kPrefix);
}

// Whether a packet of that size lies inside the ring's bytes.
inline bool fits(std::uint64_t offset, std::uint32_t size) { return size <= kMaxRingBytes - kPrefix - offset; }

inline void storeSize(RingState& ring, std::uint64_t position, std::uint32_t size) {
    std::memcpy(ring.bytes + offsetOf(ring, position), &size, sizeof size);
}

// Reads the reader's present position.
bool tailLeavesRoom(RingState& ring, std::uint64_t end);

inline unsigned char* reserve(RingState& ring, std::uint32_t size) {
    const std::uint64_t head = ring.head.load(std::memory_order_relaxed);
    const std::uint64_t offset = offsetOf(ring, head);
    const bool wraps = offset + footprint(size) > ring.capacity;
    const std::uint64_t start = wraps ? head + (ring.capacity - offset) : head;
    const std::uint64_t end = start + footprint(size);
    if (end - ring.tailSeen > ring.capacity && !tailLeavesRoom(ring, end)) return nullptr;
    const std::uint64_t at = wraps ? offsetOf(ring, start) : offset;
    if (!fits(at, size)) return nullptr;
    if (wraps) storeSize(ring, head, kWrapMarker);
    ring.reserved = start;
    return ring.bytes + at + kPrefix;
}

inline void commit(RingState& ring, std::uint32_t size) {
    storeSize(ring, ring.reserved, size);
    ring.head.store(ring.reserved + footprint(size), std::memory_order_release);
}

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
