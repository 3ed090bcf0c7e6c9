#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tools/data/CaptureSet.h"
#include "tools/data/LayoutFile.h"
#include "tools/vexo/info/StreamNumbers.h"
#include "tools/vexo/info/Summary.h"

namespace vexo::info {

/// Makes a summary of packets. What it keeps does not grow with the number of packets, whatever is in them.
class Collector final : public data::CaptureSink {
public:
    // Kept apart; what goes beyond is counted together.
    static constexpr std::size_t kMostStreams = 64;
    static constexpr std::size_t kMostTypes = 32;  // of a stream
    static constexpr std::size_t kMostInstruments = 65536;
    static constexpr std::size_t kMostIdBytes = 64;    // a longer id is cut
    static constexpr std::size_t kMostCounted = 1200;  // losses of captures; later ones are joined with the last one

    /// @param progress  called now and then
    Collector(const data::Layouts& layouts, std::uint64_t burstNs, std::function<void()> progress = {});
    ~Collector() override;

    void take(std::size_t file, const capture::Packet& packet) override;
    void end(std::size_t file, const std::deque<capture::Interface>& interfaces, const std::string& fault) override;

    std::uint64_t packets() const { return m_summary.packets; }
    /// Once, after the last capture. @param paths  of the captures
    Summary finish(const std::vector<std::string>& paths);

private:
    struct Stream;
    struct Source;
    struct Instrument {
        std::uint64_t packets = 0;
        std::uint64_t bytes = 0;
    };

    void findSource(std::size_t file, const capture::Packet& packet);
    Source& sourceOf(std::size_t file, const capture::Interface& interface);
    Stream& streamOf(const std::string& name);
    TypeCounts& typeOf(Stream& stream, const capture::Packet& packet);
    std::string meaningOf(std::uint64_t type) const;
    void countTimes(Stream& stream, std::uint64_t timeNs, std::uint64_t bytes);
    void countInstrument(const capture::Packet& packet, const data::Field& id);
    void takeCounts(Source& source, const capture::Interface& interface);
    static void noteCounted(Stream& stream, const capture::InterfaceCounts& counts, const data::LossCounts& lost);
    void addInstruments();

    const data::Layouts& m_layouts;
    std::function<void()> m_progress;
    Summary m_summary;
    PeakRate<1'000'000'000> m_second;
    PeakRate<1'000'000> m_millisecond;
    LongestGaps m_gaps;
    std::uint64_t m_previousNs = 0;
    std::vector<std::unique_ptr<Stream>> m_streams;
    std::map<std::string, Stream*> m_byName;
    std::map<std::size_t, std::unordered_map<const capture::Interface*, Source>> m_sources;  // by open capture
    std::map<std::size_t, std::string> m_faults;
    StreamNumbers::Shared m_shared{m_summary.timeline, 0, kMostStreams + 1};  // lanes below are of the streams
    std::size_t m_lastFile = 0;
    const capture::Interface* m_lastInterface = nullptr;
    Source* m_source = nullptr;     // of both
    std::deque<std::string> m_ids;  // a deque: the keys of the next one point into it
    std::unordered_map<std::string_view, Instrument> m_instruments;
};

}  // namespace vexo::info
