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

/// A stream. The poll's own values lie in a page of private memory, directly before the block of the shared page: so
/// one register reaches both.
struct alignas(vexo_stats::kBlockBytes) Source {
    // The poll compares the first three with its arguments. A thread at a time polls a stream.
    std::atomic<const void*> stream{nullptr};  // see isOpen()
    Handler handler = nullptr;
    void* context = nullptr;
    Handler counting = nullptr;  // what the card calls instead: counts, then calls the handler
    vexo::data::SequenceCounter sequence;

    // Of the thread that reads the card's counters.
    CardCounters card;
    Absence absence;

    alignas(vexo_stats::kBlockBytes) vexo_stats::Stream counts{};

    // No stream has this address, and a poll of null, which is an error, does not find a closed stream.
    static const void* noStream() { return reinterpret_cast<const void*>(std::uintptr_t{1}); }
    bool isOpen() const {
        const void* const now = stream.load(std::memory_order_relaxed);
        return now != nullptr && now != noStream();
    }
    void close() { stream.store(noStream(), std::memory_order_release); }
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
