#include "sim/scenario/Scenario.h"

#include <filesystem>
#include <new>

#include "sim/card/Calendar.h"
#include "sim/card/PacketFaults.h"
#include "sim/card/Tables.h"
#include "sim/scenario/CardKeys.h"
#include "sim/scenario/FaultKinds.h"
#include "sim/scenario/TextFile.h"

namespace vexo_sim::scenario {
namespace {

bool isFault(const Section& section) { return section.name == "fault" || section.name.rfind("fault ", 0) == 0; }

std::string nameOf(const std::string& path, const KeySettings& settings) {
    std::string name = std::filesystem::path(path).stem().string();
    for (const std::string& text : settings.texts) name += (name.empty() ? "" : ", ") + text;
    return name;
}

Scenario read(const std::string& path, const KeySettings& settings) {
    const IniFile file(path, settings);
    Scenario scenario;
    scenario.name = nameOf(path, settings);
    for (const Section& section : file.sections()) {
        if (isFault(section))
            readFault(section, scenario);
        else
            readCardSection(section, scenario);
    }
    checkTogether(file, scenario);
    return scenario;
}

template <typename Stream, typename Change>
void forEachChannel(Stream& streams, std::uint32_t channels, Change change) {
    for (std::uint32_t channel = 0; channel < kStreams; ++channel)
        if ((channels >> channel & 1) != 0) change(streams[channel]);
}

void spoil(CardState& s, const Scenario& scenario) {
    for (const PacketFault& fault : scenario.packetFaults) packet_faults::add(s, fault);
    for (const BrokenRows& rows : scenario.brokenRows)
        for (std::uint32_t row = rows.first; row <= rows.last; ++row)
            tables::setBit(s.tables[rows.table].maskRefused, row, true);
    for (const BusySends& busy : scenario.busySends)
        forEachChannel(s.down, busy.channels, [&](DownStreamState& stream) { stream.busySends = busy.sends; });
    for (const StreamErrors& wrong : scenario.streamErrors)
        forEachChannel(s.up, wrong.channels, [&](UpStreamState& stream) {
            stream.fifoErrors = wrong.fifoErrors;
            stream.errors = wrong.errors;
        });
    s.faults.heldUp = scenario.heldStreams;
    s.faults.counters = scenario.counters;
    s.faults.resetsIgnored = scenario.resetsIgnored;
    packet_faults::stopAfter(s, scenario.stopAfterPackets);
}

}  // namespace

std::optional<Scenario> load(const std::string& path, const KeySettings& settings, std::string& error) {
    const std::string& whole = path.empty() ? settings.option : path;
    try {
        return read(path, settings);
    } catch (const Rejected& rejected) {
        error = rejected.what();
    } catch (const std::bad_alloc&) {
        error = whole + ": there is not enough memory to read the scenario";
    } catch (const std::filesystem::filesystem_error&) {
        error = whole + ": this is no path; check it";
    }
    return std::nullopt;
}

std::optional<Scenario> load(const std::string& path, std::string& error) {
    if (!path.empty()) return load(path, {}, error);
    error = "no scenario file is named; give its path";
    return std::nullopt;
}

CardConfig configAt(const Scenario& scenario, const CardTime& now) {
    CardConfig config = scenario.config;
    if (scenario.date == DateChoice::kToday) config.initialDate = now.date;
    if (scenario.date == DateChoice::kYesterday) config.initialDate = calendar::dateAfter(now.date, -1);
    if (scenario.clock) {
        const std::uint32_t local = now.time / 10000 * 3600 + now.time / 100 % 100 * 60 + now.time % 100;
        config.clockOffsetSeconds = static_cast<std::int32_t>(*scenario.clock) - static_cast<std::int32_t>(local);
    }
    return config;
}

void powerOn(Card& card, const Scenario& scenario, const CardTime& now, std::uint64_t seedShift) {
    CardConfig config = configAt(scenario, now);
    config.seed += seedShift;
    if (scenario.instruments)
        card.powerOn(config, now, scenario.instruments->data(), scenario.instruments->size());
    else
        card.powerOn(config, now);
    spoil(card.state(), scenario);
    card.stopAfterMs(scenario.stopAfterMs);
}

std::vector<KeyName> knownKeys() { return cardKeys(); }

std::vector<FaultKindName> knownFaultKinds() { return faultKinds(); }

}  // namespace vexo_sim::scenario
