#include "tests/doubles/FakeDrv.h"

#include <cstdio>
#include <iterator>
#include <stdexcept>

#include "interface/CardRegisters.h"
#include "src/card/RowId.h"

namespace test_support {

int FakeDrv::destroyed = 0;

namespace {

std::string Hex(unsigned long value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%lx", value);
    return text;
}

[[noreturn]] void Unused(const char* what) { throw std::logic_error(std::string("nothing should call ") + what); }

}  // namespace

FakeDrv::~FakeDrv() { ++destroyed; }

int FakeDrv::Init(void*) { return 0; }
int FakeDrv::ReadInt8(unsigned long, unsigned char&) { Unused("ReadInt8"); }
int FakeDrv::ReadInt16(unsigned long, unsigned short&) { Unused("ReadInt16"); }
int FakeDrv::ReadInt64(unsigned long, unsigned long&) { Unused("ReadInt64"); }
long FakeDrv::ReadLess128Bytes(unsigned long, unsigned char*, unsigned long) { Unused("ReadLess128Bytes"); }
long FakeDrv::ReadBytes(unsigned long, unsigned char*, unsigned long) { Unused("ReadBytes"); }
int FakeDrv::WriteInt8(unsigned long, unsigned char) { Unused("WriteInt8"); }
int FakeDrv::WriteInt16(unsigned long, unsigned short) { Unused("WriteInt16"); }
int FakeDrv::WriteInt64(unsigned long, unsigned long) { Unused("WriteInt64"); }
long FakeDrv::WriteLess128Bytes(unsigned long, unsigned char*, unsigned long) { Unused("WriteLess128Bytes"); }
long FakeDrv::WriteBytes(unsigned long, unsigned char*, unsigned long) { Unused("WriteBytes"); }

int FakeDrv::ReadInt32(unsigned long addr, unsigned int& value) {
    if (onRead) onRead(addr);
    Note("R", addr);
    if (failingReads.count(addr) != 0) return -1;
    value = Load(addr);
    return 0;
}

int FakeDrv::WriteInt32(unsigned long addr, unsigned int value) {
    ++writes;
    Note("W", addr, value);
    Store(addr, value);
    return 0;
}

int FakeDrv::WriteInt32_Log(unsigned long addr, unsigned int value) {
    Note("WL", addr, value);
    Store(addr, value);
    return 0;
}

int FakeDrv::WriteInt32_LogWithRead(unsigned long addr, unsigned int value) {
    Note("WR", addr, value);
    Store(addr, value);
    return 0;
}

std::vector<std::string> FakeDrv::TakeCalls() {
    std::vector<std::string> calls;
    calls.swap(m_calls);
    return calls;
}

void FakeDrv::SetId(int table, std::uint32_t row, const std::string& id) {
    std::uint32_t packed[card_reg::kIdWords];
    conToAscii(id.c_str(), packed);
    for (std::uint32_t w = 0; w < card_reg::kIdWords; ++w) words[table][row << 6 | (w + 1)] = packed[w];
}

void FakeDrv::Store(unsigned long addr, unsigned int value) {
    registers[addr] = value;
    for (std::size_t t = 0; t < std::size(card_reg::kTables); ++t) {
        if (addr != card_reg::kTables[t].command) continue;
        const bool deaf = (value & 63) == 0 && deafRows[t].count(value >> 6) != 0;
        if (!deaf) words[t][value] = registers[card_reg::kTables[t].data];
    }
}

unsigned int FakeDrv::Load(unsigned long addr) {
    auto script = scripted.find(addr);
    if (script != scripted.end() && !script->second.empty()) {
        const unsigned int value = script->second.front();
        script->second.erase(script->second.begin());
        return value;
    }
    for (std::size_t t = 0; t < std::size(card_reg::kTables); ++t) {
        if (addr != card_reg::kTables[t].readBack) continue;
        unsigned int select = registers[card_reg::kTables[t].select];
        const unsigned int word = select & 63;
        if (word >= 1 && word <= 4) select = (select & ~63U) | (5 - word);
        return words[t][select];
    }
    return registers[addr];
}

void FakeDrv::Note(const std::string& kind, unsigned long addr) {
    if (record) m_calls.push_back(kind + ' ' + Hex(addr));
}

void FakeDrv::Note(const std::string& kind, unsigned long addr, unsigned int value) {
    if (record) m_calls.push_back(kind + ' ' + Hex(addr) + ' ' + Hex(value));
}

}  // namespace test_support
