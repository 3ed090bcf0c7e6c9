#include <nlohmann/json.hpp>

#include "tools/vexo/stat/Views.h"

namespace vexo::stat {
namespace {

using nlohmann::ordered_json;
using vexo_stats::kUnknown;
using vexo_stats::Stream;

ordered_json orNull(std::uint64_t n) { return n == kUnknown ? ordered_json(nullptr) : ordered_json(n); }
ordered_json lossJson(const data::Losses& losses) {
    ordered_json json = ordered_json::object();
    for (const data::LossCause cause : data::kAllLossCauses) {
        const data::Count& count = losses[cause];
        json[data::keyOf(cause)] = count ? ordered_json(*count) : ordered_json(nullptr);
    }
    return json;
}

// Upper bounds in seconds, with counts; buckets without a count are left out.
ordered_json histogram(const std::uint64_t (&buckets)[vexo_stats::kBuckets], std::size_t used, const Page& page) {
    ordered_json all = ordered_json::array();
    for (std::size_t b = 0; b < used; ++b) {
        if (buckets[b] == 0) continue;
        all.push_back({{"below_seconds", page.endOfBucket(b)}, {"count", buckets[b]}});
    }
    return all;
}

ordered_json typesOf(const Stream& stream) {
    ordered_json types = ordered_json::object();
    for (std::size_t slot = 0; slot < vexo_stats::kTypeSlots; ++slot) {
        if (stream.packets[slot] == 0) continue;
        types[typeName(slot)] = {{"packets", stream.packets[slot]}, {"bytes", stream.bytes[slot]}};
    }
    return types;
}

ordered_json streamJson(const Page& page, const Stream& stream) {
    ordered_json json;
    json["card"] = orNull(stream.card);
    json["channel"] = orNull(stream.channel);
    json["open"] = stream.state == vexo_stats::kOpen;
    json["packets"] = packetsOf(stream);
    json["types"] = typesOf(stream);
    if (stream.pollsKnown != 0) json["polls"] = {{"idle", stream.idlePolls}, {"failed", stream.failedPolls}};
    if (stream.firstPacket != 0) {
        json["first_packet"] = page.timeOfDay(stream.firstPacket);
        json["last_packet"] = page.timeOfDay(lastPacketOf(stream));
    }
    json["gaps"] = histogram(stream.gaps, kGapBuckets, page);
    json["callbacks"] = histogram(stream.callbacks, vexo_stats::kBuckets, page);
    json["callback_seconds"] = page.seconds(stream.callbackClock);
    if (stream.sequenceKnown != 0) {
        json["sequence"] = {{"gaps", stream.sequenceGaps},
                            {"lost", stream.sequenceLost},
                            {"late", stream.sequenceLate},
                            {"restarts", stream.sequenceRestarts}};
    }
    json["card_packets"] = orNull(stream.cardPackets);
    json["back_pressure"] = orNull(stream.backPressure);
    json["fifo_errors"] = orNull(stream.fifoErrors);
    json["errors"] = orNull(stream.errors);
    json["lost"] = lossJson(lossOf(stream));
    return json;
}

}  // namespace

std::string asJson(const std::vector<Page>& pages) {
    std::string text;
    for (const Page& page : pages) {
        ordered_json json;
        json["program"] = page.program();
        json["pid"] = page.process.pid;
        json["user"] = page.owner;
        json["writer"] = writerOf(page);
        json["state"] = nameOf(page.life);
        json["clock_is_even"] = page.process.clockIsEven != 0;
        ordered_json steps = ordered_json::object();
        for (int step = 0; step < vexo_stats::kSteps; ++step) {
            const std::uint64_t at = page.process.steps[step];
            if (at != 0) steps[nameOf(static_cast<vexo_stats::Step>(step))] = page.timeOfDay(at);
        }
        json["steps"] = steps;
        json["streams"] = ordered_json::array();
        for (const Stream& stream : page.streams) json["streams"].push_back(streamJson(page, stream));
        text += json.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "\n";
    }
    return text;
}

}  // namespace vexo::stat
