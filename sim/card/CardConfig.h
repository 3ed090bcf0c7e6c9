#pragma once

#include <cstdint>

namespace vexo_sim {

inline constexpr std::uint32_t kStreams = 16;
inline constexpr std::uint32_t kMinRingBytes = 4096;
inline constexpr std::uint32_t kMaxRingBytes = 1U << 20;
inline constexpr std::uint32_t kMinMtu = 512;  // the largest quote, or a contract-map message of any length, fits
inline constexpr std::uint32_t kMaxMtu = 65536;
inline constexpr std::uint32_t kMaxQuotesPerSecond = 100'000'000;
inline constexpr std::uint32_t kMaxMilliseconds = 3'600'000;
inline constexpr std::uint32_t kMaxBurstFactor = 100;
inline constexpr std::uint32_t kMaxPace = 1000;
inline constexpr std::uint32_t kPaceOfReaders = 0;

/// Which instruments the card finds in its static data.
enum class InstrumentChoice : std::uint32_t {
    kDefault = 0,  // the exchange's products at their real size, about 4,000 single-leg rows
    kFull = 1,     // both tables filled to the last row
    kNone = 2,     // no instrument
};

/// What a card is before it is switched on. Plain values: copied into the card's state.
struct CardConfig {
    std::uint64_t seed = 1;
    std::uint32_t quotesPerSecond = 5000;      // all instruments together; 0 = the card quotes nothing by itself
    std::uint32_t learningMs = 500;            // from the end of a reset until every instrument is learned
    std::uint32_t staticRoundMs = 250;         // how often the static data comes round and repairs overwritten ids
    std::uint32_t mapMessagesPerPacket = 128;  // fewer when the MTU does not hold as many
    std::uint32_t mapRoundMs = 200;            // one whole round of contract-map packets
    std::uint32_t mtu = 4096;
    std::uint32_t ringBytes = 256 * 1024;  // per stream; rounded up to a power of two
    std::uint32_t hardwareVersion = 13;
    std::uint32_t verdict = 1;  // on the software version: see card_reg::kVerdict...
    std::uint32_t fibreStatus = 15;
    std::int32_t clockOffsetSeconds = 0;  // exchange time minus the host's local time
    InstrumentChoice instruments = InstrumentChoice::kDefault;
    std::uint32_t listDate = 0;             // YYYYMMDD the built-in lists are made for; 0 = the day of power-on
    std::uint32_t quotesPerInstrument = 0;  // a second, for each that has a mask, quotesPerSecond in all; 0 = any
    std::uint32_t burstEveryMs = 0;         // a burst begins with the first quote and then this often; 0 = none
    std::uint32_t burstMs = 0;              // how long it takes for the rate to fall back to the usual one
    std::uint32_t burstFactor = 1;          // times the usual rate at its start
    std::uint32_t pace = 1;                 // the card's time runs so many times as fast; kPaceOfReaders: and
                                            // a quote is there whenever those that want it have room
    std::uint32_t initialDate = 0;          // YYYYMMDD in the date register at power-on
    std::uint32_t initialSwitch = 0;        // decode switch at power-on
};

/// False when a value is out of its range, or when the ring is too small to hold two packets of MTU size.
bool isValid(const CardConfig& config);

}  // namespace vexo_sim
