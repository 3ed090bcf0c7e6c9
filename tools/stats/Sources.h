#pragma once

#include <VexoZceMdStatsPage.h>
#include <array>
#include <atomic>
#include <cstdint>

#include "tools/tap/NextCalls.h"
#include "tools/tap/Origins.h"

/// The statistics page of this process: `vexo tap --stats-only` loads it before the card's library.
namespace stats {

using Handler = enyx_hw_a2c_stream_handler;
using Poll = decltype(&::enyx_hw_a2c_stream_poll_once);

/// How far a counter of the card had come.
struct CardCounter {
    std::uint32_t last = 0;
    bool hasBase = false;  // what it showed when the stream was opened is not this stream's
};

/// A stream. The poll's own values lie in a page of private memory, directly before the block of the shared page: so
/// one register reaches both.
struct alignas(vexo_stats::kBlockBytes) Source {
    constexpr explicit Source(const void* handle = nullptr) : stream(handle) {}

    // A thread at a time polls a stream.
    std::atomic<const void*> stream;  // see isOpen()
    Handler handler = nullptr;        // the program's, of this poll
    void* context = nullptr;
    Handler counting = nullptr;  // what the card calls instead: counts, then calls the handler
    Poll poll = nullptr;         // the card's
    std::uint32_t next = 0;      // expected sequence number
    bool hasNext = false;        // since the stream was opened, a packet had a number
    bool isSimulated = false;    // the card, when the stream was opened

    // Of the thread that reads the card's counters.
    CardCounter backPressure;
    CardCounter fifoErrors;
    CardCounter errors;
    std::uint64_t longBefore = 0;  // callbacks longer than the ring lasts
    std::uint64_t pollsBefore = 0;
    std::uint64_t packetBefore = 0;
    std::uint64_t lookedAt = 0;
    bool wasLong = false;
    // When the stream was opened.
    std::uint64_t lostAtOpen = 0;
    std::uint64_t missingAtOpen = 0;
    std::uint64_t pressureAtOpen = 0;

    alignas(vexo_stats::kBlockBytes) vexo_stats::Stream counts{};

    // No stream has this address, and a poll of null, which is an error, does not find a closed stream.
    static constexpr char kNoStream = 0;
    bool isOpen() const {
        const void* const now = stream.load(std::memory_order_relaxed);
        return now != nullptr && now != &kNoStream;
    }
    void close() { stream.store(&kNoStream, std::memory_order_release); }
};
static_assert(sizeof(Source) == 2 * vexo_stats::kBlockBytes);

[[gnu::visibility("hidden")]] extern std::array<Source, vexo_stats::kStreams> g_sources;

/// The source of an open stream, or null. Takes no lock. @param stream  not null
inline Source* find(const void* stream) {
    for (Source& source : g_sources) {
        if (source.stream.load(std::memory_order_acquire) == stream) return &source;
    }
    return nullptr;
}

/// Notes that a step happened now: the first time, or each time.
void noteFirst(vexo_stats::Step step);
void noteLast(vexo_stats::Step step);

/// Counts what @p stream delivers from now on, with @p counting in the place of the program's handler.
void openStream(enyx_hw_a2c_stream* stream, const tap::Origin& origin, Handler counting);
/// Reads the card's counters a last time.
void closeStream(const void* stream);

}  // namespace stats
