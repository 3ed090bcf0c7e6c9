#include "sim/card/ContractMap.h"

#include <algorithm>
#include <cstring>

#include "enyx-sim/md_payload.h"
#include "sim/card/PacketFaults.h"
#include "sim/card/Schedule.h"
#include "sim/card/UpStream.h"

namespace vexo_sim::contract_map {
namespace {

// Packet: head (12), length of the message area (2, big-endian), messages.
// Message: its length (2, big-endian), [number of learned instruments (4, big-endian), first message only],
// table (1), row (2, big-endian), id without terminator.
constexpr std::uint32_t kPacketType = 2;
constexpr std::uint32_t kAreaOffset = 14;
constexpr std::uint32_t kFirstHeader = 9;
constexpr std::uint32_t kHeader = 5;
constexpr std::uint32_t kMaxArea = 0xFFFF;

bool mayTransmit(const CardState& s) {
    return s.registers.stored[card_reg::kMapTransmit] == 1 && !s.feed.paused && s.up[0].open && s.parser.learned > 0;
}

unsigned char* put16(unsigned char* at, std::uint32_t value) {
    at[0] = static_cast<unsigned char>(value >> 8);
    at[1] = static_cast<unsigned char>(value);
    return at + 2;
}

unsigned char* put32(unsigned char* at, std::uint32_t value) { return put16(put16(at, value >> 16), value & 0xFFFF); }

unsigned char* putMessage(unsigned char* at, const CardState& s, const Instrument& instrument, std::uint32_t idLength,
                          bool first) {
    at = put16(at, (first ? kFirstHeader : kHeader) + idLength);
    if (first) at = put32(at, s.parser.learned);
    *at++ = instrument.table;
    at = put16(at, instrument.row);
    std::memcpy(at, instrument.id, idLength);
    return at + idLength;
}

std::uint32_t packetsPerRound(const CardState& s) {
    const std::uint64_t messages = std::max(s.config.mapMessagesPerPacket, 1U);
    return static_cast<std::uint32_t>((safeCount(s.parser.learned) + messages - 1) / messages);
}

// Messages from the cursor on, until the packet is full or the round ends. Returns the packet's length.
std::uint32_t fillPacket(CardState& s, unsigned char* packet) {
    const std::uint32_t limit = std::min(safeMtu(s.config.mtu), kAreaOffset + kMaxArea);
    unsigned char* at = packet + kAreaOffset;
    const std::uint32_t learned = safeCount(s.parser.learned);
    for (std::uint32_t n = 0; n < s.config.mapMessagesPerPacket && s.map.cursor < learned; ++n) {
        const Instrument& instrument = s.parser.instruments[safeNumber(s.map.cursor)];
        const auto idLength = static_cast<std::uint32_t>(strnlen(instrument.id, sizeof instrument.id));
        const std::size_t length = (n == 0 ? kFirstHeader : kHeader) + idLength;
        if (static_cast<std::size_t>(at - packet) + length > limit) break;
        at = putMessage(at, s, instrument, idLength, n == 0);
        ++s.map.cursor;
    }
    if (s.map.cursor >= learned) s.map.cursor = 0;
    const auto length = static_cast<std::uint32_t>(at - packet);
    put16(packet + 12, length - kAreaOffset);
    return length;
}

bool sendPacket(CardState& s) {
    UpStreamState& stream = s.up[0];
    unsigned char* packet = ring::reserve(stream.ring, safeMtu(s.config.mtu));
    if (packet == nullptr) return false;
    const std::uint32_t length = fillPacket(s, packet);
    const enyx_sim::PacketHead head{kPacketType, length, ++stream.headSequence};
    std::memcpy(packet, &head, sizeof head);
    if (packet_faults::armed(s)) {
        packet_faults::commitSpoiled(s, 0, kMapPackets, packet, length);
        return true;
    }
    ring::commit(stream.ring, length);
    ++stream.packets;
    return true;
}

}  // namespace

bool isMapPacket(const unsigned char* packet, std::uint32_t size) {
    std::uint32_t type = 0;
    if (size < sizeof type) return false;
    std::memcpy(&type, packet, sizeof type);
    return type == kPacketType;
}

void refresh(CardState& s) {
    const bool active = mayTransmit(s);
    if (active && !s.map.active) {
        s.map.cursor = 0;
        s.map.dueNs = s.clockNs;
        wakeAt(s, s.map.dueNs);
    }
    s.map.active = active;
}

void advance(CardState& s) {
    MapState& map = s.map;
    if (!map.active) return;
    const std::uint32_t most = std::max(packetsPerRound(s), 1U);
    const std::uint64_t interval = nsFromMs(s.config.mapRoundMs) / most;
    std::uint32_t sent = 0;
    // A full ring only delays: the same messages are tried again at the next look.
    for (; sent < most && s.clockNs >= map.dueNs && sendPacket(s); ++sent) map.dueNs += interval;
    if (sent == most) map.dueNs = std::max(map.dueNs, s.clockNs + interval);
    wakeAt(s, map.dueNs);
}

}  // namespace vexo_sim::contract_map
