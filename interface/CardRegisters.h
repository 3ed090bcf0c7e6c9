#pragma once

#include <cstdint>

/// The card's register map, as both sides see it: the library writes it, the simulated card
/// implements it. Every register is 32 bits wide and addressed by its word index; the byte address
/// on the bus is the index times 4. RO, WO and RW are seen from the host.
namespace card_reg {

// The columns are read against a hardware manual.
// clang-format off

inline constexpr std::uint32_t kChannels = 16;  // DMA streams each way, and so bits of a row's mask

// ---- control ----
inline constexpr std::uint32_t kReset        = 0x10;  // WO  1 asserts the card's reset, 0 releases it
inline constexpr std::uint32_t kDecodeSwitch = 0x11;  // RW  bit 1 Level-1, bit 0 Level-5; 0 = no quotes leave the card
inline constexpr std::uint32_t kMapTransmit  = 0x12;  // WO  1 = contract-map packets (type 2) go up channel 0, 0 = none

inline constexpr std::uint32_t kSwitchLevel1 = 0x2;
inline constexpr std::uint32_t kSwitchLevel5 = 0x1;

// ---- versions, time ----
inline constexpr std::uint32_t kHardwareVersion = 0x101;  // RO  FPGA version, an unsigned number
inline constexpr std::uint32_t kSoftwareVersion = 0x102;  // WO  a.b.c.d, one byte each, a in bits 31-24
// RO  first read after a write to kSoftwareVersion: the card's verdict on it (0 write failed, 1 accepted,
//     2 software too old); every other read: fibre link status, bit n = fibre n, 15 = all four connected
inline constexpr std::uint32_t kVerdictOrFibre  = 0x103;
inline constexpr std::uint32_t kExchangeTimeA   = 0x104;  // RO  decimal HHMMSS
inline constexpr std::uint32_t kExchangeTimeB   = 0x105;  // RO  decimal HHMMSS
inline constexpr std::uint32_t kTradingDate     = 0x106;  // RW  decimal YYYYMMDD, kept by the card until written again

inline constexpr std::uint32_t kVerdictWriteFailed = 0;
inline constexpr std::uint32_t kVerdictAccepted    = 1;
inline constexpr std::uint32_t kVerdictTooOld      = 2;
inline constexpr std::uint32_t kAllFibres          = 15;

// ---- exchange multicast, received ----
inline constexpr std::uint32_t kL5MulticastA    = 0x200;  // WO  IPv4, first number in bits 31-24
inline constexpr std::uint32_t kL5MulticastB    = 0x201;  // WO
inline constexpr std::uint32_t kL5MulticastPort = 0x202;  // WO
inline constexpr std::uint32_t kL1MulticastA    = 0x203;  // WO
inline constexpr std::uint32_t kL1MulticastB    = 0x204;  // WO
inline constexpr std::uint32_t kL1MulticastPort = 0x205;  // WO

// ---- network output, one block a feed: base + offset ----
inline constexpr std::uint32_t kL5Output = 0x300;
inline constexpr std::uint32_t kL1Output = 0x310;

inline constexpr std::uint32_t kOutputSwitch  = 0;  // WO  1 = on
inline constexpr std::uint32_t kOutputDstMac  = 1;  // WO  bytes a b of a:b:c:d:e:f, then c d e f in the next register
inline constexpr std::uint32_t kOutputDstIp   = 3;  // WO
inline constexpr std::uint32_t kOutputDstPort = 4;  // WO
inline constexpr std::uint32_t kOutputSrcMac  = 5;  // WO  and the next register
inline constexpr std::uint32_t kOutputSrcIp   = 7;  // WO
inline constexpr std::uint32_t kOutputSrcPort = 8;  // WO

// ---- static-data parser: counters that stand still once the card has learned its instruments ----
inline constexpr std::uint32_t kParserCounters[] = {0x200B, 0x200C, 0x200D, 0x200E,
                                                    0x210B, 0x210C, 0x210D, 0x210E};  // RO

// ---- instrument tables: 8192 rows of 64 words, a word is reached by (row << 6 | word) ----
struct TableRegisters {
    std::uint32_t command;   // WO  row << 6 | word: stores what `data` holds there
    std::uint32_t data;      // RW  the word to store
    std::uint32_t select;    // WO  row << 6 | word: what `readBack` shows
    std::uint32_t readBack;  // RO  word 0 as stored; words 1-4 in reverse order, the id's last word first
};
inline constexpr TableRegisters kTables[] = {
    {0x11000, 0x11001, 0x11002, 0x11003},  // single-leg
    {0x12000, 0x12001, 0x12002, 0x12003},  // combination
};

inline constexpr std::uint32_t kSingleLegTable   = 0;
inline constexpr std::uint32_t kCombinationTable = 1;

inline constexpr std::uint32_t kRows        = 8192;
inline constexpr std::uint32_t kWordsPerRow = 64;
inline constexpr std::uint32_t kRowShift    = 6;
inline constexpr std::uint32_t kMaskWord    = 0;  // bit n = DMA channel n receives the instrument
inline constexpr std::uint32_t kFirstIdWord = 1;  // words 1-4: id, four characters a word, first in bits 31-24
inline constexpr std::uint32_t kIdWords     = 4;

// clang-format on

}  // namespace card_reg
