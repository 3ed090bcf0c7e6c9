#pragma once

#include <cstddef>
#include <cstdint>

namespace capture {

/// What a register access was.
enum class AccessKind : std::uint8_t {
    kRead = 0,
    kWrite = 1,
    kCoreReset = 2,  // resets the whole core: no address, no value
};

inline constexpr std::uint32_t kAccessMagic = 0x41525856;  // "VXRA", read as text
inline constexpr std::uint16_t kAccessVersion = 1;
inline constexpr std::uint8_t kUnknownCard = 0xFF;
inline constexpr std::uint32_t kRootCore = 0xFFFFFFFF;  // the root core has no hardware id; also an unknown core

/// One access of the card's registers, as a capture file carries it: a packet of the interface "registers", whose time
/// is the moment before the call. All fields are little-endian; no padding.
struct RegisterAccess {
    std::uint32_t magic = kAccessMagic;
    std::uint16_t version = kAccessVersion;
    AccessKind kind = AccessKind::kRead;
    std::uint8_t card = kUnknownCard;  // bus number, or kUnknownCard
    std::uint32_t core = kRootCore;    // hardware id of the core, 474 for the register core
    std::uint8_t bitOffset = 0;
    std::uint8_t bitWidth = 0;
    std::uint16_t reserved = 0;
    std::uint64_t byteAddress = 0;  // inside the core; the register's word index is a quarter of it
    std::uint64_t value = 0;        // written, or read; 0 for a read that failed
    std::int32_t result = 0;        // of the call
    std::int32_t error = 0;         // errno after a call that failed, otherwise 0
    std::uint64_t durationNs = 0;   // of the call
};

static_assert(sizeof(RegisterAccess) == 48, "register access");
static_assert(offsetof(RegisterAccess, magic) == 0, "register access");
static_assert(offsetof(RegisterAccess, version) == 4, "register access");
static_assert(offsetof(RegisterAccess, kind) == 6, "register access");
static_assert(offsetof(RegisterAccess, card) == 7, "register access");
static_assert(offsetof(RegisterAccess, core) == 8, "register access");
static_assert(offsetof(RegisterAccess, bitOffset) == 12, "register access");
static_assert(offsetof(RegisterAccess, bitWidth) == 13, "register access");
static_assert(offsetof(RegisterAccess, reserved) == 14, "register access");
static_assert(offsetof(RegisterAccess, byteAddress) == 16, "register access");
static_assert(offsetof(RegisterAccess, value) == 24, "register access");
static_assert(offsetof(RegisterAccess, result) == 32, "register access");
static_assert(offsetof(RegisterAccess, error) == 36, "register access");
static_assert(offsetof(RegisterAccess, durationNs) == 40, "register access");

}  // namespace capture
