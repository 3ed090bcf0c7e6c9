#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "src/driver/IDrv.h"

namespace test_support {

/// A register driver without a card. Every call is kept as one line; registers hold what was last written unless a
/// test says otherwise. The instrument tables work as the card's do: a write to a command register stores the data
/// register into that word, the read-back register shows the selected word, ids (words 1 to 4) last word first.
class FakeDrv : public IDrv {
public:
    FakeDrv() = default;
    ~FakeDrv() override;

    int Init(void* param) override;
    int ReadInt8(unsigned long addr, unsigned char& value) override;
    int ReadInt16(unsigned long addr, unsigned short& value) override;
    int ReadInt32(unsigned long addr, unsigned int& value) override;
    int ReadInt64(unsigned long addr, unsigned long& value) override;
    long ReadLess128Bytes(unsigned long addr, unsigned char* buf, unsigned long len) override;
    long ReadBytes(unsigned long addr, unsigned char* buf, unsigned long len) override;
    int WriteInt8(unsigned long addr, unsigned char value) override;
    int WriteInt16(unsigned long addr, unsigned short value) override;
    int WriteInt32(unsigned long addr, unsigned int value) override;
    int WriteInt32_Log(unsigned long addr, unsigned int value) override;
    int WriteInt32_LogWithRead(unsigned long addr, unsigned int value) override;
    int WriteInt64(unsigned long addr, unsigned long value) override;
    long WriteLess128Bytes(unsigned long addr, unsigned char* buf, unsigned long len) override;
    long WriteBytes(unsigned long addr, unsigned char* buf, unsigned long len) override;

    /// The calls since the last TakeCalls: "W 0x10 0x1" (WriteInt32), "WL ..." (WriteInt32_Log), "WR ..."
    /// (WriteInt32_LogWithRead), "R 0x103" (ReadInt32).
    std::vector<std::string> TakeCalls();
    /// Call recording costs time: off for the hundreds of thousands of writes of a table clear.
    bool record = true;
    std::size_t writes = 0;  ///< WriteInt32 calls, also while recording is off

    std::map<unsigned long, unsigned int> registers;  ///< by word index
    /// Values that the next reads of a register give, first to last; then `registers` again.
    std::map<unsigned long, std::vector<unsigned int>> scripted;
    std::set<unsigned long> failingReads;            ///< ReadInt32 of these returns -1
    std::set<std::uint32_t> deafRows[2];             ///< rows of a table that do not take their mask
    std::map<std::uint32_t, unsigned int> words[2];  ///< row << 6 | word to its content, a map a table
    std::function<void(unsigned long addr)> onRead;  ///< called before each ReadInt32

    unsigned int Mask(int table, std::uint32_t row) { return words[table][row << 6]; }
    void SetId(int table, std::uint32_t row, const std::string& id);

    static int destroyed;  ///< FakeDrv objects that have ended so far

private:
    void Store(unsigned long addr, unsigned int value);
    unsigned int Load(unsigned long addr);
    void Note(const std::string& kind, unsigned long addr);
    void Note(const std::string& kind, unsigned long addr, unsigned int value);

    std::vector<std::string> m_calls;
};

}  // namespace test_support
