#include "sim/card/StaticData.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "sim/card/ContractMap.h"
#include "sim/card/Feed.h"
#include "sim/card/Schedule.h"
#include "sim/card/Tables.h"

namespace vexo_sim::static_data {
namespace {

void count(ParserState& parser, const Instrument& instrument) {
    std::uint32_t* counters = parser.counters + std::size_t{safeTable(instrument.table)} * 4;
    counters[0] += 1;                                                                         // messages
    counters[1] += 1;                                                                         // instruments
    counters[2] += static_cast<std::uint32_t>(strnlen(instrument.id, sizeof instrument.id));  // bytes of their ids
    counters[3] += card_reg::kIdWords;                                                        // words written into rows
}

void learnOne(CardState& s) {
    ParserState& parser = s.parser;
    const std::uint32_t number = safeNumber(parser.learned++);
    const Instrument& instrument = parser.instruments[number];
    TableState& table = s.tables[safeTable(instrument.table)];
    const std::uint32_t row = safeRow(instrument.row);
    table.instrumentOfRow[row] = static_cast<std::uint16_t>(number);
    tables::storeId(table, row, instrument.id);
    if (s.faults.counters != CounterMode::kFrozen) count(parser, instrument);
    feed::instrumentLearned(s, number);
}

// How many instruments are known at this moment: they come in at an even pace over the learning time.
std::uint32_t dueCount(const CardState& s) {
    const std::uint64_t length = nsFromMs(s.config.learningMs);
    const std::uint64_t elapsed = s.clockNs - s.parser.startNs;
    const std::uint32_t count = safeCount(s.parser.count);
    if (elapsed >= length) return count;
    return static_cast<std::uint32_t>(elapsed * count / length);
}

std::uint64_t nextLearningNs(const CardState& s) {
    const std::uint64_t count = safeCount(s.parser.count);
    if (s.parser.learned >= count) return kNever;
    const std::uint64_t length = nsFromMs(s.config.learningMs);
    return s.parser.startNs + (length * (s.parser.learned + 1) + count - 1) / count;
}

void learnDue(CardState& s) {
    const std::uint32_t due = dueCount(s);
    if (s.parser.learned >= due) return;
    while (s.parser.learned < due) learnOne(s);
    contract_map::refresh(s);
}

void repairTable(const ParserState& parser, TableState& table) {
    for (std::uint32_t group = 0; group < card_reg::kRows / 64; ++group) {
        if (table.overwrittenIds[group] == 0) continue;
        for (std::uint32_t row = group * 64; row < group * 64 + 64; ++row) {
            if (!tables::testBit(table.overwrittenIds, row)) continue;
            tables::storeId(table, row, parser.instruments[safeNumber(table.instrumentOfRow[row])].id);
        }
        table.overwrittenIds[group] = 0;
    }
}

void repairDue(CardState& s) {
    if (s.clockNs < s.parser.nextRoundNs) return;
    for (TableState& table : s.tables) repairTable(s.parser, table);
    s.parser.nextRoundNs = kNever;
}

}  // namespace

void forget(CardState& s) {
    for (TableState& table : s.tables) {
        tables::forgetRows(table);
        std::fill(std::begin(table.instrumentOfRow), std::end(table.instrumentOfRow), kNoInstrument);
        std::fill(std::begin(table.overwrittenIds), std::end(table.overwrittenIds), 0U);
    }
    s.parser.learned = 0;
    s.parser.nextRoundNs = kNever;
    if (s.faults.counters != CounterMode::kFrozen)
        std::fill(std::begin(s.parser.counters), std::end(s.parser.counters), 0U);
    feed::forgetInstruments(s);
    contract_map::refresh(s);
}

void restart(CardState& s) {
    forget(s);
    s.parser.startNs = s.clockNs;
    s.nextDueNs = s.clockNs;
}

void advance(CardState& s) {
    learnDue(s);
    repairDue(s);
    wakeAt(s, nextLearningNs(s));
    wakeAt(s, s.parser.nextRoundNs);
}

void repair(CardState& s) {
    feed::forgetInstruments(s);
    for (TableState& table : s.tables)
        std::fill(std::begin(table.instrumentOfRow), std::end(table.instrumentOfRow), kNoInstrument);
    const std::uint32_t learned = safeCount(std::min(s.parser.learned, s.parser.count));
    s.parser.learned = learned;
    for (std::uint32_t number = 0; number < learned; ++number) {
        const Instrument& instrument = s.parser.instruments[number];
        const std::uint32_t table = safeTable(instrument.table);
        const std::uint32_t row = safeRow(instrument.row);
        s.tables[table].instrumentOfRow[row] = static_cast<std::uint16_t>(number);
        tables::storeId(s.tables[table], row, instrument.id);
        feed::maskChanged(s, table, row);
    }
    contract_map::refresh(s);
}

void idOverwritten(CardState& s, std::uint32_t table, std::uint32_t row) {
    TableState& t = s.tables[table];
    if (t.instrumentOfRow[row] == kNoInstrument) return;
    tables::setBit(t.overwrittenIds, row, true);
    if (s.parser.nextRoundNs != kNever) return;
    const std::uint64_t round = nsFromMs(std::max(s.config.staticRoundMs, 1U));
    s.parser.nextRoundNs = s.parser.startNs + ((s.clockNs - s.parser.startNs) / round + 1) * round;
    wakeAt(s, s.parser.nextRoundNs);
}

}  // namespace vexo_sim::static_data
