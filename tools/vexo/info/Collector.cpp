#include "tools/vexo/info/Collector.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace vexo::info {
namespace {

constexpr char kOtherStreams[] = "other streams";
constexpr std::uint64_t kPacketsOfProgress = 1 << 16;

// Which of the counters of a numbering a packet has its number in; nothing for a packet without one.
std::optional<std::uint32_t> numberSlotOf(const data::Numbering& numbering, const capture::Packet& packet) {
    if (packet.size < data::kHeadBytes) return std::nullopt;
    if (numbering.place == data::Numbering::Place::kHead) return 0;
    const std::uint64_t type = data::loadUnsigned(packet.data, 4, false);
    if (type >= data::Numbering::kTypes || numbering.fields[type].size != packet.size) return std::nullopt;
    return numbering.isByType ? static_cast<std::uint32_t>(type) : 0;
}

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

data::SequenceWords operator+(const data::SequenceWords& a, const data::SequenceWords& b) {
    return {a.gaps + b.gaps, a.lost + b.lost, a.late + b.late, a.restarts + b.restarts};
}
data::SequenceWords operator-(const data::SequenceWords& a, const data::SequenceWords& b) {
    return {a.gaps - b.gaps, a.lost - b.lost, a.late - b.late, a.restarts - b.restarts};
}

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
    data::SequenceCounter sequence;
    vexo_stats::Stream numbers{};  // what it counts
    std::uint64_t unrecorded = 0;
    bool hasCounts = false;                  // a capture of the stream has ended
    std::optional<std::uint64_t> countedTo;  // end of the last capture's counts
};

/// A capture whose first number lies behind the expected one. If it follows on, its first packets came late. Otherwise
/// it is a recording of its own, as which the stream's numbers count it. Its end tells.
struct Collector::Doubt {
    data::SequenceCounter sequence;  // as if it followed on
    vexo_stats::Stream numbers{};    // what that one has counted
    data::SequenceWords own;         // what the stream's numbers had counted then, of the same packets
    bool isOpen = false;             // the next number may mean different things
    std::uint64_t bases = 0;         // numbers that are the first of a recording of its own
    std::size_t lane = 0;            // in the timeline: losses as a recording of its own
    std::uint64_t lost = 0;          // losses as if it followed on, in the same time
    std::uint64_t timeNs = 0;        // of the first packet

    void take(const Stream& stream, const data::SequenceWords& before, const capture::Packet& packet, bool isJump);
};

/// An interface of an open capture.
struct Collector::Source {
    Stream* stream = nullptr;  // null: it is no stream
    bool isRegisters = false;
    std::uint32_t numbered = 0;  // bit n: it had a packet with a number of slot n
    // Jumps at the first of these numbers. Whether they are losses can be told at the end of the capture.
    std::uint64_t jumps = 0;
    std::uint64_t jumped = 0;
    std::uint64_t jumpNs = 0;
    std::unique_ptr<Doubt> doubt;
};

// @param before  the stream's numbers before this packet
void Collector::Doubt::take(const Stream& stream, const data::SequenceWords& before, const capture::Packet& packet,
                            bool isJump) {
    const std::uint64_t lostBefore = numbers.sequenceLost;
    sequence.take(numbers, packet.data, packet.size);
    if (!isJump && numbers.sequenceLost > lostBefore) lost += numbers.sequenceLost - lostBefore;
    own = own + (data::wordsOf(stream.numbers) - before);
    const auto& next = stream.sequence.expected.next;
    isOpen = !std::equal(std::begin(next), std::end(next), std::begin(sequence.expected.next));
}

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
        stream->sequence = data::SequenceCounter(&m_layouts);
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
    countNumber(packet);
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

