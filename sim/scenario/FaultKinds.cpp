#include "sim/scenario/FaultKinds.h"

#include <optional>

#include "interface/CallList.h"
#include "sim/scenario/Parse.h"
#include "sim/scenario/TextFile.h"

namespace vexo_sim::scenario {
namespace {

constexpr std::uint32_t kAnyNumber = ~std::uint32_t{0};
constexpr std::uint32_t kMost16 = 0xFFFF;
constexpr std::uint32_t kMapChannel = 1;  // bit of channel 0: contract-map packets are on its stream alone

// The keys of one fault section.
class Keys {
public:
    explicit Keys(const Section& section) : m_section(section) {}

    const Value* find(const char* key) const {
        const auto found = m_section.values.find(key);
        return found != m_section.values.end() ? &found->second : nullptr;
    }
    const Value& require(const char* key) const {
        const Value* value = find(key);
        if (value == nullptr) reject("[" + m_section.name + "] needs the key " + key + "; give it");
        return *value;
    }
    std::uint32_t number(const char* key, std::uint32_t absent, std::uint32_t least, std::uint32_t most) const {
        const Value* value = find(key);
        return value != nullptr ? parse::number32(*value, least, most) : absent;
    }
    std::uint32_t channels() const {
        const Value* value = find("channels");
        return value != nullptr ? parse::channels(*value) : (1U << kStreams) - 1;
    }
    [[noreturn]] void reject(const std::string& what) const { m_section.reject(what); }

private:
    const Section& m_section;
};

using Names = std::vector<const char*>;

struct Kind {
    const char* name;
    Names keys;
    void (*take)(const Keys& keys, Scenario& s);
};

std::uint32_t packetSorts(const Keys& keys) {
    constexpr std::uint32_t kAll = kQuotePackets | kMapPackets;
    const Value* value = keys.find("packets");
    if (value == nullptr) return kAll;
    return parse::word(*value, {{"quotes", kQuotePackets}, {"map", kMapPackets}, {"all", kAll}});
}

PacketFault packetFault(const Keys& keys, PacketFaultKind kind) {
    PacketFault fault;
    fault.kind = kind;
    fault.channels = keys.channels();
    fault.packets = packetSorts(keys);
    if (fault.packets == kMapPackets && (fault.channels & kMapChannel) == 0)
        keys.require("channels").reject("contract-map packets are on channel 0 alone; add 0, or choose other packets");
    fault.first = keys.number("first", 1, 1, kAnyNumber);
    fault.every = keys.number("every", 1, 1, kAnyNumber);
    fault.times = keys.number("times", 0, 0, kAnyNumber);
    fault.perMillion = keys.number("per_million", kMillion, 1, kMillion);
    return fault;
}

void addPacketFault(const Keys& keys, Scenario& s, const PacketFault& fault) {
    if (s.packetFaults.size() == kPacketFaults)
        keys.reject("there are more than " + std::to_string(kPacketFaults) + " packet faults; remove some");
    s.packetFaults.push_back(fault);
}

template <PacketFaultKind kind>
void takeSimple(const Keys& keys, Scenario& s) {
    addPacketFault(keys, s, packetFault(keys, kind));
}

void takeCut(const Keys& keys, Scenario& s) {
    PacketFault fault = packetFault(keys, PacketFaultKind::kCut);
    fault.value = parse::number32(keys.require("bytes"), 0, kMaxMtu);
    addPacketFault(keys, s, fault);
}

void takeType(const Keys& keys, Scenario& s) {
    PacketFault fault = packetFault(keys, PacketFaultKind::kType);
    fault.value = parse::number32(keys.require("type"), 0, kAnyNumber);
    addPacketFault(keys, s, fault);
}

void takeHeadLength(const Keys& keys, Scenario& s) {
    PacketFault fault = packetFault(keys, PacketFaultKind::kHeadLength);
    fault.value = parse::number32(keys.require("length"), 0, kAnyNumber);
    addPacketFault(keys, s, fault);
}

void takeMapFault(const Keys& keys, Scenario& s, PacketFaultKind kind, const char* key, std::uint32_t most) {
    PacketFault fault = packetFault(keys, kind);
    fault.packets = kMapPackets;
    fault.value = parse::number32(keys.require(key), 0, most);
    fault.message = keys.number("message", 0, 0, kMost16);
    addPacketFault(keys, s, fault);
}
void takeMapLength(const Keys& k, Scenario& s) { takeMapFault(k, s, PacketFaultKind::kMapLength, "length", kMost16); }
void takeMapArea(const Keys& k, Scenario& s) { takeMapFault(k, s, PacketFaultKind::kMapArea, "length", kMost16); }
void takeMapCount(const Keys& k, Scenario& s) { takeMapFault(k, s, PacketFaultKind::kMapCount, "count", kAnyNumber); }
void takeMapIndex(const Keys& k, Scenario& s) { takeMapFault(k, s, PacketFaultKind::kMapIndex, "index", kMost16); }

void takeMaskRefused(const Keys& keys, Scenario& s) {
    const std::uint32_t table = parse::word(
        keys.require("table"), {{"single", card_reg::kSingleLegTable}, {"combination", card_reg::kCombinationTable}});
    for (const parse::Range& rows : parse::ranges(keys.require("rows"), card_reg::kRows - 1))
        s.brokenRows.push_back({table, rows.first, rows.last});
}

void takeBusySends(const Keys& keys, Scenario& s) {
    s.busySends.push_back({keys.channels(), parse::numberOrAll(keys.require("sends"), 1, kForGood - 1, kForGood)});
}

void takeStreamHeld(const Keys& keys, Scenario& s) { s.heldStreams |= keys.channels(); }

void takeStreamErrors(const Keys& keys, Scenario& s) {
    if (keys.find("fifo_errors") == nullptr && keys.find("errors") == nullptr)
        keys.reject("it is not said which counter stands wrong; give fifo_errors or errors");
    s.streamErrors.push_back(
        {keys.channels(), keys.number("fifo_errors", 0, 0, kAnyNumber), keys.number("errors", 0, 0, kAnyNumber)});
}

void setCounters(const Keys& keys, Scenario& s, CounterMode mode) {
    if (s.counters != CounterMode::kTrue) keys.reject("the counters cannot be two things at once; remove this section");
    s.counters = mode;
}
void takeFrozenCounters(const Keys& keys, Scenario& s) { setCounters(keys, s, CounterMode::kFrozen); }
void takeRunningCounters(const Keys& keys, Scenario& s) { setCounters(keys, s, CounterMode::kRunning); }

void takeCardStops(const Keys& keys, Scenario& s) {
    const Value* packets = keys.find("after_packets");
    const Value* ms = keys.find("after_ms");
    if (packets == nullptr && ms == nullptr)
        keys.reject("it is not said when the card stops; give after_packets or after_ms");
    if (s.stopAfterPackets != 0 || s.stopAfterMs != 0)
        keys.reject("another section says when the card stops; remove one of the two");
    if (packets != nullptr) s.stopAfterPackets = parse::number(*packets, 1, ~std::uint64_t{0} - 1);
    if (ms != nullptr) s.stopAfterMs = parse::number32(*ms, 1, kMaxMilliseconds);
}

void takeResetIgnored(const Keys& keys, Scenario& s) {
    if (s.resetsIgnored != 0) keys.reject("another section says how many resets are ignored; remove one of the two");
    s.resetsIgnored = parse::numberOrAll(keys.require("times"), 1, kForGood - 1, kForGood);
}

void takeCallFails(const Keys& keys, Scenario& s) {
    const Value& name = keys.require("call");
    const Value* result = keys.find("result");
    const std::optional<hw_calls::Call> call = hw_calls::find(name.text);
    if (!call || !hw_calls::canFail(*call, result != nullptr)) {
        if (result != nullptr) name.reject("this call cannot fail with a result of its own; remove result");
        name.reject("\"" + name.text + "\" is no call that can fail; see enyx-hw-c/enyx_hw.h");
    }
    CallFailure failure{*call, keys.number("nth", 1, 1, kAnyNumber), 1, 0, 0, 0};
    if (const Value* times = keys.find("times")) failure.times = parse::numberOrAll(*times, 1, kAnyNumber, 0);
    failure.error = parse::errorNumber(keys.require("errno"));
    failure.hasResult = result != nullptr ? 1 : 0;
    if (result != nullptr) failure.result = parse::signedNumber(*result, INT32_MIN, INT32_MAX);
    s.callFailures.push_back(failure);
}

// The keys of every packet fault, then its own.
Names packetKeys(Names own = {}) {
    Names keys = {"channels", "packets", "first", "every", "times", "per_million"};
    keys.insert(keys.end(), own.begin(), own.end());
    return keys;
}

// Faults of contract-map packets have no channel to choose: the packets are on channel 0 alone.
Names mapKeys(Names own) {
    Names keys = {"first", "every", "times", "per_million"};
    keys.insert(keys.end(), own.begin(), own.end());
    return keys;
}

const std::vector<Kind>& kinds() {
    static const auto& all = *new std::vector<Kind>{
        {"drop", packetKeys(), takeSimple<PacketFaultKind::kDrop>},
        {"double", packetKeys(), takeSimple<PacketFaultKind::kDouble>},
        {"cut", packetKeys({"bytes"}), takeCut},
        {"runt", packetKeys(), takeSimple<PacketFaultKind::kRunt>},
        {"type", packetKeys({"type"}), takeType},
        {"head_length", packetKeys({"length"}), takeHeadLength},
        {"flip", packetKeys(), takeSimple<PacketFaultKind::kFlip>},
        {"map_length", mapKeys({"message", "length"}), takeMapLength},
        {"map_area", mapKeys({"length"}), takeMapArea},
        {"map_count", mapKeys({"count"}), takeMapCount},
        {"map_index", mapKeys({"message", "index"}), takeMapIndex},
        {"mask_refused", {"table", "rows"}, takeMaskRefused},
        {"stream_held", {"channels"}, takeStreamHeld},
        {"stream_errors", {"channels", "fifo_errors", "errors"}, takeStreamErrors},
        {"busy_sends", {"channels", "sends"}, takeBusySends},
        {"frozen_counters", {}, takeFrozenCounters},
        {"running_counters", {}, takeRunningCounters},
        {"reset_ignored", {"times"}, takeResetIgnored},
        {"card_stops", {"after_packets", "after_ms"}, takeCardStops},
        {"call_fails", {"call", "nth", "times", "errno", "result"}, takeCallFails},
    };
    return all;
}

const Kind& kindOf(const Value& value) {
    std::string names;
    for (const Kind& kind : kinds()) {
        if (value.text == kind.name) return kind;
        names += (names.empty() ? "" : ", ") + std::string(kind.name);
    }
    value.reject("there is no kind " + value.text + "; use " + names);
}

bool has(const Kind& kind, const std::string& key) {
    for (const char* name : kind.keys)
        if (key == name) return true;
    return false;
}

}  // namespace

void readFault(const Section& section, Scenario& scenario) {
    const Keys keys(section);
    const Kind& kind = kindOf(keys.require("kind"));
    for (const auto& [name, value] : section.values) {
        if (name == "kind" || has(kind, name)) continue;
        std::string known = "kind";
        for (const char* key : kind.keys) known += std::string(", ") + key;
        throw Rejected(value.file, value.line,
                       std::string("a fault of kind ") + kind.name + " has no key " + name + "; use " + known);
    }
    kind.take(keys, scenario);
}

std::vector<FaultKindName> faultKinds() {
    std::vector<FaultKindName> names;
    for (const Kind& kind : kinds()) names.push_back({kind.name, {kind.keys.begin(), kind.keys.end()}});
    return names;
}

}  // namespace vexo_sim::scenario
