#include "tools/stats/CardCounters.h"

#include <algorithm>

namespace stats {
namespace {

using vexo_stats::kUnknown;

std::uint64_t orZero(std::uint64_t number) { return number == kUnknown ? 0 : number; }

// @return what is new
std::uint32_t take(std::optional<std::uint32_t>& last, const std::optional<std::uint32_t>& now, std::uint64_t& word) {
    if (!now) return 0;
    const std::uint32_t more = gained(last.value_or(0), *now);
    last = now;
    vexo_stats::set(word, orZero(word) + more);
    return more;
}

void know(const std::optional<std::uint32_t>& now, std::uint64_t& word) {
    if (now) vexo_stats::set(word, orZero(word));
}

// Nobody says whether a card counts from the opening of a stream or from its own start. A stream that was opened a
// moment ago has no more packets than its ring holds: with more, or without an answer, the card's counters are older.
bool isOlderThanTheStream(const CardReading& atOpening) {
    constexpr std::uint32_t kMoreThanARingHolds = 65536;
    return !atOpening.packets || *atOpening.packets >= kMoreThanARingHolds;
}

}  // namespace

void CardCounters::start(vexo_stats::Stream& counts, const CardReading& now, std::uint64_t missing,
                         std::uint64_t lostInTap) {
    m_last = isOlderThanTheStream(now) ? now : CardReading();
    m_missing = missing;
    m_lostInTap = lostInTap;
    m_backPressure = orZero(counts.backPressure);
    m_lostBeforeCard = counts.lostBeforeCard;
    know(now.packets, counts.cardPackets);
    know(now.backPressure, counts.backPressure);
    know(now.backPressure, counts.backPressureInCallbacks);
    know(now.fifoErrors, counts.fifoErrors);
    know(now.errors, counts.errors);
}

void CardCounters::add(vexo_stats::Stream& counts, const CardReading& now, bool byApplication) {
    take(m_last.packets, now.packets, counts.cardPackets);
    const std::uint32_t lost = take(m_last.backPressure, now.backPressure, counts.backPressure);
    if (now.backPressure) {
        const std::uint64_t before = orZero(counts.backPressureInCallbacks);
        vexo_stats::set(counts.backPressureInCallbacks, before + (byApplication ? lost : 0));
    }
    take(m_last.fifoErrors, now.fifoErrors, counts.fifoErrors);
    take(m_last.errors, now.errors, counts.errors);
    vexo_stats::set(counts.cardRead, vexo_stats::startNow());
}

void CardCounters::noteLostBeforeCard(vexo_stats::Stream& counts, std::uint64_t missing,
                                      std::uint64_t lostInTap) const {
    if (counts.backPressure == kUnknown) return;
    // The card may have counted packets whose gap has not arrived yet.
    const std::uint64_t explained = counts.backPressure - m_backPressure + lostInTap - m_lostInTap;
    const std::uint64_t missed = missing > m_missing ? missing - m_missing : 0;
    const std::uint64_t least = m_lostBeforeCard + (missed > explained ? missed - explained : 0);
    // Numbers that turned out to be none are no longer missing.
    const std::uint64_t most = std::min(m_lostBeforeCard + missed, missing);
    const std::uint64_t lost = std::min(std::max(counts.lostBeforeCard, least), most);
    if (lost != counts.lostBeforeCard) vexo_stats::set(counts.lostBeforeCard, lost);
}

std::uint64_t shortestAbsence(std::uint64_t ringLasts) {
    constexpr std::uint64_t kLongest = std::uint64_t{1} << 62;  // on the page's clock: decades
    return std::uint64_t{1} << (vexo_stats::bucketOf(std::clamp<std::uint64_t>(ringLasts, 2, kLongest) - 1) + 1);
}

}  // namespace stats
