#include "tools/stats/CardCounters.h"

namespace stats {
namespace {

using vexo_stats::kUnknown;

std::uint64_t load(const std::uint64_t& word) { return __atomic_load_n(&word, __ATOMIC_RELAXED); }
void store(std::uint64_t& word, std::uint64_t value) { __atomic_store_n(&word, value, __ATOMIC_RELAXED); }
std::uint64_t orNone(std::uint64_t n) { return n == kUnknown ? 0 : n; }

// What a counter of 32 bits gained. It begins again at 0 when it passes its end, and when the card is reset.
std::uint32_t gained(CardCounter& counter, std::uint32_t now) {
    constexpr std::uint32_t kHalf = 1U << 31;
    const std::uint32_t last = counter.hasBase ? counter.last : now;
    counter.last = now;
    counter.hasBase = true;
    return now < last && last < kHalf ? now : now - last;
}

// Whether the program stayed away from the ring for longer than it lasts, since the last look or shortly before that:
// the card may count a packet as lost some time after its ring was full.
bool stayedAway(Source& source) {
    const vexo_stats::Stream& counts = source.counts;
    std::uint64_t longOnes = 0;
    // From the first bucket on that has none but long ones.
    for (std::size_t b = vexo_stats::bucketOf((counts.longCallback - 1) | 1) + 1; b < vexo_stats::kBuckets; ++b) {
        longOnes += load(counts.callbacks[b]);
    }
    const std::uint64_t polls = load(counts.idlePolls) + load(counts.failedPolls);
    const std::uint64_t packet = load(counts.lastPacket);
    const std::uint64_t now = vexo_stats::startNow();
    const bool stands = polls == source.pollsBefore && packet == source.packetBefore &&
                        now - source.lookedAt >= counts.longCallback;
    source.lookedAt = now;
    const bool isLong = longOnes != source.longBefore || stands;
    const bool away = isLong || source.wasLong;
    source.longBefore = longOnes;
    source.pollsBefore = polls;
    source.packetBefore = packet;
    source.wasLong = isLong;
    return away;
}

template <typename Call>
std::uint32_t read(Call& call, const Source& source, CardCounter& counter, std::uint64_t& word) {
    std::uint32_t value = 0;
    const auto* stream = static_cast<const enyx_hw_a2c_stream*>(source.stream.load(std::memory_order_relaxed));
    if (!call.isThere() || call(stream, &value) != 0) return 0;
    const std::uint32_t more = gained(counter, value);
    store(word, orNone(word) + more);
    return more;
}

}  // namespace

void beginCardCounters(Source& source) {
    source.backPressure = source.fifoErrors = source.errors = {};
    const vexo_stats::Stream& counts = source.counts;
    source.lostAtOpen = counts.lostBeforeCard;
    source.missingAtOpen = counts.sequenceLost;
    source.pressureAtOpen = orNone(counts.backPressure);
    source.lookedAt = vexo_stats::startNow();
    readCardCounters(source);
}

void readCardCounters(Source& source) {
    const tap::KeepErrno keep;
    vexo_stats::Stream& counts = source.counts;
    const bool away = stayedAway(source);
    const std::uint64_t missing = load(counts.sequenceLost);  // before the card is asked: it has counted their cause
    const std::uint32_t lost = read(tap::g_next.enyx_hw_a2c_stream_stats_get_backpressure, source, source.backPressure,
                                    counts.backPressure);
    if (counts.backPressure != kUnknown) {
        store(counts.backPressureInCallbacks, orNone(counts.backPressureInCallbacks) + (away ? lost : 0));
        // The card may have counted packets whose gap has not arrived yet.
        const std::uint64_t missed = missing - source.missingAtOpen;
        const std::uint64_t overflowed = counts.backPressure - source.pressureAtOpen;
        const std::uint64_t lostBefore = source.lostAtOpen + (missed > overflowed ? missed - overflowed : 0);
        if (lostBefore > counts.lostBeforeCard) store(counts.lostBeforeCard, lostBefore);
    }
    read(tap::g_next.enyx_hw_a2c_stream_stats_get_fifo_errors, source, source.fifoErrors, counts.fifoErrors);
    read(tap::g_next.enyx_hw_a2c_stream_stats_get_errors, source, source.errors, counts.errors);
    store(counts.cardRead, vexo_stats::startNow());
}

}  // namespace stats
