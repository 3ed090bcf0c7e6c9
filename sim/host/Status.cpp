#include "sim/host/Status.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>

#include "sim/card/Registers.h"
#include "sim/scenario/Pace.h"

namespace vexo_sim {
namespace {

std::uint32_t countMasks(const TableState& table) {
    std::uint32_t count = 0;
    for (const auto& row : table.words) count += row[card_reg::kMaskWord] != 0 ? 1 : 0;
    return count;
}

ChannelStatus readChannel(const CardState& s, std::uint32_t channel) {
    const UpStreamState& up = s.up[channel];
    ChannelStatus status;
    status.channel = channel;
    status.open = up.open;
    status.packets = up.packets;
    status.drops = up.backPressure;
    status.queuedBytes = up.ring.head.load() - up.ring.tail.load();
    status.sentPackets = s.down[channel].packets;
    return status;
}

using Json = nlohmann::ordered_json;

Json toObject(const Holder& holder) {
    return {{"pid", holder.pid}, {"program", holder.program}, {"user", holder.user}};
}

std::string number(std::uint64_t value) { return std::to_string(value); }

Json exact(std::uint64_t value) {
    constexpr std::uint64_t kExact = std::uint64_t{1} << 53;  // readers may keep numbers as doubles
    return value <= kExact ? Json(value) : Json(number(value));
}

// Six digits: the card shows 09:05:00 as 90500.
std::string timeOfDay(std::uint32_t time) {
    const std::string digits = number(time);
    return std::string(6 - std::min<std::size_t>(6, digits.size()), '0') + digits;
}

// A text in shared memory, which may lack its end.
template <std::size_t size>
std::string textOf(const char (&text)[size]) {
    return {text, strnlen(text, size)};
}

// A field of the status: its JSON key and value, and its words in the text. JSON has all fields, in this order; the
// text leaves out those whose words are empty.
struct CardField {
    const char* key;
    Json (*value)(const CardStatus& s);
    std::string (*words)(const CardStatus& s);
};

std::string none(const CardStatus&) { return {}; }

using Status = const CardStatus&;
constexpr CardField kFirstLine[] = {
    {"bus", [](Status s) { return Json(s.bus); }, [](Status s) { return "simulated card at bus " + number(s.bus); }},
    {"host", [](Status s) { return toObject(s.host); }, [](Status s) { return toText(s.host); }},
    {"pace", [](Status s) { return Json(s.pace); }, [](Status s) { return "pace " + s.pace; }},
    {"uptime_s", [](Status s) { return exact(s.uptimeSeconds); },
     [](Status s) { return "up " + number(s.uptimeSeconds) + "s"; }},
    {"scenario", [](Status s) { return Json(s.scenario); },
     [](Status s) { return s.scenario.empty() ? "" : "scenario " + s.scenario; }},
    {"description", [](Status s) { return Json(s.description); }, none},
};
constexpr CardField kSecondLine[] = {
    {"learned", [](Status s) { return Json(s.learned); },
     [](Status s) { return "learned " + number(s.learned) + " of " + number(s.instruments); }},
    {"instruments", [](Status s) { return Json(s.instruments); }, none},
    {"masks",
     [](Status s) {
         return Json{{"single_leg", s.masks[0]}, {"combination", s.masks[1]}};
     },
     [](Status s) { return "masks " + number(s.masks[0]) + " single-leg " + number(s.masks[1]) + " combination"; }},
    {"decode_switch", [](Status s) { return Json(s.decodeSwitch); },
     [](Status s) { return "decode switch " + number(s.decodeSwitch); }},
    {"map_transmit", [](Status s) { return Json(s.mapTransmit); },
     [](Status s) -> std::string { return s.mapTransmit == 1 ? "map on" : "map off"; }},
    {"trading_date", [](Status s) { return Json(s.tradingDate); },
     [](Status s) { return "date " + number(s.tradingDate); }},
    {"exchange_time", [](Status s) { return Json(s.exchangeTime); },
     [](Status s) { return "time " + timeOfDay(s.exchangeTime); }},
    {"in_reset", [](Status s) { return Json(s.inReset); },
     [](Status s) -> std::string { return s.inReset ? "held in reset" : ""; }},
};

// A field of a stream: its JSON key and value, and the heading of its column in the text; none when it has no column.
struct ChannelField {
    const char* key;
    Json (*value)(const ChannelStatus& c);
    const char* heading;
    int width;
    bool isLoss = false;
};

using Channel = const ChannelStatus&;
constexpr ChannelField kChannelFields[] = {
    {"channel", [](Channel c) { return Json(c.channel); }, "chan", 4},
    {"open", [](Channel c) { return Json(c.open); }, nullptr, 0},
    {"holder", [](Channel c) { return c.holder ? toObject(*c.holder) : Json(); }, nullptr, 0},
    {"packets", [](Channel c) { return Json(c.packets); }, "packets", 12},
    {"drops", [](Channel c) { return Json(c.drops); }, "drops", 12, true},
    {"queued_bytes", [](Channel c) { return exact(c.queuedBytes); }, "queued", 12},
    {"sent_packets", [](Channel c) { return exact(c.sentPackets); }, nullptr, 0},
};

template <std::size_t n>
void addFields(Json& object, const CardField (&fields)[n], const CardStatus& status) {
    for (const CardField& field : fields) object[field.key] = field.value(status);
}

template <std::size_t n>
std::string lineOf(const CardField (&fields)[n], const CardStatus& status) {
    std::string line;
    for (const CardField& field : fields) {
        const std::string words = field.words(status);
        if (!words.empty()) line += (line.empty() ? "" : ", ") + words;
    }
    return line + '\n';
}

Json toObject(const ChannelStatus& channel) {
    Json object;
    for (const ChannelField& field : kChannelFields) object[field.key] = field.value(channel);
    return object;
}

constexpr char kHeadingColor[] = "\033[1m";
constexpr char kLossColor[] = "\033[31m";
constexpr char kNoColor[] = "\033[0m";

std::string headingRow() {
    std::ostringstream row;
    for (const ChannelField& field : kChannelFields)
        if (field.heading != nullptr) row << std::setw(field.width) << field.heading << ' ';
    row << " held by";
    return row.str();
}

// A stream that loses packets shows how many in a colour.
std::string rowOf(const ChannelStatus& channel, TextStyle style) {
    std::ostringstream row;
    for (const ChannelField& field : kChannelFields) {
        if (field.heading == nullptr) continue;
        const bool colored = style == TextStyle::kColored && field.isLoss && channel.drops > 0;
        row << (colored ? kLossColor : "") << std::setw(field.width) << field.value(channel).dump()
            << (colored ? kNoColor : "") << ' ';
    }
    row << ' ' << (channel.holder ? toText(*channel.holder) : "nobody") << '\n';
    return row.str();
}

// Reads the card's memory. Do nothing slow here: every user of the card waits.
bool readState(SharedCard& card, CardStatus& status) {
    const CardState& s = card.block().state;
    const StateLock lock(card.locks(), card.block().state);
    card.tellOf(lock.result());
    if (!lock.owns()) return false;
    status.pace = paceName(s.config.pace);
    status.instruments = s.parser.count;
    status.learned = s.parser.learned;
    for (std::uint32_t table = 0; table < kTables; ++table) status.masks[table] = countMasks(s.tables[table]);
    status.decodeSwitch = registers::peek(s, card_reg::kDecodeSwitch);
    status.mapTransmit = registers::peek(s, card_reg::kMapTransmit);
    status.tradingDate = registers::peek(s, card_reg::kTradingDate);
    status.exchangeTime = registers::exchangeTime(s);
    status.inReset = s.registers.heldInReset;
    for (std::uint32_t channel = 0; channel < kStreams; ++channel) status.channels.push_back(readChannel(s, channel));
    return true;
}

}  // namespace

std::optional<CardStatus> readStatus(SharedCard& card) {
    CardStatus status;
    if (!readState(card, status)) return std::nullopt;
    const HostInfo& info = card.block().host;
    status.bus = info.bus;
    status.host = card.host();
    status.uptimeSeconds = static_cast<std::uint64_t>(time(nullptr)) - info.startedAt;
    status.scenario = textOf(info.scenario);
    status.description = textOf(info.description);
    for (ChannelStatus& channel : status.channels)
        if (const std::optional<pid_t> holder = card.file().holderOf({CardPart::kUp, channel.channel}))
            channel.holder = describeProcess(*holder);
    return status;
}

std::string toJson(const CardStatus& status) {
    Json all;
    addFields(all, kFirstLine, status);
    addFields(all, kSecondLine, status);
    all["channels"] = Json::array();
    for (const ChannelStatus& channel : status.channels) all["channels"].push_back(toObject(channel));
    return all.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string toText(const CardStatus& status, TextStyle style) {
    std::string text = lineOf(kFirstLine, status) + lineOf(kSecondLine, status);
    text += style == TextStyle::kColored ? kHeadingColor + headingRow() + kNoColor + "\n" : headingRow() + "\n";
    for (const ChannelStatus& channel : status.channels)
        if (channel.open || channel.holder) text += rowOf(channel, style);
    return text;
}

}  // namespace vexo_sim
