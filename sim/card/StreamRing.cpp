#include "sim/card/StreamRing.h"

#include <algorithm>
#include <cstring>

namespace vexo_sim::ring {
namespace {

std::uint32_t loadSize(const RingState& ring, std::uint64_t position) {
    std::uint32_t size;
    std::memcpy(&size, ring.bytes + offsetOf(ring, position), sizeof size);
    return size;
}

}  // namespace

void init(RingState& ring, std::uint32_t capacityBytes) {
    ring.capacity = capacityFor(capacityBytes);
    ring.tailSeen = ring.headSeen = ring.reserved = 0;
    ring.keptFrom = kKeepNothing;
    ring.tail.store(0, std::memory_order_relaxed);
    ring.head.store(0, std::memory_order_release);
}

bool tailLeavesRoom(RingState& ring, std::uint64_t end) {
    ring.tailSeen = std::min(ring.tail.load(std::memory_order_acquire), ring.keptFrom);
    return end - ring.tailSeen <= ring.capacity;
}

// A size that cannot be: only another process can have written it. The packets that are there are given up.
[[gnu::cold, gnu::noinline]] static PacketView skipDamage(RingState& ring) {
    drain(ring);
    return {};
}

PacketView peek(RingState& ring) {
    std::uint64_t tail = ring.tail.load(std::memory_order_relaxed);
    if (tail == ring.headSeen) {
        ring.headSeen = ring.head.load(std::memory_order_acquire);
        if (tail == ring.headSeen) return {};
    }
    std::uint32_t size = loadSize(ring, tail);
    if (size == kWrapMarker) {
        tail += ring.capacity - offsetOf(ring, tail);
        ring.tail.store(tail, std::memory_order_release);
        size = loadSize(ring, tail);
    }
    const std::uint64_t offset = offsetOf(ring, tail);
    if (!fits(offset, size)) return skipDamage(ring);
    return {ring.bytes + offset + kPrefix, size};
}

void keep(RingState& ring) { ring.keptFrom = ring.head.load(std::memory_order_relaxed); }

PacketView next(RingState& ring, std::uint64_t& position) {
    if (loadSize(ring, position) == kWrapMarker) position += ring.capacity - offsetOf(ring, position);
    const std::uint64_t offset = offsetOf(ring, position);
    const std::uint32_t size = loadSize(ring, position);
    position += footprint(size);
    if (!fits(offset, size)) return {};
    return {ring.bytes + offset + kPrefix, size};
}

void release(RingState& ring) {
    const std::uint64_t tail = ring.tail.load(std::memory_order_relaxed);
    ring.tail.store(tail + footprint(loadSize(ring, tail)), std::memory_order_release);
}

void drain(RingState& ring) {
    ring.headSeen = ring.head.load(std::memory_order_acquire);
    ring.tail.store(ring.headSeen, std::memory_order_release);
}

std::uint32_t capacityFor(std::uint32_t bytes) {
    std::uint32_t capacity = kMinRingBytes;
    while (capacity < bytes && capacity < kMaxRingBytes) capacity *= 2;
    return capacity;
}

std::uint32_t largestPacket(std::uint32_t capacity) { return capacity / 2 - std::uint32_t{kPrefix}; }

}  // namespace vexo_sim::ring
