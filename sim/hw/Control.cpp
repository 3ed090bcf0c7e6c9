#include <cstdio>
#include <cstring>

#include "sim/card/PacketFaults.h"
#include "sim/card/Registers.h"
#include "sim/card/Tables.h"
#include "sim/hw/Cards.h"
#include "sim/hw/Exported.h"
#include "sim/hw/Hooks.h"

namespace vexo_sim {
namespace {

static_assert(ENYX_SIM_FAULT_MAP_INDEX + 1 == static_cast<int>(PacketFaultKind::kEnd));
static_assert(ENYX_SIM_MAX_CARDS == kMaxCards && ENYX_SIM_STREAMS == kStreams && ENYX_SIM_ID_SIZE == kIdCapacity);

int fail(int error) {
    errno = error;
    return -1;
}

// Advances the card to the present moment, then runs work(Card&) on it. @p valid: whether the caller found its
// arguments valid. Nobody takes the lock away meanwhile: the work may write into a ring, which never moves.
template <typename Work>
int onCard(std::uint32_t index, bool valid, Work work) {
    HwCard* card = Cards::instance().find(index);
    if (card == nullptr) return -1;
    if (!valid) return fail(EINVAL);
    CardAccess access(*card, CardAccess::kPresent, Holding::kProtected);
    if (!access) return -1;
    return work(*access);
}

CardConfig cardConfig(const enyx_sim_config& c) {
    CardConfig config;
    config.seed = c.seed;
    config.quotesPerSecond = c.quotes_per_second;
    config.learningMs = c.learning_ms;
    config.staticRoundMs = c.static_round_ms;
    config.mapMessagesPerPacket = c.map_messages_per_packet;
    config.mapRoundMs = c.map_round_ms;
    config.mtu = c.mtu;
    config.ringBytes = c.ring_bytes;
    config.hardwareVersion = c.hardware_version;
    config.verdict = c.verdict;
    config.fibreStatus = c.fibre_status;
    config.clockOffsetSeconds = c.clock_offset_seconds;
    config.instruments = static_cast<InstrumentChoice>(c.instruments);
    config.listDate = c.list_date;
    config.quotesPerInstrument = c.quotes_per_instrument;
    config.burstEveryMs = c.burst_every_ms;
    config.burstMs = c.burst_ms;
    config.burstFactor = c.burst_factor;
    config.pace = c.pace;
    config.initialDate = c.initial_date;
    config.initialSwitch = c.initial_switch;
    return config;
}

bool isWord(std::uint32_t table, std::uint32_t row, std::uint32_t word) {
    return table < kTables && row < card_reg::kRows && word < card_reg::kWordsPerRow;
}

bool toCard(const enyx_sim_instrument& from, Instrument& to) {
    if (from.table >= kTables || from.row >= card_reg::kRows) return false;
    to.table = static_cast<std::uint8_t>(from.table);
    to.row = static_cast<std::uint16_t>(from.row);
    std::memset(to.id, 0, sizeof to.id);
    std::memcpy(to.id, from.id, strnlen(from.id, sizeof from.id));
    return true;
}

void fromCard(const Instrument& from, enyx_sim_instrument& to) {
    to.table = from.table;
    to.row = from.row;
    std::memcpy(to.id, from.id, sizeof to.id);
}

int replaceInstruments(Card& card, const enyx_sim_instrument* instruments, std::size_t count) {
    const std::unique_ptr<Instrument[]> list(new (std::nothrow) Instrument[count]);
    if (list == nullptr) return fail(ENOMEM);
    for (std::size_t n = 0; n < count; ++n)
        if (!toCard(instruments[n], list[n])) return fail(EINVAL);
    return card.replaceInstruments(list.get(), count) ? 0 : fail(EINVAL);
}

int push(Card& card, std::uint32_t channel, const void* data, std::uint32_t size, bool withoutReader) {
    if (!card.state().up[channel].open && !withoutReader) return fail(ENOTCONN);
    if (size > card.state().config.mtu) return fail(EMSGSIZE);
    return card.push(channel, data, size) ? 0 : fail(ENOBUFS);
}

}  // namespace
}  // namespace vexo_sim

using namespace vexo_sim;

int enyx_sim_is_simulated() { return 1; }

void enyx_sim_default_config(enyx_sim_config* config) {
    if (config == nullptr) return;
    const CardConfig c;
    *config = enyx_sim_config{1,
                              c.seed,
                              c.quotesPerSecond,
                              c.learningMs,
                              c.staticRoundMs,
                              c.mapMessagesPerPacket,
                              c.mapRoundMs,
                              c.mtu,
                              c.ringBytes,
                              c.hardwareVersion,
                              c.verdict,
                              c.fibreStatus,
                              c.clockOffsetSeconds,
                              static_cast<std::uint32_t>(c.instruments),
                              c.listDate,
                              c.quotesPerInstrument,
                              c.burstEveryMs,
                              c.burstMs,
                              c.burstFactor,
                              c.pace,
                              c.initialDate,
                              c.initialSwitch};
}

