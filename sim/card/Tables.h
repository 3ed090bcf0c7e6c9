#pragma once

#include <cstdint>

#include "sim/card/CardState.h"

namespace vexo_sim::tables {

/// Stores @p value at the row and word that @p command names (row << 6 | word). A row beyond the table is ignored.
void store(CardState& s, std::uint32_t table, std::uint32_t command, std::uint32_t value);

/// The word that @p select names as the read-back register shows it: words 1 to 4 in reverse order, 0 beyond the rows.
std::uint32_t readBack(const TableState& table, std::uint32_t select);

/// Writes the first 16 characters of an id into words 1 to 4 of its row.
void storeId(TableState& table, std::uint32_t row, const char* id);
/// What storeId() puts into a word, 1 to 4.
std::uint32_t idWord(const char* id, std::uint32_t word);

/// Clears masks and ids of every row; words above the id are plain memory and stay.
void forgetRows(TableState& table);

inline bool testBit(const std::uint64_t* bitmap, std::uint32_t row) {
    return (bitmap[row / 64] >> (row % 64) & 1) != 0;
}
inline void setBit(std::uint64_t* bitmap, std::uint32_t row, bool on) {
    const std::uint64_t bit = std::uint64_t{1} << (row % 64);
    bitmap[row / 64] = on ? bitmap[row / 64] | bit : bitmap[row / 64] & ~bit;
}

}  // namespace vexo_sim::tables
