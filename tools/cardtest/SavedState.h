#pragma once

#include <cstdint>
#include <vector>

#include "interface/CardRegisters.h"
#include "tools/cardtest/CardUnderTest.h"

namespace cardtest {

/// The card's two instrument tables, word by word.
class TableAccess {
public:
    explicit TableAccess(const RegisterCore& registers) : m_registers(registers) {}

    std::uint32_t read(std::uint32_t table, std::uint32_t row, std::uint32_t word) const;
    void write(std::uint32_t table, std::uint32_t row, std::uint32_t word, std::uint32_t value) const;
    /// Whether a row has an id: the card has learned an instrument there, or the host wrote one.
    bool isNamed(std::uint32_t table, std::uint32_t row) const;
    /// The last row that nobody uses: neither mask nor id. Throws Untestable when there is none.
    std::uint32_t freeRow(std::uint32_t table) const;

private:
    const RegisterCore& m_registers;
};

/// Puts a register back as it was found. For registers that can be read.
class RegisterSaved {
public:
    RegisterSaved(const RegisterCore& registers, std::uint32_t word)
        : m_registers(registers), m_word(word), m_found(registers.read(word)) {}
    ~RegisterSaved();
    RegisterSaved(const RegisterSaved&) = delete;
    RegisterSaved& operator=(const RegisterSaved&) = delete;

    std::uint32_t found() const { return m_found; }

private:
    const RegisterCore& m_registers;
    std::uint32_t m_word;
    std::uint32_t m_found;
};

/// Puts words of the tables back as they were found.
class WordsSaved {
public:
    explicit WordsSaved(const TableAccess& tables) : m_tables(tables) {}
    ~WordsSaved();
    WordsSaved(const WordsSaved&) = delete;
    WordsSaved& operator=(const WordsSaved&) = delete;

    /// Saves the present value of the word. @return the value.
    std::uint32_t save(std::uint32_t table, std::uint32_t row, std::uint32_t word);

private:
    struct Word {
        std::uint32_t table, row, word, value;
    };
    const TableAccess& m_tables;
    std::vector<Word> m_words;
};

/// Puts back what a reset forgets and the host can read: the masks of both tables, the decode switch and the date.
class CardSaved {
public:
    explicit CardSaved(const RegisterCore& registers);

private:
    TableAccess m_tables;
    RegisterSaved m_switch;
    RegisterSaved m_date;
    WordsSaved m_masks;
};

}  // namespace cardtest
