#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "tests/doubles/FakeDrv.h"

namespace test_support {

/// One step of a long sequence towards the card: 'W' a plain write, 'L' a WriteInt32_Log, 'S' a sleep (value seconds).
struct Step {
    char kind;
    std::uint32_t addr, value;

    bool operator==(const Step& other) const {
        return kind == other.kind && addr == other.addr && value == other.value;
    }
};
using Steps = std::vector<Step>;

inline std::string Text(const Steps& steps, std::size_t at) {
    if (at >= steps.size()) return "nothing";
    char text[48];
    std::snprintf(text, sizeof text, "%c 0x%x 0x%x", steps[at].kind, steps[at].addr, steps[at].value);
    return text;
}

/// Where two sequences part, as text; empty when they are equal. A million steps are too many for a matcher to print.
inline std::string FirstDifference(const Steps& actual, const Steps& expected) {
    std::size_t at = 0;
    while (at < actual.size() && at < expected.size() && actual[at] == expected[at]) ++at;
    if (at == actual.size() && at == expected.size()) return {};
    return "step " + std::to_string(at) + " is " + Text(actual, at) + " instead of " + Text(expected, at);
}

/// Keeps the writes of a table clear as numbers, without a register model: half a million pairs of them are usual. Any
/// other call is in TakeCalls.
class WriteStream : public FakeDrv {
public:
    Steps steps;
    std::function<void()> onWrite;
    int result = 0;  ///< what every write reports

    int WriteInt32(unsigned long addr, unsigned int value) override { return Keep('W', addr, value); }
    int WriteInt32_Log(unsigned long addr, unsigned int value) override { return Keep('L', addr, value); }

private:
    int Keep(char kind, unsigned long addr, unsigned int value) {
        if (onWrite) onWrite();
        steps.push_back({kind, static_cast<std::uint32_t>(addr), value});
        return result;
    }
};

}  // namespace test_support
