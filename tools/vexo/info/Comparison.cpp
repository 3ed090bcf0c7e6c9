#include <algorithm>

#include "tools/vexo/info/Views.h"
#include "tools/vexo/info/Words.h"
#include "tools/vexo/show/Harmless.h"

namespace vexo::info {
namespace {

std::uint64_t longestGapNs(const Summary& summary) {
    return summary.longestGaps.empty() ? 0 : summary.longestGaps.front().lengthNs();
}

std::uint64_t burstOf(const Summary& summary) {
    const StreamSummary* const stream = streamWithLongestBurst(summary);
    return stream == nullptr ? 0 : stream->burst.packets;
}

Compared counted(const std::string& name, const data::Count& one, const data::Count& other) {
    const bool isKnown = one && other;
    return {name, data::groupedLossText(one), data::groupedLossText(other),
            isKnown ? changeText(static_cast<double>(*other), static_cast<double>(*one)) : "-"};
}

template <typename Number, typename Text>
Compared measured(const char* name, Number one, Number other, const Text& text) {
    return {name, text(one), text(other), changeText(static_cast<double>(other), static_cast<double>(one))};
}

}  // namespace

std::vector<Compared> compare(const Summary& one, const Summary& other) {
    std::vector<Compared> all = {
        measured("span", one.lastNs - one.firstNs, other.lastNs - other.firstNs, durationText),
        counted("packets", one.packets, other.packets),
        measured("bytes", one.bytes, other.bytes, bytesText),
        measured("packets a second", one.meanRate(), other.meanRate(), rateText),
        counted("packets in the busiest second", one.second.packets, other.second.packets),
        counted("packets in the busiest millisecond", one.millisecond.packets, other.millisecond.packets),
        counted("packets of the largest burst", burstOf(one), burstOf(other)),
        measured("longest gap", longestGapNs(one), longestGapNs(other), durationText),
        counted("instruments", one.instruments.size(), other.instruments.size()),
        counted("missing in the sequence", missingOf(one), missingOf(other)),
    };
    const data::Losses ours = lossesOf(one);
    const data::Losses theirs = lossesOf(other);
    for (const data::LossCause cause : data::kAllLossCauses) {
        if (ours[cause] || theirs[cause])
            all.push_back(counted(std::string("lost ") + data::nameOf(cause), ours[cause], theirs[cause]));
    }
    return all;
}

std::vector<std::string> notesOf(const Summary& summary) {
    std::vector<std::string> notes;
    for (const CaptureFile& file : summary.files) {
        if (!file.fault.empty())
            notes.push_back(harmless(file.path) + ": " + file.fault + "; what precedes it is counted");
    }
    for (const auto& [type, packets] : unknownOf(summary)) {
        const std::string what = type == kNoType       ? " packets are too short to have a type"
                                 : type == kOtherTypes ? " packets of other types have no layout"
                                                       : " packets of type " + typeName(type) + " have no layout";
        notes.push_back(grouped(packets) + what + ": their instruments and sequence numbers are not known");
    }
    if (summary.otherInstruments > 0)
        notes.push_back(grouped(summary.otherInstruments) + " packets have more different ids than are kept apart");
    if (summary.foreign > 0)
        notes.push_back(grouped(summary.foreign) + " packets are of no stream of the card: left out");
    for (const StreamSummary& stream : summary.streams) {
        const std::string name = harmless(stream.name) + ": ";
        if (stream.backwards > 0)
            notes.push_back(name + grouped(stream.backwards) + " packets have an earlier time than the packet before");
        if (stream.cut > 0)
            notes.push_back(name + "of " + grouped(stream.cut) + " packets the captures do not hold all bytes");
        if (stream.countedWithoutTime > 0) {
            notes.push_back(name + grouped(stream.countedWithoutTime) +
                            " packets were lost in captures that do not say from when to when they are");
        }
        if (stream.sequence && stream.sequence->unrecorded > 0) {
            notes.push_back(name + "the sequence jumps " + grouped(stream.sequence->unrecorded) +
                            " times between captures that do not follow on: not counted as a loss");
        }
    }
    return notes;
}

const InstrumentCounts* findInstrument(const Summary& summary, const std::string& id) {
    const auto found = std::find_if(summary.instruments.begin(), summary.instruments.end(),
                                    [&](const InstrumentCounts& one) { return one.id == id; });
    return found == summary.instruments.end() ? nullptr : &*found;
}

}  // namespace vexo::info
