#include "tools/cardtest/SavedState.h"

namespace cardtest {
namespace {

std::uint32_t place(std::uint32_t row, std::uint32_t word) { return row << card_reg::kRowShift | word; }

// Runs in destructors, perhaps after a failed check. A card that does not take the old value is not reported again.
template <typename Write>
void putBack(Write write) {
    try {
        write();
    } catch (const Untestable&) {
    }
}

}  // namespace

std::uint32_t TableAccess::read(std::uint32_t table, std::uint32_t row, std::uint32_t word) const {
    m_registers.write(card_reg::kTables[table].select, place(row, word));
    return m_registers.read(card_reg::kTables[table].readBack);
}

void TableAccess::write(std::uint32_t table, std::uint32_t row, std::uint32_t word, std::uint32_t value) const {
    m_registers.write(card_reg::kTables[table].data, value);
    m_registers.write(card_reg::kTables[table].command, place(row, word));
}

bool TableAccess::isNamed(std::uint32_t table, std::uint32_t row) const {
    for (std::uint32_t word = card_reg::kFirstIdWord; word < card_reg::kFirstIdWord + card_reg::kIdWords; ++word)
        if (read(table, row, word) != 0) return true;
    return false;
}

std::uint32_t TableAccess::freeRow(std::uint32_t table) const {
    for (std::uint32_t row = card_reg::kRows; row-- > 0;)
        if (read(table, row, card_reg::kMaskWord) == 0 && !isNamed(table, row)) return row;
    throw Untestable{"every row of a table is in use"};
}

RegisterSaved::~RegisterSaved() {
    putBack([this] { m_registers.write(m_word, m_found); });
}

std::uint32_t WordsSaved::save(std::uint32_t table, std::uint32_t row, std::uint32_t word) {
    m_words.push_back({table, row, word, m_tables.read(table, row, word)});
    return m_words.back().value;
}

WordsSaved::~WordsSaved() {
    putBack([this] {
        for (const Word& w : m_words) m_tables.write(w.table, w.row, w.word, w.value);
    });
}

CardSaved::CardSaved(const RegisterCore& registers)
    : m_tables(registers),
      m_switch(registers, card_reg::kDecodeSwitch),
      m_date(registers, card_reg::kTradingDate),
      m_masks(m_tables) {
    for (std::uint32_t table = 0; table < 2; ++table)
        for (std::uint32_t row = 0; row < card_reg::kRows; ++row)
            if (m_tables.read(table, row, card_reg::kMaskWord) != 0) m_masks.save(table, row, card_reg::kMaskWord);
}

}  // namespace cardtest