int enyx_sim_power_cycle(const enyx_sim_config* config) {
    if (Cards::instance().powerCycle(config != nullptr ? cardConfig(*config) : CardConfig{},
                                     config != nullptr ? config->cards : 1) != 0)
        return -1;
    hooks::clearScripts();
    return 0;
}

int enyx_sim_load_scenario(const char* path, char* error, size_t size) {
    if (path == nullptr) return fail(EINVAL);
    std::string reason;
    const std::optional<scenario::Scenario> wanted = scenario::load(path, reason);
    if (!wanted && error != nullptr && size > 0) std::snprintf(error, size, "%s", reason.c_str());
    if (!wanted) return fail(EINVAL);
    return Cards::instance().powerCycle(*wanted);
}

int enyx_sim_advance(uint32_t card) {
    return onCard(card, true, [](Card&) { return 0; });
}

int enyx_sim_pause_feed(uint32_t card, int paused) {
    return onCard(card, true, [=](Card& c) {
        c.pauseFeed(paused != 0);
        return 0;
    });
}

int enyx_sim_peek_register(uint32_t card, uint32_t word, uint32_t* value) {
    return onCard(card, value != nullptr, [=](Card& c) {
        *value = registers::peek(c.state(), word);
        return 0;
    });
}

int enyx_sim_poke_register(uint32_t card, uint32_t word, uint32_t value) {
    return onCard(card, true, [=](Card& c) { return registers::poke(c.state(), word, value) ? 0 : fail(EINVAL); });
}

int enyx_sim_table_word(uint32_t card, uint32_t table, uint32_t row, uint32_t word, uint32_t* value) {
    return onCard(card, value != nullptr && isWord(table, row, word), [=](Card& c) {
        *value = c.state().tables[table].words[row][word];
        return 0;
    });
}

int enyx_sim_set_table_word(uint32_t card, uint32_t table, uint32_t row, uint32_t word, uint32_t value) {
    return onCard(card, isWord(table, row, word), [=](Card& c) {
        tables::store(c.state(), table, row << card_reg::kRowShift | word, value);
        return 0;
    });
}

int enyx_sim_row_ignores_mask(uint32_t card, uint32_t table, uint32_t row, int on) {
    return onCard(card, isWord(table, row, card_reg::kMaskWord), [=](Card& c) {
        tables::setBit(c.state().tables[table].maskRefused, row, on != 0);
        return 0;
    });
}

int enyx_sim_set_instruments(uint32_t card, const enyx_sim_instrument* instruments, size_t count) {
    const bool valid = (instruments != nullptr || count == 0) && count <= kMaxInstruments;
    return onCard(card, valid, [=](Card& c) { return replaceInstruments(c, instruments, count); });
}

int enyx_sim_instrument_count(uint32_t card, uint32_t* count, uint32_t* learned) {
    return onCard(card, count != nullptr && learned != nullptr, [=](Card& c) {
        *count = c.state().parser.count;
        *learned = c.state().parser.learned;
        return 0;
    });
}

int enyx_sim_instrument_at(uint32_t card, uint32_t position, enyx_sim_instrument* instrument) {
    return onCard(card, instrument != nullptr, [=](Card& c) {
        if (position >= c.state().parser.count) return fail(EINVAL);
        fromCard(c.state().parser.instruments[position], *instrument);
        return 0;
    });
}

int enyx_sim_find_instrument(uint32_t card, const char* id, enyx_sim_instrument* instrument) {
    return onCard(card, id != nullptr && instrument != nullptr, [=](Card& c) {
        const ParserState& parser = c.state().parser;
        for (std::uint32_t n = 0; n < parser.count; ++n) {
            if (std::strcmp(parser.instruments[n].id, id) != 0) continue;
            fromCard(parser.instruments[n], *instrument);
            return 0;
        }
        return fail(ENOENT);
    });
}

int enyx_sim_push(uint32_t card, uint32_t channel, const void* data, uint32_t size, int without_reader) {
    const bool valid = channel < kStreams && (data != nullptr || size == 0);
    return onCard(card, valid, [=](Card& c) { return push(c, channel, data, size, without_reader != 0); });
}

int enyx_sim_get_counters(uint32_t card, uint32_t channel, enyx_sim_counters* counters) {
    return onCard(card, channel < kStreams && counters != nullptr, [=](Card& c) {
        const UpStreamState& up = c.state().up[channel];
        const DownStreamState& down = c.state().down[channel];
        *counters = {up.packets, up.backPressure, up.fifoErrors, up.errors, down.packets, down.bytes};
        return 0;
    });
}

