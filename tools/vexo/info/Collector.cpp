#include "tools/vexo/info/Collector.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace vexo::info {
namespace {

constexpr char kOtherStreams[] = "other streams";
constexpr std::uint64_t kPacketsOfProgress = 1 << 16;

// A sum is known only if all its parts are.
void add(data::Count& all, const data::Count& part, bool isFirst) {
    if (isFirst) {
        all = part;
    } else if (all && part) {
        all = data::sumOf(*all, *part);
    } else {
        all.reset();
    }
}

constexpr data::Count data::LossCounts::*kCountsOfCaptures[] = {
    &data::LossCounts::byTap,          &data::LossCounts::backPressure, &data::LossCounts::backPressureByApplication,
    &data::LossCounts::lostBeforeCard, &data::LossCounts::fifoErrors,   &data::LossCounts::errors};

// What the end of a capture tells.
data::LossCounts lossCountsOf(const capture::Interface& interface) {
    data::LossCounts lost;
    if (!interface.counts) return lost;
    const capture::CardCounts card = interface.counts->card.value_or(capture::CardCounts{});
    lost.byTap = interface.counts->dropped;
    lost.backPressure = card.backPressure;
    lost.backPressureByApplication = card.byApplication;
    lost.lostBeforeCard = card.beforeCard;
    lost.fifoErrors = card.fifoErrors;
    lost.errors = card.errors;
    return lost;
}

std::size_t bucketOf(std::uint64_t ns) { return ns < 2 ? 0 : static_cast<std::size_t>(63 - __builtin_clzll(ns)); }

}  // namespace

/// A stream of the card, through all captures.
struct Collector::Stream {
    Stream(const data::Layouts& layouts, StreamNumbers::Shared& shared, std::size_t number)
        : numbers(layouts, shared, number) {}

    StreamSummary summary;
    std::size_t type = 0;  // of the last packet, in the summary
    std::uint64_t previousNs = 0;
    PeakRate<1'000'000'000> second;
    PeakRate<1'000'000> millisecond;
    LongestBurst burst;
    StreamNumbers numbers;
    bool hasCounts = false;                  // a capture of the stream has ended
    std::optional<std::uint64_t> countedTo;  // end of the last capture's counts
};

/// An interface of an open capture.
struct Collector::Source {
    Stream* stream = nullptr;  // null: it is no stream
    bool isRegisters = false;
    StreamNumbers::Part numbers;
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
        m_streams.push_back(std::make_unique<Stream>(m_layouts, m_shared, m_streams.size()));
        stream = m_streams.back().get();
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
        if (payload->id != data::kNoField) countInstrument(packet, payload->fields[payload->id]);
    }
    stream.numbers.take(m_source->numbers, packet);
    if (m_summary.packets % kPacketsOfProgress == 0 && m_progress) m_progress();
}

void Collector::countInstrument(const capture::Packet& packet, const data::Field& field) {
    const auto* const text = reinterpret_cast<const char*>(packet.data + data::kHeadBytes + field.offset);
    const std::string_view id(text, ::strnlen(text, std::min<std::size_t>(field.width, kMostIdBytes)));
    auto found = m_instruments.find(id);
    if (found == m_instruments.end() && m_instruments.size() < kMostInstruments)
        found = m_instruments.emplace(m_ids.emplace_back(id), Instrument{}).first;
    if (found == m_instruments.end()) {
        ++m_summary.otherInstruments;
        return;
    }
    ++found->second.packets;
    found->second.bytes += packet.trueSize;
}

void Collector::noteCounted(Stream& stream, const capture::InterfaceCounts& counts, const data::LossCounts& lost) {
    StreamSummary& summary = stream.summary;
    const CountedLoss now = {counts.startNs, counts.endNs, data::lossesOf(lost)};
    const std::uint64_t total = data::totalOf(now.lost);
    if (total == 0) return;
    if (now.fromNs == 0 || now.untilNs < now.fromNs) {
        summary.countedWithoutTime += total;
    } else if (summary.counted.size() < kMostCounted) {
        summary.counted.push_back(now);
    } else {
        CountedLoss& last = summary.counted.back();
        last = {std::min(last.fromNs, now.fromNs), std::max(last.untilNs, now.untilNs), last.lost + now.lost};
    }
}

void Collector::takeCounts(Source& source, const capture::Interface& interface) {
    Stream& stream = *source.stream;
    const capture::InterfaceCounts counts = interface.counts.value_or(capture::InterfaceCounts{});
    const data::LossCounts lost = lossCountsOf(interface);
    for (const auto count : kCountsOfCaptures) add(stream.summary.lost.*count, lost.*count, !stream.hasCounts);
    if (interface.counts) noteCounted(stream, counts, lost);
    stream.hasCounts = true;
    // Nothing lies between this capture and the one before.
    const bool followsOn = interface.counts && stream.countedTo && *stream.countedTo == counts.startNs;
    stream.countedTo = interface.counts ? std::optional<std::uint64_t>(counts.endNs) : std::nullopt;
    stream.numbers.end(source.numbers, followsOn);
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
        summary.sequence = stream->numbers.counts();
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
