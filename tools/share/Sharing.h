#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "tools/share/RingWriter.h"
#include "tools/tap/NextCalls.h"
#include "tools/tap/Origins.h"

/// The streams of this process whose packets are shared: `vexo tap --share` loads this before the card's library.
namespace share {

/// A stream. Its place in the table is used again when it was closed; its ring is never deleted, because a poll may be
/// under way.
struct Shared {
    constexpr explicit Shared(const void* handle = nullptr) : stream(handle) {}

    std::atomic<const void*> stream;
    // The program's, of the poll that is under way. One thread at a time polls a stream.
    enyx_hw_a2c_stream_handler handler = nullptr;
    void* context = nullptr;
    std::uint32_t limit = 0;  // a length above it is not trusted: there may be no bytes to copy
    RingWriter* ring = nullptr;

    // No stream has this address, and a poll of null, which is an error, does not find a closed stream.
    static constexpr char kNoStream = 0;
    bool isOpen() const {
        const void* const now = stream.load(std::memory_order_relaxed);
        return now != nullptr && now != &kNoStream;
    }
};

inline constexpr std::size_t kStreams = 32;
[[gnu::visibility("hidden")]] extern std::array<Shared, kStreams> g_shared;

/// The open stream, or null. Takes no lock. @param stream  not null
inline Shared* find(const void* stream) {
    for (Shared& shared : g_shared)
        if (shared.stream.load(std::memory_order_acquire) == stream) return &shared;
    return nullptr;
}

/// Shares what @p stream delivers from now on.
void openStream(const enyx_hw_a2c_stream* stream, const tap::Origin& origin);
/// Reads the card's counters a last time, and takes the ring away.
void closeStream(const void* stream);

}  // namespace share
