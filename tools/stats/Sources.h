#pragma once

#include <VexoZceMdStatsPage.h>
#include <array>
#include <atomic>
#include <cstdint>

#include "tools/data/Sequence.h"
#include "tools/stats/Absence.h"
#include "tools/stats/CardCounters.h"
#include "tools/tap/NextCalls.h"
#include "tools/tap/Origins.h"

/// The statistics page of this process: `vexo tap --stats-only` loads it before the card's library.
namespace stats {

using Handler = enyx_hw_a2c_stream_handler;
using Poll = decltype(&::enyx_hw_a2c_stream_poll_once);

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
    vexo::data::SequenceCounter sequence;

    // Of the thread that reads the card's counters.
    CardCounters card;
    Absence absence;

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
