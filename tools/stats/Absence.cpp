#include "tools/stats/Absence.h"

#include <cstddef>

#include "tools/stats/CardCounters.h"

namespace stats {
namespace {

std::uint64_t load(const std::uint64_t& word) { return __atomic_load_n(&word, __ATOMIC_RELAXED); }

template <std::size_t n>
std::uint64_t sum(const std::uint64_t (&words)[n], std::size_t first = 0) {
    std::uint64_t all = 0;
    for (std::size_t i = first; i < n; ++i) all += load(words[i]);
    return all;
}

// A packet is counted before its callback, and the callback when it has returned.
bool isInCallback(const vexo_stats::Stream& counts) {
    const std::uint64_t packets = sum(counts.packets);
    return packets > sum(counts.callbacks);
}

std::uint64_t longCallbacksOf(const vexo_stats::Stream& counts) {
    return sum(counts.callbacks, vexo_stats::bucketOf(shortestAbsence(counts.longCallback)));
}

std::uint64_t emptyPollsOf(const vexo_stats::Stream& counts) {
    return load(counts.idlePolls) + load(counts.failedPolls);
}

}  // namespace

void Absence::start(const vexo_stats::Stream& counts) {
    m_wasAway = false;
    remember(longCallbacksOf(counts), emptyPollsOf(counts), load(counts.lastPacket), vexo_stats::startNow());
}

void Absence::remember(std::uint64_t longCallbacks, std::uint64_t polls, std::uint64_t packet, std::uint64_t now) {
    m_longCallbacks = longCallbacks;
    m_polls = polls;
    m_packet = packet;
    m_lookedAt = now;
}

bool Absence::look(const vexo_stats::Stream& counts) {
    const std::uint64_t longCallbacks = longCallbacksOf(counts);
    const bool inCallback = isInCallback(counts);
    const std::uint64_t polls = emptyPollsOf(counts);
    const std::uint64_t packet = load(counts.lastPacket);
    const std::uint64_t now = vexo_stats::startNow();
    const bool stands = polls == m_polls && packet == m_packet && now - m_lookedAt >= counts.longCallback;
    // A handler that threw looks like a callback for ever, so polls prove that it is none.
    const bool hasPolled = polls != m_polls && packet == m_packet;
    const bool isInLongOne = inCallback && !hasPolled && now > packet && now - packet >= counts.longCallback;
    const bool isAway = longCallbacks != m_longCallbacks || stands || isInLongOne;
    const bool wasOrIs = isAway || m_wasAway;
    remember(longCallbacks, polls, packet, now);
    m_wasAway = isAway;
    return wasOrIs;
}

}  // namespace stats
