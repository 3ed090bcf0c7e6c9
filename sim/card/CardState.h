#pragma once

#include <cstdint>
#include <type_traits>

#include "interface/CardRegisters.h"
#include "sim/card/CardConfig.h"
#include "sim/card/CardTime.h"
#include "sim/card/PacketFault.h"
#include "sim/card/StreamRing.h"

namespace vexo_sim {

inline constexpr std::uint32_t kTables = 2;
inline constexpr std::uint32_t kMaxInstruments = kTables * card_reg::kRows;
inline constexpr std::uint32_t kIdCapacity = 32;  // characters, terminating zero included
inline constexpr std::uint16_t kNoInstrument = 0xFFFF;
inline constexpr std::uint64_t kNever = ~std::uint64_t{0};
inline constexpr std::uint32_t kForGood = ~std::uint32_t{0};

/// One line of the static data: which row of which table the exchange's instrument has on this card.
struct Instrument {
    char id[kIdCapacity] = {};  // zero-filled; a row holds its first 16 characters
    std::uint16_t row = 0;
    std::uint8_t table = 0;  // card_reg::kSingleLegTable or kCombinationTable
};

// A card may lie in shared memory, where others can write any value at any time. What is used there as an index or a
// length goes through these first: a wrong value then gives a wrong quote, and nothing worse.
static_assert((kMaxInstruments & (kMaxInstruments - 1)) == 0 && (card_reg::kRows & (card_reg::kRows - 1)) == 0);
// A bool whose byte is neither 0 nor 1 is undefined, so there is none in a card.
struct Flag {
    std::uint8_t byte;

    operator bool() const { return byte != 0; }
    Flag& operator=(bool on) {
        byte = on ? 1 : 0;
        return *this;
    }
};
inline std::uint32_t safeNumber(std::uint32_t instrument) { return instrument & (kMaxInstruments - 1); }
inline std::uint32_t safeTable(std::uint32_t table) { return table & (kTables - 1); }
inline std::uint32_t safeRow(std::uint32_t row) { return row & (card_reg::kRows - 1); }
inline std::uint32_t safeCount(std::uint32_t instruments) {
    return instruments < kMaxInstruments ? instruments : kMaxInstruments;
}
inline std::uint32_t safeMtu(std::uint32_t mtu) { return mtu < kMinMtu ? kMinMtu : mtu < kMaxMtu ? mtu : kMaxMtu; }

/// Running prices of one instrument; every amount of money in 1/10000 yuan.
struct PriceWalk {
    std::int64_t last;
    std::int64_t tick;
    std::int64_t lowerLimit;
    std::int64_t upperLimit;
    std::int64_t turnover;
    std::uint64_t totalVolume;
    std::uint64_t openInterest;
    std::uint32_t lotSize;
};

/// Registers that keep a value. Read-only ones answer from the configuration, the clock or the counters.
struct RegisterState {
    static constexpr std::uint32_t kStored = 0x400;  // word addresses below this: control, versions, network
    std::uint32_t stored[kStored];
    Flag heldInReset;
    Flag verdictPending;          // software version written, verdict not yet read
    std::uint32_t pinnedTime[2];  // kClockRuns, or what 0x104 / 0x105 show instead of the clock
};
inline constexpr std::uint32_t kClockRuns = ~std::uint32_t{0};

struct TableState {
    std::uint32_t words[card_reg::kRows][card_reg::kWordsPerRow];
    std::uint32_t command;
    std::uint32_t data;
    std::uint32_t select;
    std::uint16_t instrumentOfRow[card_reg::kRows];      // position in the static data, or kNoInstrument
    std::uint64_t overwrittenIds[card_reg::kRows / 64];  // bitmap: learned rows whose id words the host changed
    std::uint64_t maskRefused[card_reg::kRows / 64];     // bitmap: broken rows that do not take a mask
};

struct ParserState {
    Instrument instruments[kMaxInstruments];  // the static data, in the order it is learned
    std::uint32_t count;
    std::uint32_t learned;      // the first `learned` instruments are known
    std::uint64_t startNs;      // end of the last reset, or power-on
    std::uint64_t nextRoundNs;  // kNever while no id needs repair
    std::uint32_t counters[8];  // messages, instruments, bytes, words; single-leg then combination
};

struct MapState {
    Flag active;
    std::uint32_t cursor;  // next instrument to announce
    std::uint64_t dueNs;
};

struct FeedState {
    Flag active;
    Flag paused;  // by the card's owner: neither quotes nor contract-map packets
    std::uint64_t random;
    std::uint64_t lastNs;
    std::uint64_t startNs;  // when it last became active: bursts are counted from here
    std::uint64_t credit;   // packets owed, in 1/10^9
    std::uint32_t rate;     // quotes a second outside a burst, as the credit is counted
    std::uint32_t cursor;
    std::uint32_t pass;
    std::uint32_t subscribedCount;
    std::uint16_t subscribed[kMaxInstruments];  // instruments with a mask, in no order
    std::uint16_t position[kMaxInstruments];    // of an instrument in `subscribed`, or kNoInstrument
    PriceWalk prices[kMaxInstruments];
};

/// Card to host. Only the process that advances the card touches anything but the ring.
struct UpStreamState {
    Flag open;
    std::uint32_t opened;        // how often, since power-on
    std::uint32_t packets;       // put into the ring
    std::uint32_t backPressure;  // lost because the ring was full
    std::uint32_t fifoErrors;
    std::uint32_t errors;
    std::uint32_t headSequence;
    std::uint64_t quoteSequence;
    RingState ring;
};

/// Host to card.
struct DownStreamState {
    Flag open;
    std::uint64_t packets;
    std::uint64_t bytes;
    std::uint32_t busySends;  // that many sends still find the stream busy; kForGood = all
};

/// How the static-data parser's counters behave.
enum class CounterMode : std::uint32_t {
    kTrue = 0,
    kFrozen = 1,   // they stand still, whatever is learned or forgotten
    kRunning = 2,  // they never stand still: each gains one a millisecond
};

/// What is wrong with the card beyond its configuration. Forgotten at power-on.
struct FaultState {
    Flag armed;    // packets need a look: there are rules, or a number of packets to stop after
    Flag stopped;  // its clock stands and nothing leaves it; registers still answer
    CounterMode counters;
    std::uint32_t heldUp;         // bit n = another program holds card-to-host stream n
    std::uint32_t resetsIgnored;  // that many resets of the root core do nothing; kForGood = all
    std::uint64_t packetsLeft;    // until the card stops, or kNever
    std::uint64_t stopNs;         // when it stops, on its own clock, or kNever
    std::uint64_t random;         // a generator of its own, so that rules do not change the prices
    std::uint32_t count;
    PacketFaultState rules[kPacketFaults];
};

/// All of a card. It holds no pointer and no resource, and zero bytes are a valid card that is switched off. So the
/// state may be on the heap or in memory that processes share.
struct CardState {
    CardConfig config;
    CardTime now;             // last moment the card was advanced to
    std::uint64_t clockNs;    // time since power-on, the card's own clock
    std::uint64_t nextDueNs;  // nothing happens on the card before that
    RegisterState registers;
    TableState tables[kTables];
    ParserState parser;
    FaultState faults;
    MapState map;
    FeedState feed;
    DownStreamState down[kStreams];
    UpStreamState up[kStreams];
};
static_assert(std::is_standard_layout_v<CardState> && std::is_trivially_destructible_v<CardState>);

}  // namespace vexo_sim
