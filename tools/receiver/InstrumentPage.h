#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

/// Memory that vexo-receiver shares with the `vexo watch` that started it: packets by instrument.
namespace receiver {

inline constexpr std::size_t kIdRoom = 32;      // a longer id counts with its first characters
inline constexpr std::size_t kSlots = 1 << 15;  // twice the rows of a card

struct Slot {
    char id[kIdRoom];                    // zero bytes behind it; whole once there is a packet
    std::atomic<std::uint64_t> packets;  // 0: the slot is free
};

/// Zero bytes are an empty page. The receiver alone writes.
struct InstrumentPage {
    std::atomic<std::uint64_t> isStarted;  // 1: the library has started
    std::atomic<std::uint64_t> unknown;    // market-data packets without an id: no layout describes them
    std::atomic<std::uint64_t> crowded;    // packets of instruments for which there was no room
    Slot slots[kSlots];
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "two processes share it");

}  // namespace receiver
