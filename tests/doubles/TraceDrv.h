#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tests/doubles/FakeDrv.h"

/// A FakeDrv that prints every call as it comes, so that a captured output shows register accesses and log lines in
/// their true order: "R 0x106", "W 0x106 0x1" (WriteInt32), "WL" (WriteInt32_Log), "WR" (WriteInt32_LogWithRead).
/// A run of WriteInt32 pairs that zero words of a table in even steps is one line, "ZERO 0x11000 0x0..0x3ffc0 by 0x1",
/// and is not stored.
class TraceDrv : public test_support::FakeDrv {
public:
    TraceDrv() { record = false; }

    int ReadInt32(unsigned long addr, unsigned int& value) override;
    int WriteInt32(unsigned long addr, unsigned int value) override;
    int WriteInt32_Log(unsigned long addr, unsigned int value) override;
    int WriteInt32_LogWithRead(unsigned long addr, unsigned int value) override;

    /// @p captured with the runs filled in.
    std::string Timeline(std::string captured) const;

private:
    struct Run {
        unsigned long command;
        unsigned int first, last, step;
    };
    void EndRun();
    void Zeroed(unsigned long command, unsigned int word);

    std::vector<Run> m_runs;
    bool m_inRun = false;
    unsigned long m_pendingData = 0;  // data register that took a zero and no command yet; 0 = none
};
