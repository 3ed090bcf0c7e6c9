#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/card/CallFailure.h"
#include "sim/card/Card.h"
#include "sim/scenario/KeySettings.h"

/// Scenarios: ini files that say what a simulated card is, what it sends, and what is wrong with it.
/// sim/scenarios/README.md lists all keys.
namespace vexo_sim::scenario {

inline constexpr std::uint32_t kMaxBus = 4;

/// What register 0x106 holds when the card comes up.
enum class DateChoice { kGiven, kToday, kYesterday };

struct BrokenRows {
    std::uint32_t table;
    std::uint32_t first;
    std::uint32_t last;
};

struct BusySends {
    std::uint32_t channels;
    std::uint32_t sends;  // kForGood = all
};

struct StreamErrors {
    std::uint32_t channels;
    std::uint32_t fifoErrors;
    std::uint32_t errors;
};

struct Scenario {
    std::string name;  // of the file, without directory and extension, then the settings
    std::string description;
    std::uint32_t bus = 0;

    CardConfig config;
    bool ringGiven = false;                // config.ringBytes is the scenario's choice, not the default
    DateChoice date = DateChoice::kGiven;  // unless kGiven, the day of power-on decides
    std::optional<std::uint32_t> clock;    // second of the day that the exchange's clock shows at power-on
    std::optional<std::vector<Instrument>> instruments;  // a list of its own; otherwise config.instruments

    std::vector<PacketFault> packetFaults;
    std::vector<BrokenRows> brokenRows;
    std::vector<BusySends> busySends;
    std::vector<StreamErrors> streamErrors;
    std::vector<CallFailure> callFailures;
    std::uint32_t heldStreams = 0;  // bit n = card-to-host stream n
    CounterMode counters = CounterMode::kTrue;
    std::uint64_t stopAfterPackets = 0;  // 0 = never
    std::uint32_t stopAfterMs = 0;       // 0 = never
    std::uint32_t resetsIgnored = 0;     // kForGood = all

    std::string replayFile;  // path as this process reaches it; empty = no replay
    bool replayMap = true;   // contract-map packets come from the capture, not from the card
};

/// Reads a scenario file, then the settings. A path in the file is relative to the file's directory, one in a setting
/// to the working directory.
/// @param path   empty = settings alone
/// @param error  set on failure: "FILE:LINE: what is wrong; what to do", one line without its line feed. An error of a
///               setting names the setting instead of file and line.
/// @return nothing when the file, a setting, or a file that one of them names cannot be used
std::optional<Scenario> load(const std::string& path, const KeySettings& settings, std::string& error);
/// The same of a file alone.
std::optional<Scenario> load(const std::string& path, std::string& error);

/// The configuration of a card that is switched on at @p now.
CardConfig configAt(const Scenario& scenario, const CardTime& now);

/// Switches the card on as the scenario says, faults included.
/// @param seedShift  added to the seed, so that several cards of one scenario differ
void powerOn(Card& card, const Scenario& scenario, const CardTime& now, std::uint64_t seedShift = 0);

/// All keys of a scenario. knownFaultKinds() has those of [fault NAME] sections.
struct KeyName {
    std::string section;
    std::string key;
};
std::vector<KeyName> knownKeys();

struct FaultKindName {
    std::string kind;
    std::vector<std::string> keys;  // without `kind` itself
};
std::vector<FaultKindName> knownFaultKinds();

}  // namespace vexo_sim::scenario
