#include "sim/scenario/CardKeys.h"

#include <filesystem>

#include "sim/card/StreamRing.h"
#include "sim/scenario/InstrumentFile.h"
#include "sim/scenario/Pace.h"
#include "sim/scenario/Parse.h"
#include "sim/scenario/TextFile.h"

namespace vexo_sim::scenario {
namespace {

constexpr std::uint32_t kAnyNumber = ~std::uint32_t{0};

// One key and the function that takes over its value.
struct Key {
    const char* section;
    const char* name;
    void (*take)(const Value& value, Scenario& s);
};

// A key that is a number of the card's configuration.
template <std::uint32_t CardConfig::*field, std::uint32_t least, std::uint32_t most>
void takeNumber(const Value& value, Scenario& s) {
    s.config.*field = parse::number32(value, least, most);
}

// A path in a file is relative to the file's directory, one in a setting to the working directory.
std::string pathOf(const Value& value) {
    const std::filesystem::path directory = value.isSetting() ? "" : std::filesystem::path(value.file).parent_path();
    const std::string path = (directory / value.text).string();
    requireFile(path, value.file, value.line, value.isSetting() ? "the working directory" : "the scenario's directory");
    return path;
}

void takeDescription(const Value& value, Scenario& s) { s.description = value.text; }

void takeBus(const Value& value, Scenario& s) { s.bus = parse::number32(value, 0, kMaxBus); }

void takeSeed(const Value& value, Scenario& s) { s.config.seed = parse::number(value, 0, ~std::uint64_t{0}); }

void takeClockOffset(const Value& value, Scenario& s) {
    constexpr std::int64_t kMost = 366LL * 86400;
    s.config.clockOffsetSeconds = static_cast<std::int32_t>(parse::signedNumber(value, -kMost, kMost));
}

void takeClock(const Value& value, Scenario& s) { s.clock = parse::timeOfDay(value); }

void takeDate(const Value& value, Scenario& s) {
    s.date = value.text == "today"       ? DateChoice::kToday
             : value.text == "yesterday" ? DateChoice::kYesterday
                                         : DateChoice::kGiven;
    if (s.date == DateChoice::kGiven) s.config.initialDate = value.text == "0" ? 0 : parse::date(value);
}

void takeListDate(const Value& value, Scenario& s) { s.config.listDate = parse::date(value); }

void takeList(const Value& value, Scenario& s) {
    const std::uint32_t choice = parse::word(value, {{"default", 0}, {"full", 1}, {"none", 2}});
    s.config.instruments = static_cast<InstrumentChoice>(choice);
}

void takeInstruments(const Value& value, Scenario& s, std::vector<Instrument> (*read)(const std::string&)) {
    s.instruments = read(pathOf(value));
}
void takeInstrumentFile(const Value& value, Scenario& s) { takeInstruments(value, s, readInstrumentList); }
void takeDayFile(const Value& value, Scenario& s) { takeInstruments(value, s, readDayFile); }

void takeBurstEvery(const Value& value, Scenario& s) {
    s.config.burstEveryMs = parse::number32(value, 0, kMaxMilliseconds / 1000) * 1000;
}

void takePace(const Value& value, Scenario& s) {
    const std::optional<std::uint32_t> pace = parsePace(value.text);
    if (!pace) value.reject("\"" + value.text + "\" will not do; write real, max, or x1 to x1000");
    s.config.pace = *pace;
}

void takeReplayFile(const Value& value, Scenario& s) { s.replayFile = pathOf(value); }

void takeReplayMap(const Value& value, Scenario& s) {
    s.replayMap = parse::word(value, {{"capture", 1}, {"card", 0}}) != 0;
}

void takeRingBytes(const Value& value, Scenario& s) {
    s.config.ringBytes = parse::number32(value, kMinRingBytes, kMaxRingBytes);
    s.ringGiven = true;
}

constexpr Key kKeys[] = {
    {"scenario", "description", takeDescription},
    {"card", "bus", takeBus},
    {"card", "seed", takeSeed},
    {"card", "hardware_version", takeNumber<&CardConfig::hardwareVersion, 0, kAnyNumber>},
    {"card", "verdict", takeNumber<&CardConfig::verdict, 0, kAnyNumber>},
    {"card", "fibre_status", takeNumber<&CardConfig::fibreStatus, 0, kAnyNumber>},
    {"card", "clock_offset", takeClockOffset},
    {"card", "clock", takeClock},
    {"card", "date", takeDate},
    {"card", "switch", takeNumber<&CardConfig::initialSwitch, 0, 3>},
    {"card", "list_date", takeListDate},
    {"card", "learning_ms", takeNumber<&CardConfig::learningMs, 0, kMaxMilliseconds>},
    {"card", "static_round_ms", takeNumber<&CardConfig::staticRoundMs, 1, kMaxMilliseconds>},
    {"card", "mtu", takeNumber<&CardConfig::mtu, kMinMtu, kMaxMtu>},
    {"card", "ring_bytes", takeRingBytes},
    {"card", "map_messages_per_packet", takeNumber<&CardConfig::mapMessagesPerPacket, 1, kAnyNumber>},
    {"card", "map_round_ms", takeNumber<&CardConfig::mapRoundMs, 1, kMaxMilliseconds>},
    {"instruments", "list", takeList},
    {"instruments", "file", takeInstrumentFile},
    {"instruments", "day_file", takeDayFile},
    {"quotes", "per_second", takeNumber<&CardConfig::quotesPerSecond, 0, kMaxQuotesPerSecond>},
    {"quotes", "per_instrument", takeNumber<&CardConfig::quotesPerInstrument, 0, kMaxQuotesPerSecond>},
    {"quotes", "burst_every_s", takeBurstEvery},
    {"quotes", "burst_ms", takeNumber<&CardConfig::burstMs, 1, kMaxMilliseconds>},
    {"quotes", "burst_factor", takeNumber<&CardConfig::burstFactor, 1, kMaxBurstFactor>},
    {"pace", "pace", takePace},
    {"replay", "file", takeReplayFile},
    {"replay", "map", takeReplayMap},
};

std::string keysOf(const std::string& section) {
    std::string names;
    for (const Key& key : kKeys)
        if (section == key.section) names += (names.empty() ? "" : ", ") + std::string(key.name);
    return names;
}

const Key* find(const std::string& section, const std::string& name) {
    for (const Key& key : kKeys)
        if (section == key.section && name == key.name) return &key;
    return nullptr;
}

const Section* sectionOf(const IniFile& file, const char* name) {
    for (const Section& section : file.sections())
        if (section.name == name) return &section;
    return nullptr;
}

const Value* valueOf(const IniFile& file, const char* section, const char* key) {
    const Section* s = sectionOf(file, section);
    if (s == nullptr) return nullptr;
    const auto found = s->values.find(key);
    return found != s->values.end() ? &found->second : nullptr;
}

void requireAlone(const IniFile& file, const char* section, const char* key, const char* other) {
    const Value* value = valueOf(file, section, key);
    if (value != nullptr && valueOf(file, section, other) != nullptr)
        value->reject(std::string("it excludes ") + other + "; remove one of the two");
}

void checkBursts(const IniFile& file, const CardConfig& c) {
    const Value* every = valueOf(file, "quotes", "burst_every_s");
    for (const char* key : {"burst_ms", "burst_factor"}) {
        const Value* value = valueOf(file, "quotes", key);
        if (value != nullptr && every == nullptr) value->reject("there is no burst; give burst_every_s, or remove it");
    }
    if (c.burstEveryMs != 0 && (c.burstMs == 0 || c.burstMs > c.burstEveryMs))
        every->reject("a burst must end before the next; give burst_ms, and less of it");
}

void checkReplay(const IniFile& file, const Scenario& scenario) {
    const Section* replay = sectionOf(file, "replay");
    if (replay == nullptr) return;
    if (scenario.replayFile.empty()) replay->reject("[replay] needs the key file; give it, or remove the section");
    const Section* quotes = sectionOf(file, "quotes");
    if (quotes != nullptr && !quotes->values.empty())
        quotes->reject("a card that replays a capture sends no quotes of its own; remove [quotes] or [replay]");
}

}  // namespace

bool isPath(const std::string& section, const std::string& key) {
    const Key* found = find(section, key);
    return found != nullptr &&
           (found->take == takeInstrumentFile || found->take == takeDayFile || found->take == takeReplayFile);
}

void readCardSection(const Section& section, Scenario& scenario) {
    const std::string keys = keysOf(section.name);
    if (keys.empty())
        section.reject("there is no section [" + section.name +
                       "]; use scenario, card, instruments, quotes, pace, replay or fault NAME");
    for (const auto& [name, value] : section.values) {
        const Key* key = find(section.name, name);
        if (key == nullptr)
            throw Rejected(value.file, value.line, "[" + section.name + "] has no key " + name + "; use " + keys);
        key->take(value, scenario);
    }
}

void checkTogether(const IniFile& file, const Scenario& scenario) {
    requireAlone(file, "card", "clock", "clock_offset");
    requireAlone(file, "instruments", "list", "file");
    requireAlone(file, "instruments", "list", "day_file");
    requireAlone(file, "instruments", "file", "day_file");

    const CardConfig& c = scenario.config;
    checkBursts(file, c);
    if (c.mtu > ring::largestPacket(ring::capacityFor(c.ringBytes))) {
        const Value* value = valueOf(file, "card", "mtu");
        if (value == nullptr) value = valueOf(file, "card", "ring_bytes");
        value->reject("a ring of " + std::to_string(c.ringBytes) + " bytes does not hold two packets of " +
                      std::to_string(c.mtu) + "; give ring_bytes more, or mtu less");
    }
    checkReplay(file, scenario);
}

std::vector<KeyName> cardKeys() {
    std::vector<KeyName> names;
    for (const Key& key : kKeys) names.push_back({key.section, key.name});
    return names;
}

}  // namespace vexo_sim::scenario
