#include "tools/vexo/info/Timeline.h"

#include <algorithm>
#include <iterator>

namespace vexo::info {
namespace {

// From a millisecond over 2, 10, 20, 100, 200 ms, 1, 2, 10, 20 s, 1, 2, 10, 20 min, 1, 2, 4 h to a day: widths that
// axes have names for.
constexpr std::uint64_t kFactors[] = {2, 5, 2, 5, 2, 5, 2, 5, 2, 3, 2, 5, 2, 3, 2, 2, 6};

std::uint64_t factorOf(std::size_t step) { return step < std::size(kFactors) ? kFactors[step] : 2; }

}  // namespace

void Timeline::findBin(std::uint64_t timeNs) {
    reach(timeNs);
    const std::uint64_t number = timeNs / m_widthNs;
    m_bin = &m_bins[number - m_first];
    m_binStart = number * m_widthNs;
}

void Timeline::reach(std::uint64_t timeNs) {
    if (m_bins.empty()) {
        m_first = timeNs / m_widthNs;
        m_bins.resize(1);
        return;
    }
    const auto first = [&] { return std::min(m_first, timeNs / m_widthNs); };
    const auto last = [&] { return std::max(m_first + m_bins.size() - 1, timeNs / m_widthNs); };
    while (last() - first() >= kMostBins) widen();
    m_bins.insert(m_bins.begin(), static_cast<std::size_t>(m_first - first()), Bin{});
    m_first = first();
    m_bins.resize(static_cast<std::size_t>(last() - m_first + 1));
}

void Timeline::widen() {
    const std::uint64_t factor = factorOf(m_step++);
    const std::uint64_t first = m_first / factor;
    // Without a bin there is none to join.
    const std::uint64_t end = m_bins.empty() ? first : (m_first + m_bins.size() - 1) / factor + 1;
    std::vector<Bin> joined(static_cast<std::size_t>(end - first));
    for (std::size_t i = 0; i < m_bins.size(); ++i) {
        Bin& bin = joined[static_cast<std::size_t>((m_first + i) / factor - first)];
        bin.packets += m_bins[i].packets;
        bin.bytes += m_bins[i].bytes;
        // Of a second that was in several bins, the last one has the whole count.
        bin.peakSecond = std::max(bin.peakSecond, m_bins[i].peakSecond);
    }
    m_bins = std::move(joined);
    m_first = first;
    m_widthNs *= factor;
    for (auto& [number, lane] : m_lanes) {
        Lane joinedLane;
        for (const auto& [bin, lost] : lane) joinedLane[bin / factor] += lost;
        lane = std::move(joinedLane);
    }
}

void Timeline::widenTo(std::uint64_t widthNs) {
    while (m_widthNs < widthNs) widen();
    m_binStart = ~std::uint64_t{0};  // the last packet's bin has moved
}

void Timeline::addLost(std::size_t lane, std::uint64_t timeNs, std::uint64_t packets) {
    findBin(timeNs);
    m_lanes[lane][timeNs / m_widthNs] += packets;
}

void Timeline::moveLane(std::size_t from, std::size_t to) {
    const auto moved = m_lanes.extract(from);
    if (moved.empty()) return;
    for (const auto& [bin, lost] : moved.mapped()) m_lanes[to][bin] += lost;
}

Timeline::Lane Timeline::lane(std::size_t number) const {
    Lane counted;
    const auto found = m_lanes.find(number);
    if (found == m_lanes.end()) return counted;
    for (const auto& [bin, lost] : found->second) counted[bin - m_first] = lost;
    return counted;
}

}  // namespace vexo::info
