#include "tests/doubles/TraceDrv.h"

#include <cstdio>

#include "interface/CardRegisters.h"

namespace {

bool IsData(unsigned long addr) { return addr == card_reg::kTables[0].data || addr == card_reg::kTables[1].data; }

// A command register lies next to its data register.
unsigned long CommandOf(unsigned long data) { return data - 1; }

std::string Token(std::size_t run) { return "@run " + std::to_string(run) + "@"; }

}  // namespace

int TraceDrv::ReadInt32(unsigned long addr, unsigned int& value) {
    EndRun();
    std::printf("R 0x%lx\n", addr);
    return FakeDrv::ReadInt32(addr, value);
}

int TraceDrv::WriteInt32(unsigned long addr, unsigned int value) {
    if (m_pendingData == 0 && IsData(addr) && value == 0) {
        m_pendingData = addr;
        return 0;
    }
    if (m_pendingData != 0 && addr == CommandOf(m_pendingData)) {
        Zeroed(addr, value);
        return 0;
    }
    EndRun();
    std::printf("W 0x%lx 0x%x\n", addr, value);
    return FakeDrv::WriteInt32(addr, value);
}

int TraceDrv::WriteInt32_Log(unsigned long addr, unsigned int value) {
    EndRun();
    std::printf("WL 0x%lx 0x%x\n", addr, value);
    return FakeDrv::WriteInt32_Log(addr, value);
}

int TraceDrv::WriteInt32_LogWithRead(unsigned long addr, unsigned int value) {
    EndRun();
    std::printf("WR 0x%lx 0x%x\n", addr, value);
    return FakeDrv::WriteInt32_LogWithRead(addr, value);
}

void TraceDrv::Zeroed(unsigned long command, unsigned int word) {
    m_pendingData = 0;
    if (m_inRun && m_runs.back().command == command) {
        Run& run = m_runs.back();
        if (run.first == run.last) run.step = word - run.last;
        if (word == run.last + run.step) {
            run.last = word;
            return;
        }
    }
    std::printf("%s\n", Token(m_runs.size()).c_str());
    m_runs.push_back({command, word, word, 0});
    m_inRun = true;
}

void TraceDrv::EndRun() {
    m_inRun = false;
    if (m_pendingData != 0) std::printf("W 0x%lx 0x0\n", m_pendingData);
    m_pendingData = 0;
}

std::string TraceDrv::Timeline(std::string captured) const {
    for (std::size_t i = 0; i < m_runs.size(); ++i) {
        const Run& run = m_runs[i];
        char text[96];
        std::snprintf(text, sizeof text, "ZERO 0x%lx 0x%x..0x%x by 0x%x", run.command, run.first, run.last, run.step);
        const std::size_t at = captured.find(Token(i));
        if (at != std::string::npos) captured.replace(at, Token(i).size(), text);
    }
    return captured;
}
