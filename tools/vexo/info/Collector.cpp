#include "tools/vexo/info/Collector.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace vexo::info {
namespace {

constexpr char kOtherStreams[] = "other streams";
constexpr std::uint64_t kPacketsOfProgress = 1 << 16;
// As the statistics page takes them: a longer way forward, or back, is no loss but another beginning.
constexpr std::int64_t kMostLost = 1 << 20;
constexpr std::int64_t kMostLate = 1 << 10;

std::size_t bucketOf(std::uint64_t ns) { return ns < 2 ? 0 : static_cast<std::size_t>(63 - __builtin_clzll(ns)); }

}  // namespace

/// A stream of the card, through all captures.
struct Collector::Stream {
    StreamSummary summary;
    std::size_t number = 0;
    std::size_t type = 0;  // of the last packet, in the summary
    std::uint64_t previousNs = 0;
    PeakRate<1'000'000'000> second;
    PeakRate<1'000'000> millisecond;
    LongestBurst burst;
    std::uint64_t nextSequence = 0;          // if the summary has a sequence
    std::optional<std::uint64_t> countedTo;  // end of the last capture's counts
    bool isCounted = true;                   // all captures so far have counts
};

/// An interface of an open capture.
struct Collector::Source {
    Stream* stream = nullptr;  // null: it is no stream
    bool isRegisters = false;
    bool hasSequence = false;  // a sequence number has been seen
    // A jump at its first sequence number. Whether it is a loss can be told at the end of the capture.
    std::uint64_t jump = 0;
    std::uint64_t jumpNs = 0;
};

Collector::Collector(const data::Layouts& layouts, std::uint64_t burstNs, std::function<void()> progress)
    : m_layouts(layouts), m_progress(std::move(progress)) {
    m_summary.burstNs = burstNs;
}

Collector::~Collector() = default;

Collector::Stream& Collector::streamOf(const std::string& name) {
    const bool isFull = m_byName.size() >= kMostStreams && m_byName.count(name) == 0;
    Stream*& stream = m_byName[isFull ? kOtherStreams : name];
    if (stream == nullptr) {
        m_streams.push_back(std::make_unique<Stream>());
        stream = m_streams.back().get();
        stream->number = m_streams.size() - 1;
        stream->summary.name = isFull ? kOtherStreams : name;
        stream->summary.place = capture::placeOf(name);
    }
    return *stream;
}

Collector::Source& Collector::sourceOf(std::size_t file, const capture::Interface& interface) {
    const auto [found, isNew] = m_sources[file].emplace(&interface, Source{});
    Source& source = found->second;
    if (isNew) {
        source.isRegisters = interface.info.linkType == capture::kRegisterLink;
        if (interface.info.linkType == capture::kStreamLink) source.stream = &streamOf(interface.info.name);
    }
    return source;
}

void Collector::findSource(std::size_t file, const capture::Packet& packet) {
    m_source = &sourceOf(file, *packet.interface);
    m_lastFile = file;
    m_lastInterface = packet.interface;
}

std::string Collector::meaningOf(std::uint64_t type) const {
    if (type == kContractMap) return "contract map";
    for (const auto& layout : m_layouts.all()) {
        for (const data::Payload& payload : layout->payloads) {
            if (payload.type == type) return payload.meaning;
        }
    }
    return "";
}

TypeCounts& Collector::typeOf(Stream& stream, const capture::Packet& packet) {
    const std::uint64_t type = packet.size < 4 ? kNoType : data::loadUnsigned(packet.data, 4, false);
    std::vector<TypeCounts>& types = stream.summary.types;
    if (stream.type < types.size() && types[stream.type].type == type) return types[stream.type];
    const auto place = [&](std::uint64_t wanted) {
        return std::find_if(types.begin(), types.end(), [&](const TypeCounts& one) { return one.type == wanted; });
    };
    auto found = place(type);
    if (found == types.end() && types.size() >= kMostTypes) found = place(kOtherTypes);
    if (found == types.end()) {
        TypeCounts made;
        made.type = types.size() < kMostTypes ? type : kOtherTypes;
        made.meaning = meaningOf(made.type);
        found = types.insert(types.end(), std::move(made));
    }
    stream.type = static_cast<std::size_t>(found - types.begin());
    return *found;
}

