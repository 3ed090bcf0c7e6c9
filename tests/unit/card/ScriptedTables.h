#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tests/doubles/FakeDrv.h"

namespace test_support {

/// The two instrument tables as a reader of ids meets them: each attempt to read a row may show another id. Fast
/// enough for rows by the ten thousand. Reads and writes of other registers are FakeDrv's.
class ScriptedTables : public FakeDrv {
public:
    using Attempts = std::vector<std::string>;
    static constexpr std::uint32_t kRows = 8192;

    /// One access: the value written into a table's select register, or kRead for a read of what it shows.
    struct Access {
        int table;
        std::uint32_t select;

        bool operator==(const Access& other) const { return table == other.table && select == other.select; }
    };
    static constexpr std::uint32_t kRead = 0xFFFFFFFF;

    /// What the attempts to read a row show, first to last; later ones show no id.
    Attempts& Row(int table, std::uint32_t row) { return m_rows[table][row]; }

    std::vector<Access> accesses;
    std::function<void()> onAccess;

    int WriteInt32_LogWithRead(unsigned long addr, unsigned int value) override {
        if (addr != kSelect[0] && addr != kSelect[1]) return FakeDrv::WriteInt32_LogWithRead(addr, value);
        const int table = addr == kSelect[0] ? 0 : 1;
        Keep({table, value});
        m_select[table] = value;
        return 0;
    }

    int ReadInt32(unsigned long addr, unsigned int& value) override {
        if (addr != kReadBack[0] && addr != kReadBack[1]) return FakeDrv::ReadInt32(addr, value);
        const int table = addr == kReadBack[0] ? 0 : 1;
        Keep({table, kRead});
        const std::uint32_t row = m_select[table] / 64;
        const std::uint32_t word = m_select[table] % 64;
        const std::uint32_t attempt = m_reads[table][m_select[table]]++;
        const Attempts& shown = m_rows[table].at(row);
        value = attempt < shown.size() ? Quarter(shown[attempt], 4 - word) : 0;
        return 0;
    }

private:
    static constexpr unsigned long kSelect[] = {0x11002, 0x12002};
    static constexpr unsigned long kReadBack[] = {0x11003, 0x12003};

    // Word 4 shows the first four characters of an id, word 1 the last four of its sixteen.
    static std::uint32_t Quarter(const std::string& id, std::uint32_t quarter) {
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            const std::size_t at = quarter * 4 + i;
            value = value * 256 + (at < id.size() ? static_cast<unsigned char>(id[at]) : 0U);
        }
        return value;
    }
    void Keep(Access access) {
        if (onAccess) onAccess();
        accesses.push_back(access);
    }

    std::vector<Attempts> m_rows[2] = {std::vector<Attempts>(kRows), std::vector<Attempts>(kRows)};
    std::vector<std::uint32_t> m_reads[2] = {std::vector<std::uint32_t>(kRows * 64),
                                             std::vector<std::uint32_t>(kRows * 64)};
    std::uint32_t m_select[2] = {0, 0};
};

}  // namespace test_support
