#include "tools/vexo/info/StreamNumbers.h"

#include <algorithm>
#include <iterator>

namespace vexo::info {
namespace {

// Which of the counters of a numbering a packet has its number in; nothing for a packet without one.
std::optional<std::uint32_t> slotOf(const data::Numbering& numbering, const capture::Packet& packet) {
    if (packet.size < data::kHeadBytes) return std::nullopt;
    if (numbering.place == data::Numbering::Place::kHead) return 0;
    const std::uint64_t type = data::loadUnsigned(packet.data, 4, false);
    if (type >= data::Numbering::kTypes || numbering.fields[type].size != packet.size) return std::nullopt;
    return numbering.isByType ? static_cast<std::uint32_t>(type) : 0;
}

data::SequenceWords operator+(const data::SequenceWords& a, const data::SequenceWords& b) {
    return {a.gaps + b.gaps, a.lost + b.lost, a.late + b.late, a.restarts + b.restarts};
}
data::SequenceWords operator-(const data::SequenceWords& a, const data::SequenceWords& b) {
    return {a.gaps - b.gaps, a.lost - b.lost, a.late - b.late, a.restarts - b.restarts};
}

void takeAway(std::uint64_t& from, std::uint64_t count) { from -= std::min(from, count); }

}  // namespace

void StreamNumbers::take(Part& part, const capture::Packet& packet) {
    rejoinLaterThan(part);
    const data::SequenceWords before = data::wordsOf(m_numbers);
    m_sequence.take(m_numbers, packet.data, packet.size);
    const data::Numbering* const numbering = m_sequence.numbering();
    const auto slot = numbering != nullptr ? slotOf(*numbering, packet) : std::nullopt;
    Doubt* const doubt = part.doubt != nullptr && part.doubt->isOpen ? part.doubt.get() : nullptr;
    bool isFirst = false;
    if (slot) {
        const std::uint32_t bit = std::uint32_t{1} << *slot;
        isFirst = (part.numbered & bit) == 0;
        part.numbered |= bit;
        if (part.order == 0) part.order = ++m_parts;
        const std::uint64_t lost = m_numbers.sequenceLost - std::min(m_numbers.sequenceLost, before.lost);
        if (isFirst) {
            takeFirst(part, packet, *slot, before, lost);
        } else if (lost > 0) {
            m_shared.timeline.addLost(doubt != nullptr ? doubt->lane : m_lane, packet.timeNs, lost);
        }
    }
    if (doubt != nullptr) takeInDoubt(*doubt, packet, before, isFirst);
}

// @param before  the stream's numbers before this packet
void StreamNumbers::takeInDoubt(Doubt& doubt, const capture::Packet& packet, const data::SequenceWords& before,
                                bool isFirst) {
    const std::uint64_t lostBefore = doubt.numbers.sequenceLost;
    doubt.sequence.take(doubt.numbers, packet.data, packet.size);
    if (!isFirst && doubt.numbers.sequenceLost > lostBefore) doubt.lost += doubt.numbers.sequenceLost - lostBefore;
    doubt.own = doubt.own + (data::wordsOf(m_numbers) - before);
    const auto& next = m_sequence.expected.next;
    doubt.isOpen = !std::equal(std::begin(next), std::end(next), std::begin(doubt.sequence.expected.next));
}

// @param lost  between the last number of the capture before and this one
void StreamNumbers::takeFirst(Part& part, const capture::Packet& packet, std::uint32_t slot,
                              const data::SequenceWords& before, std::uint64_t lost) {
    if (lost > 0) {
        ++part.jumps;
        part.jumped += lost;
        part.jumpNs = packet.timeNs;
    } else if (m_numbers.sequenceRestarts > before.restarts) {
        ++part.restarts;
    } else if (m_numbers.sequenceLate > before.late && !part.isBeside) {
        beginAnew(part, packet, slot);
    }
}

// The number that came late is the first one of a recording, unless something tells otherwise.
void StreamNumbers::beginAnew(Part& part, const capture::Packet& packet, std::uint32_t slot) {
    std::unique_ptr<Doubt>& doubt = part.doubt;
    if (doubt == nullptr && m_shared.doubts < kMostDoubts) {
        ++m_shared.doubts;
        m_doubtful.push_back(&part);
        doubt = std::make_unique<Doubt>();
        data::setWords(doubt->numbers, data::wordsOf(m_numbers));
        --doubt->numbers.sequenceLate;
        doubt->own = data::wordsOf(doubt->numbers);
        doubt->lane = m_shared.nextLane++;
        doubt->timeNs = packet.timeNs;
    }
    if (doubt != nullptr && !doubt->isOpen) {
        doubt->isOpen = true;
        doubt->sequence = m_sequence;
        ++doubt->numbers.sequenceLate;
    }
    ++(doubt != nullptr ? doubt->bases : m_unrecorded);
    --m_numbers.sequenceLate;
    m_sequence.expectAny(slot);
    m_sequence.take(m_numbers, packet.data, packet.size);
}

// A packet of an earlier capture has come: those in doubt were recorded at the same time. What they have in common with
// it came again, so they count as if they followed on.
void StreamNumbers::rejoinLaterThan(const Part& part) {
    if (part.order == 0) return;
    while (!m_doubtful.empty() && m_doubtful.back()->order > part.order) {
        m_doubtful.back()->isBeside = true;
        settle(*m_doubtful.back(), true);
    }
}

void StreamNumbers::settle(Part& part, bool followsOn) {
    const std::unique_ptr<Doubt> doubt = std::move(part.doubt);
    m_doubtful.erase(std::find(m_doubtful.begin(), m_doubtful.end(), &part));
    --m_shared.doubts;
    if (!followsOn) {
        m_unrecorded += doubt->bases;
        m_shared.timeline.moveLane(doubt->lane, m_lane);
        return;
    }
    data::setWords(m_numbers, data::wordsOf(m_numbers) - doubt->own + data::wordsOf(doubt->numbers));
    if (doubt->isOpen) m_sequence = doubt->sequence;
    m_shared.timeline.dropLane(doubt->lane);
    if (doubt->lost > 0) m_shared.timeline.addLost(m_lane, doubt->timeNs, doubt->lost);
}

void StreamNumbers::end(Part& part, bool followsOn) {
    if (part.doubt != nullptr) settle(part, followsOn);
    if (followsOn) {
        if (part.jumps > 0) m_shared.timeline.addLost(m_lane, part.jumpNs, part.jumped);
        return;
    }
    m_unrecorded += part.jumps + part.restarts;
    takeAway(m_numbers.sequenceGaps, part.jumps);
    takeAway(m_numbers.sequenceLost, part.jumped);
    takeAway(m_numbers.sequenceRestarts, part.restarts);
}

std::optional<SequenceCounts> StreamNumbers::counts() const {
    if (m_sequence.numbering() == nullptr) return std::nullopt;
    return SequenceCounts{m_numbers.sequenceGaps, m_numbers.sequenceLost, m_numbers.sequenceLate,
                          m_numbers.sequenceRestarts, m_unrecorded};
}

}  // namespace vexo::info
