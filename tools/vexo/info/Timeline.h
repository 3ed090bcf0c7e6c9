#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace vexo::info {

/// Counts over time in a limited number of bins of equal width. Bins are joined when the recording gets longer than
/// they reach, so the memory does not depend on its length. A bin begins at a whole multiple of its width.
class Timeline {
public:
    static constexpr std::size_t kMostBins = 1200;

    struct Bin {
        std::uint64_t packets = 0;
        std::uint64_t bytes = 0;
        std::uint64_t peakSecond =
            0;  // packets of its busiest second of the clock; only if a bin is a second or longer
    };
    using Lane =
        std::map<std::uint64_t, std::uint64_t>;  // numbers of bins, counted from startNs(), with what they lost

    /// @param packetsOfSecond  those of the same second of the clock so far, this one included
    void add(std::uint64_t timeNs, std::uint64_t bytes, std::uint64_t packetsOfSecond) {
        if (timeNs < m_binStart || timeNs - m_binStart >= m_widthNs) findBin(timeNs);
        ++m_bin->packets;
        m_bin->bytes += bytes;
        if (packetsOfSecond > m_bin->peakSecond) m_bin->peakSecond = packetsOfSecond;
    }
    /// Notes a loss. @param lane  any number, such as that of a stream
    void addLost(std::size_t lane, std::uint64_t timeNs, std::uint64_t packets);
    /// Adds the losses of a lane to those of another one.
    void moveLane(std::size_t from, std::size_t to);
    void dropLane(std::size_t lane) { m_lanes.erase(lane); }

    /// Joins bins until they are so wide: those of two recordings can then be compared. @param widthNs  of a timeline
    void widenTo(std::uint64_t widthNs);

    std::uint64_t widthNs() const { return m_widthNs; }
    std::uint64_t startNs() const { return m_first * m_widthNs; }
    const std::vector<Bin>& bins() const { return m_bins; }
    Lane lane(std::size_t number) const;

private:
    void findBin(std::uint64_t timeNs);
    void reach(std::uint64_t timeNs);
    void widen();

    std::uint64_t m_widthNs = 1'000'000;
    std::size_t m_step = 0;               // how often bins have been joined
    std::uint64_t m_first = 0;            // the first bin, counted from 1970
    std::vector<Bin> m_bins;              // none without a packet
    std::map<std::size_t, Lane> m_lanes;  // bins counted from 1970
    Bin* m_bin = nullptr;                 // of the last packet
    std::uint64_t m_binStart = ~std::uint64_t{0};
};

}  // namespace vexo::info
