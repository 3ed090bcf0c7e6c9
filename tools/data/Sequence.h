#pragma once

#include <VexoZceMdStatsPage.h>
#include <cstddef>
#include <cstdint>

#include "tools/data/LayoutFile.h"

namespace vexo::data {

/// Finds out by which layout the packets of a stream are numbered. Plain memory, no allocation: made for polling
/// threads, too.
class NumberingFinder {
public:
    /// @param layouts  must outlive this object; null: no layout is known
    constexpr explicit NumberingFinder(const Layouts* layouts = nullptr) : m_layouts(layouts) {}

    /// Looks at the next packet. A payload that a layout describes decides. Until then the head of a packet tells, if a
    /// layout knows where the head has the packet's length.
    void look(const unsigned char* packet, std::size_t size);
    /// Whether further packets change nothing.
    bool isDecided() const { return m_isDecided; }
    /// Null: no layout with numbers has been found.
    const Numbering* found() const { return m_found; }

private:
    const Layouts* m_layouts;
    const Numbering* m_found = nullptr;
    std::uint32_t m_strangers = 0;  // quotes that no layout describes
    bool m_isDecided = false;
};

/// The sequence words of a stream's block.
struct SequenceWords {
    std::uint64_t gaps = 0;
    std::uint64_t lost = 0;
    std::uint64_t late = 0;
    std::uint64_t restarts = 0;
};
SequenceWords wordsOf(const vexo_stats::Stream& counts);
void setWords(vexo_stats::Stream& counts, const SequenceWords& words);

/// Counts the gaps in the numbers of a stream's packets.
class SequenceCounter {
public:
    constexpr explicit SequenceCounter(const Layouts* layouts = nullptr) : m_finder(layouts) {}

    /// The stream was opened, or opened again: what was missed meanwhile is no gap.
    void restart(const Layouts* layouts);
    /// Counts in the sequence words of @p counts.
    void take(vexo_stats::Stream& counts, const unsigned char* packet, std::size_t size);
    /// The next number is a base, whatever it is. @param slot  of Expected::next
    void expectAny(std::uint32_t slot) { m_based &= ~(std::uint32_t{1} << slot); }
    bool isDecided() const { return m_finder.isDecided(); }
    /// Null: nothing is counted.
    const Numbering* numbering() const { return m_numbering; }

    /// What a faster take() compares. A packet that has the expected number only raises it; any other is for take().
    struct Expected {
        std::uint32_t sizes[Numbering::kTypes] = {};  // of whole packets with a number; 0: for take()
        std::uint32_t at[Numbering::kTypes] = {};     // byte of the number
        std::uint64_t next[Numbering::kTypes] = {};   // by type; of the whole stream in the first one
    };
    Expected expected;

private:
    void change(vexo_stats::Stream& counts, const Numbering* found);
    void count(vexo_stats::Stream& counts, std::uint32_t slot, std::uint64_t number);

    NumberingFinder m_finder;
    const Numbering* m_numbering = nullptr;
    SequenceWords m_before;     // what was counted before the stream was opened
    std::uint32_t m_based = 0;  // bit n: next[n] is a number that follows one
};

}  // namespace vexo::data
