#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

namespace vexo::info {

/// Packets in the busiest piece of the clock of one length.
struct Peak {
    std::uint64_t startNs = 0;
    std::uint64_t packets = 0;  // 0: there was no packet
};

/// Counts packets in each second, or millisecond, of the clock.
template <std::uint64_t lengthNs>
class PeakRate {
public:
    PeakRate() { m_pieces.fill({~std::uint64_t{0}, 0}); }

    /// @return packets of the same piece so far, this one included
    std::uint64_t add(std::uint64_t timeNs) {
        const std::uint64_t number = timeNs / lengthNs;
        Piece& piece = m_pieces[number % kPieces];
        if (piece.number != number) piece = {number, 0};
        if (++piece.packets > m_peak.packets) m_peak = {number * lengthNs, piece.packets};
        return piece.packets;
    }
    const Peak& peak() const { return m_peak; }

private:
    struct Piece {
        std::uint64_t number;
        std::uint64_t packets;
    };
    // More than one: packets of different streams may come a little out of order.
    static constexpr std::size_t kPieces = 16;

    std::array<Piece, kPieces> m_pieces;
    Peak m_peak;
};

/// Packets each of which came shortly after the one before.
struct Burst {
    std::uint64_t startNs = 0;
    std::uint64_t endNs = 0;  // of the last packet
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
};

class LongestBurst {
public:
    /// @param goesOn  the packet came shortly after the one before
    void add(std::uint64_t timeNs, std::uint64_t bytes, bool goesOn) {
        if (!goesOn) m_now = {timeNs, timeNs, 0, 0};
        m_now.endNs = timeNs;
        ++m_now.packets;
        m_now.bytes += bytes;
        if (m_now.packets > m_longest.packets) m_longest = m_now;
    }
    const Burst& longest() const { return m_longest; }

private:
    Burst m_now;
    Burst m_longest;
};

/// A time without a packet.
struct Gap {
    std::uint64_t fromNs = 0;
    std::uint64_t untilNs = 0;
    std::uint64_t lengthNs() const { return untilNs - fromNs; }
};

/// The longest of all gaps, longest first.
class LongestGaps {
public:
    void add(std::uint64_t fromNs, std::uint64_t untilNs) {
        if (m_gaps.size() == kMost && untilNs - fromNs <= m_gaps.back().lengthNs()) return;
        const auto place = std::find_if(m_gaps.begin(), m_gaps.end(),
                                        [&](const Gap& gap) { return gap.lengthNs() < untilNs - fromNs; });
        m_gaps.insert(place, {fromNs, untilNs});
        if (m_gaps.size() > kMost) m_gaps.pop_back();
    }
    const std::vector<Gap>& gaps() const { return m_gaps; }

private:
    static constexpr std::size_t kMost = 5;

    std::vector<Gap> m_gaps;
};

}  // namespace vexo::info
