#pragma once

#include <fcntl.h>
#include <unistd.h>
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
    std::atomic<std::uint32_t> owner;       ///< process that opened the stream; 0 = the slot is free
    std::atomic<std::uint32_t> isHeld;      ///< 1: the owner keeps a lock as long as it runs its program, see lockOf()
    std::atomic<std::uint64_t> ownerStart;  ///< field 22 of its /proc/PID/stat; 0 = it cannot be told
    std::atomic<std::uint64_t> polls;       ///< only the polling thread writes it
};

/// The byte of the page that a process locks. The lock goes when the process ends, and when it becomes another program:
/// its streams are gone then, too.
inline struct flock lockOf(std::uint32_t process, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(process);
    lock.l_len = 1;
    return lock;
}

/// What an application and its supervisor share: an anonymous file of the supervisor's. It vanishes with the last of
/// the two, however they end.
struct PollPage {
    std::uint32_t magic;
    std::atomic<std::uint32_t> attached;  ///< 1 once a program has loaded the counting library
    std::atomic<std::uint32_t> ready;     ///< 1 once a channel's streams were open
    std::uint64_t pidNamespace;           ///< of the supervisor; other processes' numbers mean nothing to it
    StreamSlot streams[kStreams];
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "two processes share it");
static_assert(sizeof(PollPage) == 64 * (kStreams + 1));

}  // namespace polls
