#include "sim/host/Status.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>

#include "sim/card/Registers.h"
#include "sim/scenario/Pace.h"

namespace vexo_sim {
namespace {

constexpr const char* kTableNames[] = {"single_leg", "combination"};

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

nlohmann::ordered_json toObject(const Holder& holder) {
    return {{"pid", holder.pid}, {"program", holder.program}, {"user", holder.user}};
}

nlohmann::ordered_json toObject(const ChannelStatus& c) {
    return {{"channel", c.channel},
            {"open", c.open},
            {"holder", c.holder ? toObject(*c.holder) : nlohmann::ordered_json()},
            {"packets", c.packets},
            {"drops", c.drops},
            {"queued_bytes", c.queuedBytes},
            {"sent_packets", c.sentPackets}};
}

// A text in shared memory, which may lack its end.
template <std::size_t size>
std::string textOf(const char (&text)[size]) {
    return {text, strnlen(text, size)};
}

template <typename... Values>
void append(std::string& text, const char* format, Values... values) {
    char line[512];
    std::snprintf(line, sizeof line, format, values...);
    text += line;
}

// Reads the card's memory. Do nothing slow here: every user of the card waits.
bool readState(SharedCard& card, CardStatus& status) {
    const CardState& s = card.block().state;
    const StateLock lock(card.locks(), card.block().state);
    if (!lock.owns()) card.tellStuckHolder();
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
    nlohmann::ordered_json masks;
    for (std::uint32_t table = 0; table < kTables; ++table) masks[kTableNames[table]] = status.masks[table];
    nlohmann::ordered_json channels = nlohmann::ordered_json::array();
    for (const ChannelStatus& channel : status.channels) channels.push_back(toObject(channel));
    const nlohmann::ordered_json all = {{"bus", status.bus},
                                        {"host", toObject(status.host)},
                                        {"uptime_s", status.uptimeSeconds},
                                        {"scenario", status.scenario},
                                        {"description", status.description},
                                        {"pace", status.pace},
                                        {"instruments", status.instruments},
                                        {"learned", status.learned},
                                        {"masks", masks},
                                        {"decode_switch", status.decodeSwitch},
                                        {"map_transmit", status.mapTransmit},
                                        {"trading_date", status.tradingDate},
                                        {"exchange_time", status.exchangeTime},
                                        {"in_reset", status.inReset},
                                        {"channels", channels}};
    return all.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

std::string toText(const CardStatus& status) {
    std::string text;
    append(text, "simulated card at bus %u, %s, pace %s, up %llus%s%s\n", status.bus, toText(status.host).c_str(),
           status.pace.c_str(), static_cast<unsigned long long>(status.uptimeSeconds),
           status.scenario.empty() ? "" : ", scenario ", status.scenario.c_str());
    append(text,
           "learned %u of %u, masks %u single-leg %u combination, decode switch %u, map %s, date %u, time %06u%s\n",
           status.learned, status.instruments, status.masks[0], status.masks[1], status.decodeSwitch,
           status.mapTransmit == 1 ? "on" : "off", status.tradingDate, status.exchangeTime,
           status.inReset ? ", held in reset" : "");
    append(text, "%4s %12s %12s %12s  %s\n", "chan", "packets", "drops", "queued", "held by");
    for (const ChannelStatus& c : status.channels) {
        if (!c.open && !c.holder) continue;
        append(text, "%4u %12u %12u %12llu  %s\n", c.channel, c.packets, c.drops,
               static_cast<unsigned long long>(c.queuedBytes), c.holder ? toText(*c.holder).c_str() : "nobody");
    }
    return text;
}

}  // namespace vexo_sim
