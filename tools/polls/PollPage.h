#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace polls {

/// The page's descriptor, as a decimal number.
inline constexpr char kVariable[] = "VEXO_POLLS_FD";
inline constexpr std::uint32_t kMagic = 0x4C4F5056;
inline constexpr std::size_t kStreams = 64;

/// One open stream. A cache line each: several threads poll several streams.
struct alignas(64) StreamSlot {
    std::atomic<std::uint32_t> owner;  ///< process that opened the stream; 0 = the slot is free
    std::atomic<std::uint64_t> polls;  ///< only the polling thread writes it
};

/// What an application and its supervisor share: an anonymous file of the supervisor's. It vanishes with the last of
/// the two, however they end.
struct PollPage {
    std::uint32_t magic;
    std::atomic<std::uint32_t> attached;  ///< 1 once a program has loaded the counting library
    std::atomic<std::uint32_t> ready;     ///< 1 once a channel's streams were open
    StreamSlot streams[kStreams];
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "two processes share it");
static_assert(sizeof(PollPage) == 64 * (kStreams + 1));

}  // namespace polls
