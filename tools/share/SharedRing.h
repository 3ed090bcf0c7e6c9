#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// The packets of a stream in shared memory: an application writes them there, `vexo relay --beside` reads them.
///
/// The file is a Head and a ring of a power of two bytes. The writer never waits and never looks at a reader: it
/// overwrites what is oldest, and a reader finds out that it was too slow. Positions count bytes since the ring was
/// made; a position's place is its lower bits. A record is a Prefix, the packet's bytes, and up to 15 unused bytes. It
/// may continue at the start of the ring.
///
/// A reader never writes. It copies, and believes nothing unchecked: whoever may write to the file may have done so.
namespace share {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the numbers are copied as they are");

inline constexpr std::uint64_t kMagic = 0x474E495258534556;  // "VEXSRING"
inline constexpr std::uint32_t kVersion = 1;
inline constexpr std::uint64_t kHeadBytes = 4096;
inline constexpr std::uint64_t kLeastRingBytes = 1U << 18;  // holds some of the longest packets
inline constexpr std::uint64_t kMostRingBytes = std::uint64_t{4} << 30;
inline constexpr std::uint32_t kMostPacketBytes = 65536;  // the largest MTU of a card
inline constexpr std::uint32_t kSimulated = 1;            // flag: the packets are those of a simulated card

/// What is written once.
struct Facts {
    std::uint64_t magic;
    std::uint32_t version;
    std::uint32_t pid;
    std::uint64_t ringBytes;
    std::uint32_t mtu;
    std::uint32_t flags;
    char program[64];  // ends with a zero byte
};

/// The polling thread's. It moves `reserved` before it writes a record, and `end` behind it; `packets` in between. Each
/// word is there twice, because a copy of a file may catch a word half written.
struct Progress {
    std::uint64_t reserved;  // all that lies a ring or more before it is overwritten
    std::uint64_t packets;   // all that the stream has delivered, those included whose bytes are not there
    std::uint64_t end;       // of the records
};

/// What the card counts since the ring was made, ten times a second.
struct CardCounts {
    std::uint64_t backPressure;
    std::uint64_t fifoErrors;
    std::uint64_t errors;
};

struct Head {
    alignas(128) Facts facts;
    alignas(128) Progress progress[2];
    alignas(128) CardCounts card;
};
static_assert(sizeof(Head) <= kHeadBytes);

struct Prefix {
    std::uint64_t ticks;  // when the packet came, see tools/tap/TapClock.h
    std::uint32_t size;
    std::uint32_t number;  // lower half; of the stream's packets, from 0 on
};
static_assert(sizeof(Prefix) == 16);

constexpr std::uint64_t footprint(std::uint32_t size) {
    return sizeof(Prefix) + ((std::uint64_t{size} + 15) & ~std::uint64_t{15});
}

inline constexpr char kDirectoryVariable[] = "VEXO_SHARE_DIR";      // a directory for the rings
inline constexpr char kDirectoryPrefix[] = "/dev/shm/vexo-share-";  // otherwise: and the user's number
inline constexpr char kRingVariable[] = "VEXO_SHARE_RING_MB";       // memory of each stream
inline constexpr std::uint64_t kDefaultRingMb = 16;

/// Where the rings of this user are.
std::string directory();
/// Opens it, and makes it if it is not there. @return -1: @p fault says why
int openDirectory(std::string& fault);
/// "0.3.ring": channel 3 of the card at bus 0.
std::string fileName(std::uint32_t card, std::uint32_t channel);

}  // namespace share