int enyx_sim_set_counters(uint32_t card, uint32_t channel, const enyx_sim_counters* counters) {
    return onCard(card, channel < kStreams && counters != nullptr, [=](Card& c) {
        UpStreamState& up = c.state().up[channel];
        DownStreamState& down = c.state().down[channel];
        up.packets = counters->packets;
        up.backPressure = counters->back_pressure;
        up.fifoErrors = counters->fifo_errors;
        up.errors = counters->errors;
        down.packets = counters->sent_packets;
        down.bytes = counters->sent_bytes;
        return 0;
    });
}

int enyx_sim_busy_sends(uint32_t card, uint32_t channel, uint32_t sends) {
    return onCard(card, channel < kStreams, [=](Card& c) {
        c.state().down[channel].busySends = sends;
        return 0;
    });
}

int enyx_sim_hold_stream(uint32_t card, uint32_t channel, int on) {
    return onCard(card, channel < kStreams, [=](Card& c) {
        const std::uint32_t bit = 1U << channel;
        std::uint32_t& held = c.state().faults.heldUp;
        held = on != 0 ? held | bit : held & ~bit;
        return 0;
    });
}

int enyx_sim_stop(uint32_t card, int on) {
    return onCard(card, true, [=](Card& c) {
        c.stop(on != 0);
        return 0;
    });
}

int enyx_sim_stop_after(uint32_t card, uint64_t packets, uint32_t ms) {
    return onCard(card, packets != kNever && ms <= kMaxMilliseconds, [=](Card& c) {
        packet_faults::stopAfter(c.state(), packets);
        c.stopAfterMs(ms);
        return 0;
    });
}

int enyx_sim_parser_counters(uint32_t card, uint32_t mode) {
    return onCard(card, mode <= static_cast<std::uint32_t>(CounterMode::kRunning), [=](Card& c) {
        c.state().faults.counters = static_cast<CounterMode>(mode);
        return 0;
    });
}

int enyx_sim_ignore_resets(uint32_t card, uint32_t times) {
    return onCard(card, true, [=](Card& c) {
        c.state().faults.resetsIgnored = times;
        return 0;
    });
}

int enyx_sim_add_packet_fault(uint32_t card, const enyx_sim_packet_fault* fault) {
    if (fault == nullptr) return onCard(card, false, [](Card&) { return 0; });
    const PacketFault rule{static_cast<PacketFaultKind>(fault->kind),
                           fault->channels,
                           fault->packets,
                           fault->first,
                           fault->every,
                           fault->times,
                           fault->per_million,
                           fault->value,
                           fault->message};
    return onCard(card, isValid(rule), [=](Card& c) {
        const int number = packet_faults::add(c.state(), rule);
        return number >= 0 ? number : fail(ENOSPC);
    });
}

int enyx_sim_clear_packet_faults(uint32_t card) {
    return onCard(card, true, [](Card& c) {
        packet_faults::clear(c.state());
        return 0;
    });
}

int enyx_sim_packet_fault_strikes(uint32_t card, uint32_t rule, uint64_t* strikes) {
    return onCard(card, strikes != nullptr, [=](Card& c) {
        const FaultState& faults = c.state().faults;
        if (rule >= faults.count) return fail(EINVAL);
        *strikes = faults.rules[rule].strikes;
        return 0;
    });
}

int enyx_sim_fail(const enyx_sim_failure* failure) {
    if (failure == nullptr || failure->call == nullptr) return fail(EINVAL);
    const std::optional<Call> call = hw_calls::find(failure->call);
    if (!call) return fail(EINVAL);
    const std::uint32_t hasResult = failure->has_result != 0 ? 1 : 0;
    return hooks::addScript({*call, failure->nth, failure->times, failure->error, hasResult, failure->result});
}

int enyx_sim_fail_call(const char* call, uint32_t nth, int error, int for_good) {
    const enyx_sim_failure failure{call, nth, for_good != 0 ? 0U : 1U, error, 0, 0};
    return enyx_sim_fail(&failure);
}

void enyx_sim_clear_failures() { hooks::clearScripts(); }

void enyx_sim_set_trace(enyx_sim_trace trace, void* context) { hooks::setTrace(trace, context); }

void enyx_sim_count_handles(enyx_sim_handles* handles) {
    if (handles == nullptr) return;
    *handles = {pool<enyx_hw_filter>().live(),
                pool<enyx_hw_accelerator_descriptor>().live(),
                pool<enyx_hw_mmio_descriptor>().live(),
                pool<enyx_hw_mmio>().live(),
                pool<enyx_hw_a2c_stream_descriptor>().live(),
                pool<enyx_hw_a2c_stream>().live(),
                pool<enyx_hw_c2a_stream_descriptor>().live(),
                pool<enyx_hw_c2a_stream>().live(),
                refusedHandles()};
}
