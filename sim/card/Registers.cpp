#include "sim/card/Registers.h"

#include <algorithm>
#include <iterator>

#include "sim/card/Calendar.h"
#include "sim/card/ContractMap.h"
#include "sim/card/Feed.h"
#include "sim/card/StaticData.h"
#include "sim/card/Tables.h"

namespace vexo_sim::registers {
namespace {

constexpr std::uint32_t kNoRegister = ~std::uint32_t{0};

bool isWritable(std::uint32_t word) {
    using namespace card_reg;
    if (word == kReset || word == kDecodeSwitch || word == kMapTransmit) return true;
    if (word == kSoftwareVersion || word == kTradingDate) return true;
    if (word >= kL5MulticastA && word <= kL1MulticastPort) return true;
    return (word >= kL5Output && word <= kL5Output + kOutputSrcPort) ||
           (word >= kL1Output && word <= kL1Output + kOutputSrcPort);
}

std::uint32_t counterAt(std::uint32_t word) {
    const auto* found = std::find(std::begin(card_reg::kParserCounters), std::end(card_reg::kParserCounters), word);
    if (found == std::end(card_reg::kParserCounters)) return kNoRegister;
    return static_cast<std::uint32_t>(found - std::begin(card_reg::kParserCounters));
}

std::uint32_t tableAt(std::uint32_t word) {
    for (std::uint32_t table = 0; table < kTables; ++table) {
        const card_reg::TableRegisters& r = card_reg::kTables[table];
        if (word >= r.command && word <= r.readBack) return table;
    }
    return kNoRegister;
}

void writeReset(CardState& s, std::uint32_t value) {
    const bool held = s.registers.heldInReset;
    s.registers.heldInReset = value != 0;
    if (value != 0) {
        forgetSwitches(s);
        static_data::forget(s);
    } else if (held) {
        static_data::restart(s);
    }
}

void writeControl(CardState& s, std::uint32_t word, std::uint32_t value) {
    s.registers.stored[word] = value;
    if (word == card_reg::kReset) writeReset(s, value);
    if (word == card_reg::kSoftwareVersion) s.registers.verdictPending = true;
    if (word == card_reg::kDecodeSwitch) feed::refresh(s);
    if (word == card_reg::kMapTransmit) contract_map::refresh(s);
}

void writeTable(CardState& s, std::uint32_t table, std::uint32_t word, std::uint32_t value) {
    const card_reg::TableRegisters& r = card_reg::kTables[table];
    TableState& t = s.tables[table];
    if (word == r.data) t.data = value;
    if (word == r.select) t.select = value;
    if (word == r.command) {
        t.command = value;
        tables::store(s, table, value, t.data);
    }
}

// The two feeds are not in step: now and then one of them is a second behind, never both, and never across midnight,
// where "behind" would read as a whole day ahead.
bool lags(const CardState& s, std::uint32_t feed) {
    constexpr std::uint64_t kSlotNs = 250'000'000;
    const std::uint64_t slot = s.clockNs / kSlotNs % 8;
    return slot == (feed == 0 ? 3 : 6);
}

constexpr std::int64_t kSecondsOfDay = 86400;

// Second of the exchange's time, counted from the beginning of the local day: negative for yesterday.
std::int64_t exchangeSeconds(const CardState& s) {
    const std::uint32_t time = s.now.time;
    return std::int64_t{time / 10000 * 3600 + time / 100 % 100 * 60 + time % 100} + s.config.clockOffsetSeconds;
}

// Second of the exchange's day.
std::int32_t exchangeSecond(const CardState& s) {
    return static_cast<std::int32_t>((exchangeSeconds(s) % kSecondsOfDay + kSecondsOfDay) % kSecondsOfDay);
}

std::uint32_t parserCounter(const CardState& s, std::uint32_t counter) {
    constexpr std::uint64_t kMillisecond = 1'000'000;
    const bool running = s.faults.counters == CounterMode::kRunning;
    return s.parser.counters[counter] + (running ? static_cast<std::uint32_t>(s.clockNs / kMillisecond) : 0);
}

std::uint32_t decimalTime(std::int32_t second) {
    return static_cast<std::uint32_t>(second / 3600 * 10000 + second / 60 % 60 * 100 + second % 60);
}

struct Field {
    std::uint64_t firstBit;
    std::uint32_t width;
};

bool isField(std::uint64_t byteAddress, std::uint32_t bitOffset, std::uint32_t bitWidth) {
    if (bitWidth < 8 || bitWidth > 64 || bitWidth % 8 != 0 || byteAddress >= kSpaceBytes) return false;
    return byteAddress * 8 + bitOffset + bitWidth <= kSpaceBytes * 8;
}

// Cuts a field into its parts, one a register: visit(word, shift inside the register, bits, shift inside the value).
template <typename Visit>
void forEachPart(const Field& field, Visit visit) {
    for (std::uint32_t done = 0; done < field.width;) {
        const std::uint64_t bit = field.firstBit + done;
        const auto shift = static_cast<std::uint32_t>(bit % 32);
        const std::uint32_t bits = std::min(32 - shift, field.width - done);
        visit(static_cast<std::uint32_t>(bit / 32), shift, bits, done);
        done += bits;
    }
}

std::uint32_t maskOf(std::uint32_t bits) { return bits == 32 ? ~std::uint32_t{0} : (std::uint32_t{1} << bits) - 1; }

}  // namespace

bool writeField(CardState& s, std::uint64_t byteAddress, std::uint32_t bitOffset, std::uint32_t bitWidth,
                std::uint64_t value) {
    if (!isField(byteAddress, bitOffset, bitWidth)) return false;
    forEachPart({byteAddress * 8 + bitOffset, bitWidth},
                [&](std::uint32_t word, std::uint32_t shift, std::uint32_t bits, std::uint32_t done) {
                    const std::uint32_t mask = maskOf(bits) << shift;
                    const std::uint32_t part = (static_cast<std::uint32_t>(value >> done) & maskOf(bits)) << shift;
                    write(s, word, bits == 32 ? part : (peek(s, word) & ~mask) | part);
                });
    return true;
}

bool readField(CardState& s, std::uint64_t byteAddress, std::uint32_t bitOffset, std::uint32_t bitWidth,
               std::uint64_t& value) {
    if (!isField(byteAddress, bitOffset, bitWidth)) return false;
    value = 0;
    forEachPart({byteAddress * 8 + bitOffset, bitWidth},
                [&](std::uint32_t word, std::uint32_t shift, std::uint32_t bits, std::uint32_t done) {
                    value |= std::uint64_t{(read(s, word) >> shift) & maskOf(bits)} << done;
                });
    return true;
}

void write(CardState& s, std::uint32_t word, std::uint32_t value) {
    if (isWritable(word)) return writeControl(s, word, value);
    const std::uint32_t table = tableAt(word);
    if (table != kNoRegister) writeTable(s, table, word, value);
}

std::uint32_t read(CardState& s, std::uint32_t word) {
    const std::uint32_t value = peek(s, word);
    if (word == card_reg::kVerdictOrFibre) s.registers.verdictPending = false;
    if (word == card_reg::kDecodeSwitch || word == card_reg::kTradingDate) return value;
    if (isWritable(word)) return 0;
    const std::uint32_t table = tableAt(word);
    const bool writeOnly = table != kNoRegister &&
                           (word == card_reg::kTables[table].command || word == card_reg::kTables[table].select);
    return writeOnly ? 0 : value;
}

std::uint32_t peek(const CardState& s, std::uint32_t word) {
    if (isWritable(word)) return s.registers.stored[word];
    if (word == card_reg::kHardwareVersion) return s.config.hardwareVersion;
    if (word == card_reg::kVerdictOrFibre) return s.registers.verdictPending ? s.config.verdict : s.config.fibreStatus;
    if (word == card_reg::kExchangeTimeA) return feedTime(s, 0);
    if (word == card_reg::kExchangeTimeB) return feedTime(s, 1);
    if (const std::uint32_t counter = counterAt(word); counter != kNoRegister) return parserCounter(s, counter);
    const std::uint32_t table = tableAt(word);
    if (table == kNoRegister) return 0;
    const TableState& t = s.tables[table];
    const card_reg::TableRegisters& r = card_reg::kTables[table];
    if (word == r.command) return t.command;
    if (word == r.data) return t.data;
    if (word == r.select) return t.select;
    return tables::readBack(t, t.select);
}

bool poke(CardState& s, std::uint32_t word, std::uint32_t value) {
    const std::uint32_t counter = counterAt(word);
    const std::uint32_t table = tableAt(word);
    if (word == card_reg::kHardwareVersion) {
        s.config.hardwareVersion = value;
    } else if (word == card_reg::kVerdictOrFibre) {
        s.config.fibreStatus = value;
    } else if (word == card_reg::kExchangeTimeA || word == card_reg::kExchangeTimeB) {
        s.registers.pinnedTime[word - card_reg::kExchangeTimeA] = value;
    } else if (counter != kNoRegister) {
        s.parser.counters[counter] = value;
    } else if (isWritable(word)) {
        s.registers.stored[word] = value;
        feed::refresh(s);
        contract_map::refresh(s);
    } else if (table == kNoRegister || word == card_reg::kTables[table].readBack) {
        return false;
    } else {
        TableState& t = s.tables[table];
        const card_reg::TableRegisters& r = card_reg::kTables[table];
        (word == r.command ? t.command : word == r.data ? t.data : t.select) = value;
    }
    return true;
}

void forgetSwitches(CardState& s) {
    s.registers.stored[card_reg::kDecodeSwitch] = 0;
    s.registers.stored[card_reg::kMapTransmit] = 0;
    feed::refresh(s);
    contract_map::refresh(s);
}

std::uint32_t exchangeDate(const CardState& s) {
    const std::int64_t seconds = exchangeSeconds(s);
    if (seconds >= 0 && seconds < kSecondsOfDay) return s.now.date;
    const std::int64_t days = (seconds - (kSecondsOfDay - 1) * (seconds < 0)) / kSecondsOfDay;
    return calendar::dateAfter(s.now.date, days);
}

std::uint32_t exchangeTime(const CardState& s) { return decimalTime(exchangeSecond(s)); }

std::uint32_t feedTime(const CardState& s, std::uint32_t feed) {
    if (s.registers.pinnedTime[feed] != kClockRuns) return s.registers.pinnedTime[feed];
    const std::int32_t second = exchangeSecond(s);
    return decimalTime(second > 0 && lags(s, feed) ? second - 1 : second);
}

}  // namespace vexo_sim::registers
