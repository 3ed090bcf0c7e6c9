#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "capture/StreamPlace.h"
#include "tools/data/Losses.h"
#include "tools/vexo/info/Peaks.h"
#include "tools/vexo/info/Timeline.h"

namespace vexo::info {

/// A capture that was read, and where it is damaged.
struct CaptureFile {
    std::string path;
    std::string fault;  // empty if it is whole
};

struct TypeCounts {
    std::uint64_t type = 0;  // or one of the two below
    std::string meaning;     // empty if it is not known
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
    std::uint64_t described = 0;  // packets whose payload a layout describes
};
inline constexpr std::uint64_t kContractMap = 2;
inline constexpr std::uint64_t kNoType = ~std::uint64_t{0};          // the packet is too short to have one
inline constexpr std::uint64_t kOtherTypes = ~std::uint64_t{0} - 1;  // all types beyond those that are kept apart

/// Bucket b counts times from 2^b to below 2^(b+1) nanoseconds; bucket 0 also those of 0.
inline constexpr std::size_t kGapBuckets = 64;
using GapCounts = std::array<std::uint64_t, kGapBuckets>;

/// What the sequence numbers of a stream say.
struct SequenceCounts {
    std::uint64_t gaps = 0;
    std::uint64_t lost = 0;        // numbers that are missing in the gaps
    std::uint64_t late = 0;        // packets that came again, or late
    std::uint64_t restarts = 0;    // jumps that are no loss
    std::uint64_t unrecorded = 0;  // jumps from the end of a recording to the beginning of the next one
};

/// What was lost in a time, as the end of a capture tells it. When in that time is not known.
struct CountedLoss {
    std::uint64_t fromNs = 0;
    std::uint64_t untilNs = 0;
    data::Losses lost;
};

struct StreamSummary {
    std::string name;  // as the captures have it
    std::optional<capture::StreamPlace> place;
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;  // true lengths
    std::uint64_t cut = 0;    // packets of which the captures do not hold all bytes
    std::vector<TypeCounts> types;
    std::uint64_t firstNs = 0;
    std::uint64_t lastNs = 0;
    std::uint64_t backwards = 0;  // packets with a time before that of the packet before
    GapCounts gaps{};
    Gap longestGap;
    Peak second;
    Peak millisecond;
    Burst burst;
    std::optional<SequenceCounts> sequence;  // nothing without a layout that has a sequence number
    data::LossCounts lost;
    std::vector<CountedLoss> counted;      // in the order of the captures; those that lost nothing are left out
    std::uint64_t countedWithoutTime = 0;  // packets that captures lost that do not say from when to when they are
};

struct InstrumentCounts {
    std::string id;
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
};

/// What captures hold.
struct Summary {
    std::vector<CaptureFile> files;
    std::uint64_t packets = 0;  // of streams; register accesses are not among them
    std::uint64_t bytes = 0;
    std::uint64_t registerAccesses = 0;
    std::uint64_t foreign = 0;  // packets of something else
    std::uint64_t firstNs = 0;
    std::uint64_t lastNs = 0;
    Peak second;  // of all streams together
    Peak millisecond;
    std::vector<Gap> longestGaps;               // with no packet of any stream, longest first
    std::vector<StreamSummary> streams;         // in the order of their first packet
    std::vector<InstrumentCounts> instruments;  // busiest first
    std::uint64_t otherInstruments = 0;         // packets of ids beyond those that are kept apart
    Timeline timeline;                          // a lane is the number of a stream
    std::uint64_t burstNs = 0;                  // "shortly" of a burst

    double seconds() const { return static_cast<double>(lastNs - firstNs) / 1e9; }
    double meanRate() const { return lastNs > firstNs ? static_cast<double>(packets) / seconds() : 0; }
};

/// Gives both timelines bins of one width, so that they can be compared.
void align(Summary& one, Summary& other);
/// The sum over all streams.
GapCounts gapsOf(const Summary& summary);
/// Of the stream that has the longest one; null without a packet.
const StreamSummary* streamWithLongestBurst(const Summary& summary);
/// All streams together.
data::Losses lossesOf(const Summary& summary);
/// Numbers that are missing in the sequences; nothing if no stream has one.
data::Count missingOf(const Summary& summary);
/// Packets that no layout describes, by type. Contract maps are not among them.
std::map<std::uint64_t, std::uint64_t> unknownOf(const Summary& summary);

}  // namespace vexo::info
