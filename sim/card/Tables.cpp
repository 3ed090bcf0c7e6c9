#include "sim/card/Tables.h"

#include <algorithm>
#include <cstring>

#include "sim/card/Feed.h"
#include "sim/card/StaticData.h"

namespace vexo_sim::tables {
namespace {

constexpr std::uint32_t kWordMask = card_reg::kWordsPerRow - 1;
constexpr std::uint32_t kLastIdWord = card_reg::kFirstIdWord + card_reg::kIdWords - 1;

bool isIdWord(std::uint32_t word) { return word >= card_reg::kFirstIdWord && word <= kLastIdWord; }

}  // namespace

void store(CardState& s, std::uint32_t table, std::uint32_t command, std::uint32_t value) {
    const std::uint32_t row = command >> card_reg::kRowShift;
    const std::uint32_t word = command & kWordMask;
    if (row >= card_reg::kRows) return;
    TableState& t = s.tables[table];
    if (word == card_reg::kMaskWord && testBit(t.maskRefused, row)) return;
    if (t.words[row][word] == value) return;
    t.words[row][word] = value;
    if (word == card_reg::kMaskWord) feed::maskChanged(s, table, row);
    if (isIdWord(word)) static_data::idOverwritten(s, table, row);
}

std::uint32_t readBack(const TableState& table, std::uint32_t select) {
    const std::uint32_t row = select >> card_reg::kRowShift;
    const std::uint32_t word = select & kWordMask;
    if (row >= card_reg::kRows) return 0;
    return table.words[row][isIdWord(word) ? card_reg::kFirstIdWord + kLastIdWord - word : word];
}

std::uint32_t idWord(const char* id, std::uint32_t word) {
    unsigned char text[card_reg::kIdWords * 4] = {};
    for (std::size_t n = 0; n < sizeof text && id[n] != '\0'; ++n) text[n] = static_cast<unsigned char>(id[n]);
    const unsigned char* c = text + std::size_t{word - card_reg::kFirstIdWord} * 4;
    return std::uint32_t{c[0]} << 24 | std::uint32_t{c[1]} << 16 | std::uint32_t{c[2]} << 8 | c[3];
}

void storeId(TableState& table, std::uint32_t row, const char* id) {
    for (std::uint32_t word = card_reg::kFirstIdWord; word <= kLastIdWord; ++word)
        table.words[row][word] = idWord(id, word);
}

void forgetRows(TableState& table) {
    for (auto& row : table.words) std::fill(row, row + kLastIdWord + 1, 0U);
}

}  // namespace vexo_sim::tables
