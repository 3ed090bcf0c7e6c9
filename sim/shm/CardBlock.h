#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "sim/card/CallFailure.h"
#include "sim/card/Card.h"

namespace vexo_sim {

/// The start of every card in shared memory, of whatever version. Never changes.
struct BlockHeader {
    char magic[8];
    std::uint32_t layout;  // version of all that follows
    std::uint32_t bytes;   // of the whole block
};
inline constexpr char kCardMagic[8] = {'V', 'E', 'X', 'O', 'C', 'A', 'R', 'D'};
inline constexpr std::uint32_t kCardLayout = 4;

/// Who holds a lock: 0 for nobody, else a word that OwnerBook makes. Other users of the card can write anything here.
using OwnerWord = std::atomic<std::uint64_t>;

inline constexpr std::uint32_t kMaxSharedFailures = 32;

/// What the host of a card tells other processes. Written once, before the card is visible.
struct HostInfo {
    std::uint64_t startedAt;  // seconds since 1970
    std::int32_t pid;
    std::uint32_t bus;
    char scenario[256];
    char description[256];
    std::uint32_t failureCount;
    CallFailure failures[kMaxSharedFailures];
};

/// A card and all that its users share, in memory shared by several processes. Zero bytes and init() make a card that
/// is switched off. It contains no pointer and no object of the C library, so that a writer can change only the card's
/// own values. Check a value from here before you use it as an index or a length.
struct CardBlock {
    BlockHeader header;
    HostInfo host;
    OwnerWord stateOwner;
    OwnerWord rootOwner;
    OwnerWord registerOwner;
    std::atomic<std::uint64_t> tickets;    // makes owner words unique
    std::atomic<std::uint64_t> contended;  // how often a process found a lock taken
    std::atomic<std::uint32_t> place;      // where the state lies now: see StateHome
    std::atomic<std::uint32_t> places;     // how many places were reserved beside `state`
    CardState state;

    void init();
};
static_assert(std::is_standard_layout_v<CardBlock>, "the block is shared between programs");
static_assert(std::is_trivially_destructible_v<CardBlock>, "nothing of it belongs to one process");

/// Whether a header is that of a card of this version.
bool isCompatible(const BlockHeader& header);

}  // namespace vexo_sim
