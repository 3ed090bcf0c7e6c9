#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace cardtest {

/// What the user asked for, and what is known about the card before the first check.
struct TestPlan {
    std::uint32_t bus = 0;
    std::int32_t channel = -1;  // of the stream to use; -1 = none is free
    std::uint32_t seconds = 3;  // to wait for packets
    bool write = false;
    bool shared = true;  // false: an embedded simulated card, one for each process
};

/// Thrown by a check: the promise is broken.
struct Failed {
    std::string expected;
    std::string seen;
};

/// Thrown by a check: in its present state the card cannot show whether the promise is kept.
struct Untestable {
    std::string reason;
};

struct Check {
    const char* group;
    const char* name;
    const char* promise;
    void (*run)(const TestPlan& plan);  // returns when the promise is kept
    bool writes = false;
    const char* leaves = nullptr;  // what a writing check cannot put back
};

/// All checks, those of one group side by side.
const std::vector<Check>& allChecks();

std::vector<Check> filterChecks();
std::vector<Check> enumerationChecks();
std::vector<Check> acceleratorChecks();
std::vector<Check> coreChecks();
std::vector<Check> registerChecks();
std::vector<Check> tableChecks();
std::vector<Check> resetChecks();
std::vector<Check> upStreamChecks();
std::vector<Check> trafficChecks();
std::vector<Check> downStreamChecks();
std::vector<Check> processChecks();

/// Throws Failed unless @p kept.
void expect(bool kept, const std::string& expected, const std::string& seen);

std::string hex(std::uint64_t value);
/// "errno 16 (Device or resource busy)"
std::string errnoText(int error);
/// "result -1, errno 5 (Input/output error)"
std::string resultText(long result, int error);

}  // namespace cardtest
