#pragma once

#include <enyx-sim/md_payload.h>
#include <cstdint>
#include <ctime>

/// The packets of the measurement: Level-1 quotes that say when they were handed out, and whose bytes can be checked.
namespace many {

#pragma pack(push, 1)
struct TimedPacket {
    enyx_sim::PacketHead head;
    enyx_sim::Level1Quote quote;
};
#pragma pack(pop)

/// One clock for all processes of the machine, which nobody sets.
inline std::uint64_t now() {
    std::timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

/// Of the quote with this number, in a field that differs from packet to packet.
inline std::uint64_t checkOf(std::uint64_t sequence) { return sequence * 0x9E3779B97F4A7C15U; }

inline TimedPacket packetOf(std::uint64_t sequence, std::uint64_t timeNs) {
    TimedPacket packet{};
    packet.head = {17, sizeof packet, static_cast<std::uint32_t>(sequence)};
    packet.quote.common.sequence = sequence;
    packet.quote.common.turnover = static_cast<std::int64_t>(timeNs);
    packet.quote.common.totalVolume = checkOf(sequence);
    return packet;
}

}  // namespace many
