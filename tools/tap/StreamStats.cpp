#include "tools/tap/StreamStats.h"

#include <cstddef>
#include <utility>

#include "tools/tap/TapClock.h"

namespace tap {
namespace {

using vexo_stats::kUnknown;

constexpr std::uint32_t kOrdinaryTypes = 32;
constexpr std::uint32_t kFirstQuote = 17;
constexpr std::uint32_t kLastQuote = 20;

// On the page's clock. Where the processor's counter does not run evenly, ticks are another clock, and all times of the
// page are rough.
std::uint64_t pageClock(std::uint64_t ticks) {
    return clock_ticks::g_counterIsEven ? ticks * 2 : vexo_stats::startNow();
}

std::uint32_t slotOf(const PacketRing::Record& record) {
    if (record.size < sizeof(std::uint32_t)) return vexo_stats::kNoType;
    const auto type = static_cast<std::uint32_t>(vexo::data::loadUnsigned(record.data, 4, false));
    return type < kOrdinaryTypes ? type : std::uint32_t{vexo_stats::kOtherType};
}

std::optional<std::uint64_t> known(std::uint64_t n) {
    return n == kUnknown ? std::optional<std::uint64_t>() : std::optional<std::uint64_t>(n);
}

}  // namespace

void StreamStats::noteStep(vexo_stats::Step step, std::uint64_t clock) {
    if (m_process.steps[step] == 0) vexo_stats::set(m_process.steps[step], clock);
}

void StreamStats::take(const PacketRing::Record& record) {
    if (record.isOpening) {
        m_sequence.restart(m_layouts);
        m_isFirst = true;
        m_missingAtOpening = m_counts.sequenceLost;
        ++m_marksSeen;
        return;
    }
    const std::uint64_t clock = pageClock(record.ticks);
    countTime(record, clock);
    const std::uint32_t slot = slotOf(record);
    if (slot >= kFirstQuote && slot <= kLastQuote) noteStep(vexo_stats::kFirstQuote, clock);
    vexo_stats::addOne(m_counts.packets[slot]);
    vexo_stats::add(m_counts.bytes[slot], record.trueSize);
    m_sequence.take(m_counts, record.data, record.size);
}

void StreamStats::countTime(const PacketRing::Record& record, std::uint64_t clock) {
    if (m_isFirst) {
        m_isFirst = false;
        vexo_stats::expectFirst(m_counts, clock);
        noteStep(vexo_stats::kFirstPacket, clock);
    } else if (record.isAtOnce && clock - m_counts.lastPacket >= stats::shortestAbsence(m_counts.longCallback) &&
               clock > m_counts.lastPacket) {
        ++m_absences;
    }
    const std::uint64_t gap = vexo_stats::between(m_counts.lastPacket, clock);
    vexo_stats::set(m_counts.lastPacket, clock);
    vexo_stats::addOne(m_counts.gaps[vexo_stats::bucketOf(gap)]);
}

void StreamStats::beginLook(const Presence& presence, const PacketRing& ring) {
    const bool isNotBack = presence.isAway() && ring.isEmpty();  // else the last packet has not been counted yet
    const std::uint64_t now = vexo_stats::startNow();
    const std::uint64_t packet = m_counts.lastPacket;
    // Back-pressure without a packet: nobody took what was in the full ring.
    const bool stands = packet == m_packetBefore && now - m_lookedAt >= m_counts.longCallback;
    const bool isInLongOne = isNotBack && now > packet && now - packet >= m_counts.longCallback;
    m_wasAway = m_isAway;
    m_isAway = m_absences != m_absencesBefore || stands || isInLongOne;
    m_absencesBefore = m_absences;
    m_packetBefore = packet;
    m_lookedAt = now;
    m_missing = m_counts.sequenceLost;
}

std::vector<StreamStats::Noted> StreamStats::takeNoted() {
    std::size_t count = 0;
    for (; count < m_noted.size(); ++count) {
        if (!m_noted[count].isMarked) continue;
        if (m_marksUsed == m_marksSeen) break;
        ++m_marksUsed;
    }
    std::vector<Noted> taken = std::exchange(m_noted, {});
    m_noted.assign(taken.begin() + static_cast<std::ptrdiff_t>(count), taken.end());
    taken.resize(count);
    return taken;
}

void StreamStats::endLook(const std::vector<Noted>& noted, std::uint64_t lostInRing, std::uint64_t lostByTap) {
    for (const Noted& one : noted) {
        if (one.when == When::kOpening) {
            const std::uint64_t missing = one.isMarked ? m_missingAtOpening : m_missing;
            m_card.noteLostBeforeCard(m_counts, missing, one.lostInRing);
            m_card.start(m_counts, one.reading, missing, one.lostInRing);
        } else {
            m_card.add(m_counts, one.reading, m_isAway || m_wasAway);
        }
        vexo_stats::set(m_counts.state, one.when == When::kClosed ? vexo_stats::kClosed : vexo_stats::kOpen);
    }
    vexo_stats::set(m_counts.lostByTap, lostByTap);
    m_card.noteLostBeforeCard(m_counts, m_missing, lostInRing);
}

capture::CardCounts StreamStats::card() const {
    capture::CardCounts card;
    card.packets = known(m_counts.cardPackets);
    card.backPressure = known(m_counts.backPressure);
    card.fifoErrors = known(m_counts.fifoErrors);
    card.errors = known(m_counts.errors);
    card.byApplication = known(m_counts.backPressureInCallbacks);
    if (m_counts.sequenceKnown != 0 && card.backPressure) card.beforeCard = m_counts.lostBeforeCard;
    return card;
}

}  // namespace tap