void Collector::countTimes(Stream& stream, std::uint64_t timeNs, std::uint64_t bytes) {
    StreamSummary& summary = stream.summary;
    bool goesOn = false;
    if (summary.packets++ == 0) {
        summary.firstNs = summary.lastNs = timeNs;
    } else if (timeNs < stream.previousNs) {
        ++summary.backwards;
    } else {
        const std::uint64_t gap = timeNs - stream.previousNs;
        ++summary.gaps[bucketOf(gap)];
        if (gap > summary.longestGap.lengthNs()) summary.longestGap = {stream.previousNs, timeNs};
        goesOn = gap <= m_summary.burstNs;
    }
    stream.previousNs = timeNs;
    summary.firstNs = std::min(summary.firstNs, timeNs);
    summary.lastNs = std::max(summary.lastNs, timeNs);
    stream.burst.add(timeNs, bytes, goesOn);
    stream.second.add(timeNs);
    stream.millisecond.add(timeNs);

    if (m_summary.packets++ == 0) {
        m_summary.firstNs = m_summary.lastNs = timeNs;
    } else if (timeNs > m_previousNs) {
        m_gaps.add(m_previousNs, timeNs);
    }
    m_previousNs = timeNs;
    m_summary.firstNs = std::min(m_summary.firstNs, timeNs);
    m_summary.lastNs = std::max(m_summary.lastNs, timeNs);
    m_millisecond.add(timeNs);
    m_summary.timeline.add(timeNs, bytes, m_second.add(timeNs));
}

void Collector::take(std::size_t file, const capture::Packet& packet) {
    if (packet.interface != m_lastInterface || file != m_lastFile) findSource(file, packet);
    if (m_source->stream == nullptr) {
        ++(m_source->isRegisters ? m_summary.registerAccesses : m_summary.foreign);
        return;
    }
    Stream& stream = *m_source->stream;
    const std::uint64_t bytes = packet.trueSize;
    TypeCounts& type = typeOf(stream, packet);
    ++type.packets;
    type.bytes += bytes;
    stream.summary.bytes += bytes;
    m_summary.bytes += bytes;
    if (packet.size < packet.trueSize) ++stream.summary.cut;
    countTimes(stream, packet.timeNs, bytes);
    if (const data::Payload* payload = m_layouts.find(packet.data, packet.size)) {
        ++type.described;
        countPayload(packet, *payload);
    }
    if (m_summary.packets % kPacketsOfProgress == 0 && m_progress) m_progress();
}

void Collector::countPayload(const capture::Packet& packet, const data::Payload& payload) {
    const unsigned char* const data = packet.data + data::kHeadBytes;
    if (payload.id != data::kNoField) {
        const data::Field& field = payload.fields[payload.id];
        const auto* const text = reinterpret_cast<const char*>(data + field.offset);
        const std::string_view id(text, ::strnlen(text, std::min<std::size_t>(field.width, kMostIdBytes)));
        auto found = m_instruments.find(id);
        if (found == m_instruments.end() && m_instruments.size() < kMostInstruments)
            found = m_instruments.emplace(m_ids.emplace_back(id), Instrument{}).first;
        if (found != m_instruments.end()) {
            ++found->second.packets;
            found->second.bytes += packet.trueSize;
        } else {
            ++m_summary.otherInstruments;
        }
    }
    if (payload.sequence == data::kNoField) return;
    const data::Field& field = payload.fields[payload.sequence];
    const std::uint64_t number = data::loadUnsigned(data + field.offset, field.width, field.isBigEndian);
    Stream& stream = *m_source->stream;
    if (!stream.summary.sequence) {
        stream.summary.sequence.emplace();
        stream.nextSequence = number;
    }
    // Numbers of less than 64 bits begin again at 0.
    const unsigned unused = 64 - 8 * field.width;
    const std::int64_t ahead = static_cast<std::int64_t>((number - stream.nextSequence) << unused) >> unused;
    if (ahead == 0) {
        ++stream.nextSequence;
    } else {
        countOutOfTurn(*m_source, ahead, packet.timeNs);
        if (ahead > 0 || ahead <= -kMostLate) stream.nextSequence = number + 1;
    }
    m_source->hasSequence = true;
}

void Collector::countOutOfTurn(Source& source, std::int64_t ahead, std::uint64_t timeNs) {
    Stream& stream = *source.stream;
    SequenceCounts& counts = *stream.summary.sequence;
    const bool isLoss = ahead > 0 && ahead < kMostLost;
    if (!source.hasSequence && isLoss) {
        source.jump = static_cast<std::uint64_t>(ahead);
        source.jumpNs = timeNs;
    } else if (!source.hasSequence) {
        ++counts.unrecorded;
    } else if (isLoss) {
        ++counts.gaps;
        counts.lost += static_cast<std::uint64_t>(ahead);
        m_summary.timeline.addLost(stream.number, timeNs, static_cast<std::uint64_t>(ahead));
    } else {
        ++(ahead < 0 && ahead > -kMostLate ? counts.late : counts.restarts);
    }
}

