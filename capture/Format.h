#pragma once

#include <cstdint>

/// The parts of the pcapng format that capture files use. A file is a row of blocks. A block has its type first and its
/// length in bytes at both ends; the length is a multiple of four. Numbers have the byte order of the writing machine.
namespace capture::format {

enum BlockType : std::uint32_t {
    kSectionHeader = 0x0A0D0D0A,
    kInterfaceDescription = 1,
    kInterfaceStatistics = 5,
    kEnhancedPacket = 6,
    kArchiveBlock =
        0x80005658,  // of the numbers left to local use: what a relay's archive knows of packets that follow
};

inline constexpr std::uint32_t kByteOrderMagic = 0x1A2B3C4D;
inline constexpr std::uint32_t kSwappedMagic = 0x4D3C2B1A;
inline constexpr std::uint32_t kMaxBlockBytes = 16U << 20;  // a greater length counts as damage
inline constexpr std::uint32_t kFrameBytes = 12;            // type and both lengths: the smallest block

enum OptionCode : std::uint16_t {
    kEnd = 0,
    kComment = 1,
    kSectionHardware = 2,
    kSectionOs = 3,
    kSectionApplication = 4,
    kInterfaceName = 2,
    kInterfaceDescriptionText = 3,
    kInterfaceTimeUnit = 9,
    kStatisticsStart = 2,
    kStatisticsEnd = 3,
    kStatisticsReceived = 4,
    kStatisticsDropped = 5,
};

inline constexpr std::uint8_t kNanoseconds = 9;   // negative power of ten
inline constexpr std::uint8_t kMicroseconds = 6;  // the default of an interface
inline constexpr std::uint8_t kPowerOfTwo = 0x80;

struct SectionHead {
    std::uint32_t type, length, byteOrder;
    std::uint16_t major, minor;
    std::int64_t sectionLength;  // -1: until the end of the file or the next section
};
static_assert(sizeof(SectionHead) == 24, "section header block");

struct InterfaceHead {
    std::uint32_t type, length;
    std::uint16_t linkType, reserved;
    std::uint32_t snapLength;
};
static_assert(sizeof(InterfaceHead) == 16, "interface description block");

struct PacketHead {
    std::uint32_t type, length, interface, timeHigh, timeLow, capturedLength, originalLength;
};
static_assert(sizeof(PacketHead) == 28, "enhanced packet block");

struct StatisticsHead {
    std::uint32_t type, length, interface, timeHigh, timeLow;
};
static_assert(sizeof(StatisticsHead) == 20, "interface statistics block");

struct OptionHead {
    std::uint16_t code, length;
};
static_assert(sizeof(OptionHead) == 4, "option");

constexpr std::uint32_t padded(std::uint32_t bytes) { return (bytes + 3) & ~3U; }

constexpr std::uint32_t high(std::uint64_t value) { return static_cast<std::uint32_t>(value >> 32); }
constexpr std::uint32_t low(std::uint64_t value) { return static_cast<std::uint32_t>(value); }

}  // namespace capture::format
