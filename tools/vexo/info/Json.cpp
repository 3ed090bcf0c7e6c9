#include <algorithm>
#include <nlohmann/json.hpp>

#include "tools/data/NumberText.h"
#include "tools/vexo/info/Views.h"
#include "tools/vexo/info/Words.h"

namespace vexo::info {
namespace {

using nlohmann::ordered_json;

// Many readers keep numbers as doubles.
ordered_json whole(std::uint64_t n) {
    constexpr std::uint64_t kExact = std::uint64_t{1} << 53;
    return n <= kExact ? ordered_json(n) : ordered_json(std::to_string(n));
}
ordered_json whole(const data::Count& count) { return count ? whole(*count) : ordered_json(nullptr); }

// Seconds since 1970, or of a length, with nine places.
ordered_json seconds(std::uint64_t ns) {
    char text[data::kNumberRoom];
    return std::string(text, data::putSeconds(text, ns));
}

ordered_json gapJson(const Gap& gap) {
    return {{"from", seconds(gap.fromNs)}, {"to", seconds(gap.untilNs)}, {"seconds", seconds(gap.lengthNs())}};
}
ordered_json peakJson(const Peak& peak) { return {{"from", seconds(peak.startNs)}, {"packets", whole(peak.packets)}}; }
ordered_json burstJson(const Burst& burst) {
    return {{"from", seconds(burst.startNs)},
            {"to", seconds(burst.endNs)},
            {"packets", whole(burst.packets)},
            {"bytes", whole(burst.bytes)}};
}

// Upper bounds in seconds, with counts; buckets without a count are left out.
ordered_json histogramJson(const GapCounts& gaps) {
    ordered_json all = ordered_json::array();
    for (std::size_t b = 0; b < kGapBuckets; ++b) {
        if (gaps[b] == 0) continue;
        const double below = 2e-9 * static_cast<double>(std::uint64_t{1} << b);
        all.push_back({{"below_seconds", below}, {"count", whole(gaps[b])}});
    }
    return all;
}

ordered_json lossJson(const data::Losses& losses) {
    ordered_json json = ordered_json::object();
    for (const data::LossCause cause : data::kAllLossCauses) json[data::keyOf(cause)] = whole(losses[cause]);
    return json;
}

ordered_json sequenceJson(const std::optional<SequenceCounts>& sequence) {
    if (!sequence) return nullptr;
    return {{"gaps", whole(sequence->gaps)},
            {"lost", whole(sequence->lost)},
            {"late", whole(sequence->late)},
            {"restarts", whole(sequence->restarts)},
            {"unrecorded", whole(sequence->unrecorded)}};
}

ordered_json streamJson(const StreamSummary& stream) {
    ordered_json json;
    json["stream"] = stream.name;
    json["card"] = stream.place ? ordered_json(stream.place->card) : ordered_json(nullptr);
    json["channel"] = stream.place ? ordered_json(stream.place->channel) : ordered_json(nullptr);
    json["packets"] = whole(stream.packets);
    json["bytes"] = whole(stream.bytes);
    json["types"] = ordered_json::object();
    for (const TypeCounts& type : stream.types)
        json["types"][typeName(type.type)] = {{"packets", whole(type.packets)}, {"bytes", whole(type.bytes)}};
    json["cut"] = whole(stream.cut);
    json["backwards"] = whole(stream.backwards);
    if (stream.packets > 0) {
        json["from"] = seconds(stream.firstNs);
        json["to"] = seconds(stream.lastNs);
        json["peak_second"] = peakJson(stream.second);
        json["peak_millisecond"] = peakJson(stream.millisecond);
        json["largest_burst"] = burstJson(stream.burst);
        json["largest_gap"] = gapJson(stream.longestGap);
    }
    json["gaps"] = histogramJson(stream.gaps);
    json["sequence"] = sequenceJson(stream.sequence);
    json["lost"] = lossJson(data::lossesOf(stream.lost));
    json["counted_losses"] = ordered_json::array();
    for (const CountedLoss& loss : stream.counted) {
        json["counted_losses"].push_back(
            {{"from", seconds(loss.fromNs)}, {"to", seconds(loss.untilNs)}, {"lost", lossJson(loss.lost)}});
    }
    return json;
}

// Bins without a packet and without a loss are left out.
ordered_json timelineJson(const Summary& summary) {
    const Timeline& timeline = summary.timeline;
    std::vector<std::uint64_t> lost(timeline.bins().size());
    for (std::size_t stream = 0; stream < summary.streams.size(); ++stream) {
        for (const auto& [bin, packets] : timeline.lane(stream)) lost[bin] += packets;
    }
    ordered_json bins = ordered_json::array();
    for (std::size_t i = 0; i < timeline.bins().size(); ++i) {
        const Timeline::Bin& bin = timeline.bins()[i];
        if (bin.packets == 0 && lost[i] == 0) continue;
        bins.push_back({{"from", seconds(timeline.startNs() + i * timeline.widthNs())},
                        {"packets", whole(bin.packets)},
                        {"bytes", whole(bin.bytes)},
                        {"lost", whole(lost[i])}});
    }
    return {{"seconds", seconds(timeline.widthNs())}, {"bins", bins}};
}

ordered_json summaryJson(const Summary& summary, std::size_t top) {
    ordered_json json;
    json["captures"] = ordered_json::array();
    for (const CaptureFile& file : summary.files) {
        const ordered_json damage = file.fault.empty() ? ordered_json(nullptr) : ordered_json(file.fault);
        json["captures"].push_back({{"file", file.path}, {"damage", damage}});
    }
    json["packets"] = whole(summary.packets);
    json["bytes"] = whole(summary.bytes);
    json["register_accesses"] = whole(summary.registerAccesses);
    if (summary.packets > 0) {
        json["from"] = seconds(summary.firstNs);
        json["to"] = seconds(summary.lastNs);
        json["seconds"] = seconds(summary.lastNs - summary.firstNs);
        json["packets_per_second"] = summary.meanRate();
        json["peak_second"] = peakJson(summary.second);
        json["peak_millisecond"] = peakJson(summary.millisecond);
    }
    json["largest_gaps"] = ordered_json::array();
    for (const Gap& gap : summary.longestGaps) json["largest_gaps"].push_back(gapJson(gap));
    json["burst_seconds"] = seconds(summary.burstNs);
    json["lost"] = lossJson(lossesOf(summary));
    json["streams"] = ordered_json::array();
    for (const StreamSummary& stream : summary.streams) json["streams"].push_back(streamJson(stream));
    json["instrument_count"] = whole(summary.instruments.size());
    json["instruments"] = ordered_json::array();
    for (std::size_t i = 0; i < summary.instruments.size() && i < top; ++i) {
        const InstrumentCounts& one = summary.instruments[i];
        json["instruments"].push_back({{"id", one.id}, {"packets", whole(one.packets)}, {"bytes", whole(one.bytes)}});
    }
    json["timeline"] = timelineJson(summary);
    json["notes"] = notesOf(summary);
    return json;
}

}  // namespace

std::string asJson(const View& view) {
    ordered_json json = summaryJson(*view.summary, view.top);
    if (view.other != nullptr) json["compared_with"] = summaryJson(*view.other, view.top);
    return json.dump(1, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace vexo::info