void Collector::takeCounts(Source& source, const capture::Interface& interface) {
    Stream& stream = *source.stream;
    bool followsOn = false;  // nothing is between this capture and the one before
    if (interface.counts) {
        const capture::InterfaceCounts& counts = *interface.counts;
        followsOn = stream.countedTo && *stream.countedTo == counts.startNs;
        stream.countedTo = counts.endNs;
        stream.summary.lost.byTap = stream.summary.lost.byTap.value_or(0) + counts.dropped;
    } else {
        stream.isCounted = false;
        stream.countedTo.reset();
    }
    if (source.jump == 0) return;
    SequenceCounts& sequence = *stream.summary.sequence;
    if (followsOn) {
        ++sequence.gaps;
        sequence.lost += source.jump;
        m_summary.timeline.addLost(stream.number, source.jumpNs, source.jump);
    } else {
        ++sequence.unrecorded;
    }
}

void Collector::end(std::size_t file, const std::deque<capture::Interface>& interfaces, const std::string& fault) {
    for (const capture::Interface& interface : interfaces) {
        Source& source = sourceOf(file, interface);
        if (source.stream != nullptr) takeCounts(source, interface);
    }
    m_sources.erase(file);
    m_lastInterface = nullptr;
    if (!fault.empty()) m_faults[file] = fault;
}

void Collector::addInstruments() {
    for (const auto& [id, counts] : m_instruments)
        m_summary.instruments.push_back({std::string(id), counts.packets, counts.bytes});
    std::sort(m_summary.instruments.begin(), m_summary.instruments.end(), [](const auto& a, const auto& b) {
        return a.packets != b.packets ? a.packets > b.packets : a.id < b.id;
    });
}

Summary Collector::finish(const std::vector<std::string>& paths) {
    for (std::size_t i = 0; i < paths.size(); ++i) m_summary.files.push_back({paths[i], m_faults[i]});
    m_summary.second = m_second.peak();
    m_summary.millisecond = m_millisecond.peak();
    m_summary.longestGaps = m_gaps.gaps();
    for (const auto& stream : m_streams) {
        StreamSummary& summary = stream->summary;
        summary.second = stream->second.peak();
        summary.millisecond = stream->millisecond.peak();
        summary.burst = stream->burst.longest();
        if (!stream->isCounted) summary.lost.byTap.reset();
        if (summary.sequence) summary.lost.sequenceLost = summary.sequence->lost;
        std::sort(summary.types.begin(), summary.types.end(),
                  [](const TypeCounts& a, const TypeCounts& b) { return a.type < b.type; });
        m_summary.streams.push_back(std::move(summary));
    }
    addInstruments();
    return std::move(m_summary);
}

void align(Summary& one, Summary& other) {
    one.timeline.widenTo(other.timeline.widthNs());
    other.timeline.widenTo(one.timeline.widthNs());
}

GapCounts gapsOf(const Summary& summary) {
    GapCounts all{};
    for (const StreamSummary& stream : summary.streams) {
        for (std::size_t b = 0; b < kGapBuckets; ++b) all[b] += stream.gaps[b];
    }
    return all;
}

const StreamSummary* streamWithLongestBurst(const Summary& summary) {
    const auto longest = std::max_element(
        summary.streams.begin(), summary.streams.end(),
        [](const StreamSummary& a, const StreamSummary& b) { return a.burst.packets < b.burst.packets; });
    return longest == summary.streams.end() || longest->burst.packets == 0 ? nullptr : &*longest;
}

data::Losses lossesOf(const Summary& summary) {
    data::Losses all;
    for (const StreamSummary& stream : summary.streams) all = all + data::lossesOf(stream.lost);
    return all;
}

data::Count missingOf(const Summary& summary) {
    data::Count all;
    for (const StreamSummary& stream : summary.streams) {
        if (stream.sequence) all = all.value_or(0) + stream.sequence->lost;
    }
    return all;
}

std::map<std::uint64_t, std::uint64_t> unknownOf(const Summary& summary) {
    std::map<std::uint64_t, std::uint64_t> unknown;
    for (const StreamSummary& stream : summary.streams) {
        for (const TypeCounts& type : stream.types) {
            if (type.type != kContractMap && type.described < type.packets)
                unknown[type.type] += type.packets - type.described;
        }
    }
    return unknown;
}

}  // namespace vexo::info
