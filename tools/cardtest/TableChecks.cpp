#include "interface/CardRegisters.h"
#include "tools/cardtest/CardUnderTest.h"
#include "tools/cardtest/SavedState.h"

namespace cardtest {
namespace {

constexpr const char* kTableNames[] = {"single-leg table", "combination table"};
constexpr std::uint32_t kPatterns[] = {0xA5C3F00F, 0x5A3C0FF0, 0xFFFFFFFF, 0x00000000};
constexpr std::uint32_t kSpareWord = card_reg::kWordsPerRow - 1;  // means nothing to the card

std::string at(std::uint32_t table, std::uint32_t row, std::uint32_t word) {
    return std::string(" in ") + kTableNames[table] + ", row " + std::to_string(row) + ", word " + std::to_string(word);
}

void dataRegisterIsKept(const TestPlan& plan) {
    const RegisterCore registers(plan.bus);
    for (const card_reg::TableRegisters& table : card_reg::kTables) {
        const RegisterSaved saved(registers, table.data);
        for (const std::uint32_t pattern : kPatterns) {
            registers.write(table.data, pattern);
            const std::uint32_t seen = registers.read(table.data);
            expect(seen == pattern, hex(pattern) + " in register " + hex(table.data), hex(seen));
        }
    }
}

void fieldsAreWritten(const TestPlan& plan) {
    const RegisterCore registers(plan.bus);
    const std::uint32_t word = card_reg::kTables[0].data;
    const RegisterSaved saved(registers, word);
    for (unsigned offset = 0; offset < 32; offset += 8) {
        for (unsigned width = 8; offset + width <= 32; width += 8) {
            const std::uint64_t bits = ((std::uint64_t{1} << width) - 1) << offset;
            registers.writeField(word, 0, 32, 0xA5C3F00F);
            registers.writeField(word, offset, width, 0x5A3C0FF0U >> offset & bits >> offset);
            const std::uint64_t expected = (0xA5C3F00F & ~bits) | (0x5A3C0FF0 & bits);
            const std::uint32_t seen = registers.read(word);
            expect(seen == expected,
                   hex(expected) + " after a write of " + std::to_string(width) + " bits at bit " +
                       std::to_string(offset) + " over 0xa5c3f00f",
                   hex(seen));
        }
    }
}

// A wide field spans the data register and the read-back select next to it. The words that the select can name hold
// different values, so the read-back shows what the select took.
void wideFieldsAreWritten(const TestPlan& plan) {
    const RegisterCore registers(plan.bus);
    const TableAccess tables(registers);
    const card_reg::TableRegisters& table = card_reg::kTables[0];
    const RegisterSaved data(registers, table.data);
    const std::uint32_t row = tables.freeRow(0);
    WordsSaved saved(tables);
    for (std::uint32_t word = kSpareWord - 1; word <= kSpareWord; ++word) {
        saved.save(0, row, word);
        tables.write(0, row, word, 0x1000 + word);
    }
    const std::uint32_t target = row << card_reg::kRowShift | kSpareWord;
    for (unsigned width = 40; width <= 64; width += 8) {
        registers.write(table.select, target - 1);  // differs in its lowest byte, so that every width has to change it
        registers.writeField(table.data, 0, width, 0x5A3C0FF0 | std::uint64_t{target} << 32);
        const std::uint32_t seenData = registers.read(table.data);
        const std::uint32_t seenWord = registers.read(table.readBack);
        expect(seenData == 0x5A3C0FF0 && seenWord == 0x1000 + kSpareWord,
               "both registers changed by a write of " + std::to_string(width) + " bits",
               hex(seenData) + " in the first, the word " + hex(seenWord) + " selected by the second");
    }
}

void wordsAreKept(const TestPlan& plan, std::uint32_t word, const std::vector<std::uint32_t>& values) {
    const RegisterCore registers(plan.bus);
    const TableAccess tables(registers);
    for (std::uint32_t table = 0; table < 2; ++table) {
        const RegisterSaved data(registers, card_reg::kTables[table].data);
        const std::uint32_t row = tables.freeRow(table);
        WordsSaved saved(tables);
        saved.save(table, row, word);
        for (const std::uint32_t value : values) {
            tables.write(table, row, word, value);
            const std::uint32_t seen = tables.read(table, row, word);
            expect(seen == value, hex(value) + at(table, row, word), hex(seen));
        }
    }
}

void spareWordIsKept(const TestPlan& plan) {
    wordsAreKept(plan, kSpareWord, {std::begin(kPatterns), std::end(kPatterns)});
}

void maskIsKept(const TestPlan& plan) {
    std::vector<std::uint32_t> masks;
    for (std::uint32_t channel = 0; channel < kChannels; ++channel) masks.push_back(1U << channel);
    masks.insert(masks.end(), {0xFFFF, 0});
    wordsAreKept(plan, card_reg::kMaskWord, masks);
}

void idIsReadBackwards(const TestPlan& plan) {
    const RegisterCore registers(plan.bus);
    const TableAccess tables(registers);
    constexpr std::uint32_t first = card_reg::kFirstIdWord, last = first + card_reg::kIdWords - 1;
    for (std::uint32_t table = 0; table < 2; ++table) {
        const RegisterSaved data(registers, card_reg::kTables[table].data);
        const std::uint32_t row = tables.freeRow(table);
        std::uint32_t seen[card_reg::kIdWords];
        for (std::uint32_t word = first; word <= last; ++word) tables.write(table, row, word, 0x54455331 + word);
        for (std::uint32_t word = first; word <= last; ++word) seen[word - first] = tables.read(table, row, word);
        for (std::uint32_t word = first; word <= last; ++word) tables.write(table, row, word, 0);
        for (std::uint32_t word = first; word <= last; ++word) {
            const std::uint32_t expected = 0x54455331 + first + last - word;
            expect(seen[word - first] == expected, hex(expected) + at(table, row, word), hex(seen[word - first]));
        }
    }
}

}  // namespace

std::vector<Check> tableChecks() {
    constexpr const char* g = "instrument tables";
    constexpr const char* selected = "the read-back select names a row that a check used";
    return {
        {g, "data-kept", "The data registers of both tables keep what is written.", dataRegisterIsKept, true, nullptr},
        {g, "write-fields", "Writes of 8 to 32 bits change the bits of their field and no other.", fieldsAreWritten,
         true, nullptr},
        {g, "write-wide", "Writes of 40, 48, 56 and 64 bits reach into the next register.", wideFieldsAreWritten, true,
         selected},
        {g, "table-words", "A word stored by the command register is read back through the select register.",
         spareWordIsKept, true, selected},
        {g, "table-masks", "A row keeps the mask of each of the sixteen channels, and of all together.", maskIsKept,
         true, selected},
        {g, "table-ids", "The four words of a row's id are read back in reverse order.", idIsReadBackwards, true,
         selected},
    };
}

}  // namespace cardtest
