// Layout of the packets that the simulated card sends. Usable by an application as it is (C++11, nothing else
// included): the market-data library hands its callbacks the bytes after the packet head, which are one of the two
// payloads below.
//
//   packet type 17  Level-1, single-leg     Level1Quote
//   packet type 18  Level-5, single-leg     Level5Quote
//   packet type 19  Level-1, combination    Level1Quote
//   packet type 20  Level-5, combination    Level5Quote
//
// All integers are little-endian; the structs are packed, because a payload starts 12 bytes into its packet and so
// on no 8-byte boundary. Copy a field or the whole struct out of it, never bind a reference to a field.
// All prices and amounts of money are in 1/10000 yuan, signed: the price of a spread may be negative.
#ifndef ENYX_SIM_MD_PAYLOAD_H
#define ENYX_SIM_MD_PAYLOAD_H

#include <cstddef>
#include <cstdint>

namespace enyx_sim {

constexpr int kPriceScale = 10000;
constexpr int kDepth = 5;

#pragma pack(push, 1)

// Head of every packet, contract-map packets included. Only the type means anything to the market-data library.
struct PacketHead {
    std::uint32_t type;
    std::uint32_t length;    // of the whole packet in bytes, this head included
    std::uint32_t sequence;  // of the packet in its stream, from 1; counts packets that were lost in the stream too
};

struct QuoteCommon {
    std::uint64_t sequence;         // of the quote in its stream, from 1; a gap is the number of quotes lost
    char id[32];                    // exchange contract code, filled up with zero bytes
    std::uint16_t instrumentIndex;  // row of the card's table
    std::uint8_t table;             // 0 single-leg, 1 combination
    std::uint8_t level;             // 1 or 5
    std::uint32_t exchangeDate;     // YYYYMMDD
    std::uint32_t exchangeTime;     // HHMMSS
    std::uint32_t exchangeMillis;   // of that second, 0 to 999
    std::int64_t lastPrice;
    std::int64_t upperLimit;  // highest and lowest price of the day; every price of the quote lies inside
    std::int64_t lowerLimit;
    std::int64_t turnover;       // of the day
    std::uint64_t totalVolume;   // lots traded on the day
    std::uint64_t openInterest;  // lots
};

struct Level1Quote {
    QuoteCommon common;
    std::int64_t bidPrice;  // always below askPrice
    std::int64_t askPrice;
    std::uint32_t bidVolume;  // lots
    std::uint32_t askVolume;
};

struct Level5Quote {
    QuoteCommon common;
    std::int64_t bidPrice[kDepth];  // best first: falling
    std::int64_t askPrice[kDepth];  // best first: rising
    std::uint32_t bidVolume[kDepth];
    std::uint32_t askVolume[kDepth];
};

#pragma pack(pop)

static_assert(sizeof(PacketHead) == 12, "packet head");
static_assert(offsetof(PacketHead, type) == 0, "packet head");
static_assert(offsetof(PacketHead, length) == 4, "packet head");
static_assert(offsetof(PacketHead, sequence) == 8, "packet head");

static_assert(sizeof(QuoteCommon) == 104, "quote");
static_assert(offsetof(QuoteCommon, sequence) == 0, "quote");
static_assert(offsetof(QuoteCommon, id) == 8, "quote");
static_assert(offsetof(QuoteCommon, instrumentIndex) == 40, "quote");
static_assert(offsetof(QuoteCommon, table) == 42, "quote");
static_assert(offsetof(QuoteCommon, level) == 43, "quote");
static_assert(offsetof(QuoteCommon, exchangeDate) == 44, "quote");
static_assert(offsetof(QuoteCommon, exchangeTime) == 48, "quote");
static_assert(offsetof(QuoteCommon, exchangeMillis) == 52, "quote");
static_assert(offsetof(QuoteCommon, lastPrice) == 56, "quote");
static_assert(offsetof(QuoteCommon, upperLimit) == 64, "quote");
static_assert(offsetof(QuoteCommon, lowerLimit) == 72, "quote");
static_assert(offsetof(QuoteCommon, turnover) == 80, "quote");
static_assert(offsetof(QuoteCommon, totalVolume) == 88, "quote");
static_assert(offsetof(QuoteCommon, openInterest) == 96, "quote");

static_assert(sizeof(Level1Quote) == 128, "Level-1 payload");
static_assert(offsetof(Level1Quote, common) == 0, "Level-1 payload");
static_assert(offsetof(Level1Quote, bidPrice) == 104, "Level-1 payload");
static_assert(offsetof(Level1Quote, askPrice) == 112, "Level-1 payload");
static_assert(offsetof(Level1Quote, bidVolume) == 120, "Level-1 payload");
static_assert(offsetof(Level1Quote, askVolume) == 124, "Level-1 payload");

static_assert(sizeof(Level5Quote) == 224, "Level-5 payload");
static_assert(offsetof(Level5Quote, common) == 0, "Level-5 payload");
static_assert(offsetof(Level5Quote, bidPrice) == 104, "Level-5 payload");
static_assert(offsetof(Level5Quote, askPrice) == 144, "Level-5 payload");
static_assert(offsetof(Level5Quote, bidVolume) == 184, "Level-5 payload");
static_assert(offsetof(Level5Quote, askVolume) == 204, "Level-5 payload");

}  // namespace enyx_sim

#endif
