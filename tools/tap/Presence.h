#pragma once

#include <cstdint>

#include "tools/tap/PacketRing.h"

namespace tap {

/// Whether a program comes back for the next packet at once. A poll shifts a bit, and a packet sets it: so a packet
/// finds it at its end if its poll is the first one since the packet before, and the poll that finds no packet shifts
/// it out. One instruction each.
class Presence {
public:
    void poll() { __asm__("shll %0" : "+m"(m_bits) : : "cc"); }
    /// PacketRing::kAtOnce, or 0.
    std::uint32_t atOnce() const { return m_bits; }
    void packet() { __atomic_store_n(&m_bits, kTaken, __ATOMIC_RELAXED); }
    /// What comes next follows no packet.
    void begin() { __atomic_store_n(&m_bits, 0U, __ATOMIC_RELAXED); }

    /// For other threads: the program has not come back since the last packet.
    bool isAway() const { return __atomic_load_n(&m_bits, __ATOMIC_RELAXED) == kTaken; }

private:
    static constexpr std::uint32_t kTaken = PacketRing::kAtOnce >> 1;

    std::uint32_t m_bits = 0;
};

}  // namespace tap
