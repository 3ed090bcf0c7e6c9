#include "tools/data/Sequence.h"

namespace vexo::data {
namespace {

constexpr std::uint32_t kFirstQuote = 17;
constexpr std::uint32_t kLastQuote = 20;
constexpr std::uint32_t kMostStrangers = 64;  // a few damaged quotes at the start do not decide

std::uint32_t typeOf(const unsigned char* packet) { return static_cast<std::uint32_t>(loadUnsigned(packet, 4, false)); }

// Whether the head is as the layout says. It cannot tell without a length.
bool hasHead(const Layout& layout, const unsigned char* packet, std::size_t size) {
    return layout.numbering.place == Numbering::Place::kHead && layout.lengthAt && size >= kHeadBytes &&
           loadUnsigned(packet + *layout.lengthAt, 4, false) == size;
}

const Numbering* numberingOf(const Layout& layout) {
    return layout.numbering.place != Numbering::Place::kNone ? &layout.numbering : nullptr;
}

// The difference of two numbers that wrap around.
std::int64_t difference(std::uint64_t number, std::uint64_t next, std::uint32_t width) {
    const unsigned unused = 64 - 8 * width;
    return static_cast<std::int64_t>((number - next) << unused) >> unused;
}

}  // namespace

void NumberingFinder::look(const unsigned char* packet, std::size_t size) {
    if (m_isDecided || m_layouts == nullptr) {
        m_isDecided = true;
        return;
    }
    const Numbering* byHead = nullptr;
    for (const auto& layout : m_layouts->all()) {
        if (payloadOf(*layout, packet, size) != nullptr) {
            m_found = numberingOf(*layout);
            m_isDecided = true;
            return;
        }
        if (byHead == nullptr && hasHead(*layout, packet, size)) byHead = &layout->numbering;
    }
    if (m_found == nullptr) m_found = byHead;
    const bool isQuote = size >= kHeadBytes && typeOf(packet) >= kFirstQuote && typeOf(packet) <= kLastQuote;
    if (!isQuote || ++m_strangers < kMostStrangers) return;
    m_found = byHead;
    m_isDecided = true;
}

SequenceWords wordsOf(const vexo_stats::Stream& counts) {
    return {counts.sequenceGaps, counts.sequenceLost, counts.sequenceLate, counts.sequenceRestarts};
}

void setWords(vexo_stats::Stream& counts, const SequenceWords& words) {
    vexo_stats::set(counts.sequenceGaps, words.gaps);
    vexo_stats::set(counts.sequenceLost, words.lost);
    vexo_stats::set(counts.sequenceLate, words.late);
    vexo_stats::set(counts.sequenceRestarts, words.restarts);
}

void SequenceCounter::restart(const Layouts* layouts) {
    m_finder = NumberingFinder(layouts);
    m_numbering = nullptr;
    m_based = 0;
    expected = Expected();
}

// Heads may have seemed to have a number until the layout of a payload told: what they counted is taken back.
void SequenceCounter::change(vexo_stats::Stream& counts, const Numbering* found) {
    if (m_numbering == nullptr) {
        m_before = wordsOf(counts);
    } else {
        setWords(counts, m_before);
    }
    m_numbering = found;
    m_based = 0;
    expected = Expected();
}

void SequenceCounter::take(vexo_stats::Stream& counts, const unsigned char* packet, std::size_t size) {
    if (!m_finder.isDecided()) m_finder.look(packet, size);
    const Numbering* const found = m_finder.found();
    if (found != m_numbering) change(counts, found);
    if (found == nullptr) {
        if (m_finder.isDecided()) counts.sequenceKnown = 0;
        return;
    }
    counts.sequenceKnown = 1;
    if (found->place == Numbering::Place::kHead) {
        if (size >= kHeadBytes) return count(counts, 0, loadUnsigned(packet + found->headAt, 4, false));
        if (m_based != 0) ++expected.next[0];  // it had a number, but is too short to show it
        return;
    }
    if (size < kHeadBytes || typeOf(packet) >= Numbering::kTypes) return;
    const std::uint32_t type = typeOf(packet);
    const Numbering::FieldPlace place = found->fields[type];
    if (place.size != size) return;
    count(counts, found->isByType ? type : 0, loadUnsigned(packet + place.at, found->width, found->isBigEndian));
    expected.sizes[type] = place.size;
    expected.at[type] = place.at;
}

void SequenceCounter::count(vexo_stats::Stream& counts, std::uint32_t slot, std::uint64_t number) {
    std::uint64_t& next = expected.next[slot];
    const std::uint32_t bit = std::uint32_t{1} << slot;
    const std::int64_t ahead = difference(number, next, m_numbering->width);
    if ((m_based & bit) != 0 && ahead != 0 && !vexo_stats::countOutOfTurn(counts, ahead)) return;
    m_based |= bit;
    next = number + 1;
}

}  // namespace vexo::data