void Collector::countNumber(const capture::Packet& packet) {
    Stream& stream = *m_source->stream;
    const data::SequenceWords before = data::wordsOf(stream.numbers);
    stream.sequence.take(stream.numbers, packet.data, packet.size);
    const data::Numbering* const numbering = stream.sequence.numbering();
    const auto slot = numbering != nullptr ? numberSlotOf(*numbering, packet) : std::nullopt;
    Doubt* const doubt = m_source->doubt != nullptr && m_source->doubt->isOpen ? m_source->doubt.get() : nullptr;
    if (!slot) {
        if (doubt != nullptr) doubt->take(stream, before, packet, false);
        return;
    }
    const std::uint32_t bit = std::uint32_t{1} << *slot;
    const bool isFirst = (m_source->numbered & bit) == 0;
    m_source->numbered |= bit;
    const std::uint64_t now = stream.numbers.sequenceLost;
    const std::uint64_t lost = now > before.lost ? now - before.lost : 0;
    if (isFirst) {
        countFirst(packet, *slot, before, lost);
    } else if (lost > 0) {
        m_summary.timeline.addLost(doubt != nullptr ? doubt->lane : stream.number, packet.timeNs, lost);
    }
    if (doubt != nullptr) doubt->take(stream, before, packet, isFirst);
}

// @param lost  between the last number of the capture before and this one
void Collector::countFirst(const capture::Packet& packet, std::uint32_t slot, const data::SequenceWords& before,
                           std::uint64_t lost) {
    Stream& stream = *m_source->stream;
    if (lost > 0) {
        ++m_source->jumps;
        m_source->jumped += lost;
        m_source->jumpNs = packet.timeNs;
    } else if (stream.numbers.sequenceRestarts > before.restarts) {
        --stream.numbers.sequenceRestarts;
        ++stream.unrecorded;
    } else if (stream.numbers.sequenceLate > before.late) {
        beginAnew(packet, slot);
    }
}

// The number that came late is the first one of a recording, unless the end of its capture tells otherwise.
void Collector::beginAnew(const capture::Packet& packet, std::uint32_t slot) {
    Stream& stream = *m_source->stream;
    std::unique_ptr<Doubt>& doubt = m_source->doubt;
    if (doubt == nullptr && m_doubts < kMostDoubts) {
        ++m_doubts;
        doubt = std::make_unique<Doubt>();
        data::setWords(doubt->numbers, data::wordsOf(stream.numbers));
        --doubt->numbers.sequenceLate;
        doubt->own = data::wordsOf(doubt->numbers);
        doubt->lane = m_nextLane++;
        doubt->timeNs = packet.timeNs;
    }
    if (doubt != nullptr && !doubt->isOpen) {
        doubt->isOpen = true;
        doubt->sequence = stream.sequence;
        ++doubt->numbers.sequenceLate;
    }
    ++(doubt != nullptr ? doubt->bases : stream.unrecorded);
    --stream.numbers.sequenceLate;
    stream.sequence.expectAny(slot);
    stream.sequence.take(stream.numbers, packet.data, packet.size);
}

void Collector::settle(Stream& stream, const Doubt& doubt, bool followsOn) {
    --m_doubts;
    if (!followsOn) {
        stream.unrecorded += doubt.bases;
        m_summary.timeline.moveLane(doubt.lane, stream.number);
        return;
    }
    data::setWords(stream.numbers, data::wordsOf(stream.numbers) - doubt.own + data::wordsOf(doubt.numbers));
    if (doubt.isOpen) stream.sequence = doubt.sequence;
    m_summary.timeline.dropLane(doubt.lane);
    if (doubt.lost > 0) m_summary.timeline.addLost(stream.number, doubt.timeNs, doubt.lost);
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
    if (source.doubt != nullptr) settle(stream, *source.doubt, followsOn);
    if (source.jumps == 0) return;
    if (followsOn) {
        m_summary.timeline.addLost(stream.number, source.jumpNs, source.jumped);
    } else {
        stream.unrecorded += source.jumps;
        stream.numbers.sequenceGaps -= std::min(stream.numbers.sequenceGaps, source.jumps);
        stream.numbers.sequenceLost -= std::min(stream.numbers.sequenceLost, source.jumped);
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
        const vexo_stats::Stream& numbers = stream->numbers;
        if (stream->sequence.numbering() != nullptr) {
            summary.sequence = {numbers.sequenceGaps, numbers.sequenceLost, numbers.sequenceLate,
                                numbers.sequenceRestarts, stream->unrecorded};
            summary.lost.sequenceLost = numbers.sequenceLost;
        }
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
