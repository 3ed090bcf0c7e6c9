#pragma once

#include <functional>
#include <utility>

#include "tests/doubles/FakeDrv.h"

namespace test_support {

/// FakeDrv that asks a test before every register access, and can report every access as failed although it took place.
class ProbingDrv : public FakeDrv {
public:
    std::function<void()> onAccess;
    bool reportFailure = false;

    int ReadInt32(unsigned long addr, unsigned int& value) override {
        Probe();
        if (!reportFailure) return FakeDrv::ReadInt32(addr, value);
        unsigned int dropped = 0;
        FakeDrv::ReadInt32(addr, dropped);
        return -1;
    }
    int WriteInt32(unsigned long addr, unsigned int value) override {
        Probe();
        return Result(FakeDrv::WriteInt32(addr, value));
    }
    int WriteInt32_Log(unsigned long addr, unsigned int value) override {
        Probe();
        return Result(FakeDrv::WriteInt32_Log(addr, value));
    }
    int WriteInt32_LogWithRead(unsigned long addr, unsigned int value) override {
        Probe();
        return Result(FakeDrv::WriteInt32_LogWithRead(addr, value));
    }

private:
    void Probe() const {
        if (onAccess) onAccess();
    }
    int Result(int result) const { return reportFailure ? -1 : result; }
};

}  // namespace test_support
