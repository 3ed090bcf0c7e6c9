#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "capture/CardCounts.h"

namespace capture {

// Link types that pcapng leaves to its users.
inline constexpr std::uint16_t kStreamLink = 147;    // LINKTYPE_USER0: packets of a card-to-host stream
inline constexpr std::uint16_t kRegisterLink = 148;  // LINKTYPE_USER1: RegisterAccess records

/// Where a file was written, as its head says.
struct SectionInfo {
    std::string hardware;
    std::string os;
    std::string application;
    std::string comment = {};
};

/// The source of packets: a stream of the card, or the registers.
struct InterfaceInfo {
    std::uint16_t linkType = kStreamLink;
    std::string name;  // "channel 0", or "card 1 channel 0" on any bus but 0; "registers"
    std::string description;
};

/// Packets of an interface between two times, nanoseconds since 1970.
struct InterfaceCounts {
    std::uint64_t startNs = 0;
    std::uint64_t endNs = 0;
    std::uint64_t received = 0;           // all packets that the program received
    std::uint64_t dropped = 0;            // those of them that are not in the file
    std::optional<CardCounts> card = {};  // empty: the writer did not ask a card
};

/// Blocks of a capture file, one after another in memory.
using BlockBuffer = std::vector<unsigned char>;

void appendSection(BlockBuffer& out, const SectionInfo& info);
/// The n-th interface of a section, from 0, has the number n. Its packets' times are in nanoseconds.
void appendInterface(BlockBuffer& out, const InterfaceInfo& info);
/// @param timeNs    nanoseconds since 1970
/// @param trueSize  what the packet's size was before it was cut; a smaller number than @p size: it was not cut
void appendPacket(BlockBuffer& out, std::uint32_t interface, std::uint64_t timeNs, const void* data, std::uint32_t size,
                  std::uint32_t trueSize = 0);
void appendStatistics(BlockBuffer& out, std::uint32_t interface, const InterfaceCounts& counts);

/// Bytes that a packet of @p size bytes takes in a file.
std::uint32_t packetBlockBytes(std::uint32_t size);
/// Bytes of one appendStatistics(), at most.
std::uint32_t statisticsBlockBytes();

}  // namespace capture
