#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The measuring of times. A case has roles: ours, and the floor or rival that does the same work. A turn runs one
/// round of each role, on one CPU, forwards and backwards in turn. The report compares the rounds of a turn with each
/// other, so what changes slowly hits both sides.
namespace bench {

struct Role {
    std::string name;
    std::function<void()> prepare;  ///< before each round, not measured
    std::function<void()> run;      ///< the round
    std::function<void()> finish;   ///< after each round, not measured; may be empty
};

/// What processes have used, since any moment.
struct Usage {
    std::uint64_t involuntarySwitches = 0;
    double cpuSeconds = 0;
};

struct Case {
    std::string name;
    std::uint64_t times;                       ///< a round does the work so many times
    std::function<std::vector<Role>()> start;  ///< called once, when the case begins
    std::function<Usage()> elsewhere = {};     ///< of other processes that take part; may be empty
    std::function<void()> end = {};            ///< called once, behind the last turn; may be empty
    std::string cannot = {};                   ///< why this machine cannot measure the case; then nothing is called
};

/// The same for a role that needs no preparation.
inline Role plainRole(std::string name, std::function<void()> run) {
    return {std::move(name), [] {}, std::move(run), {}};
}

/// Numbers that a case tells by itself, for information. The report shows them as they are.
void tellNumber(const std::string& name, double value);

/// Involuntary context switches of this process since it began.
std::uint64_t involuntarySwitches();

/// The CPU that measures: the last one that the process may use, since the first ones serve the devices.
unsigned int measuringCpu();
/// Another CPU that the process may use, for a second process or thread. Nothing when there is none.
std::optional<unsigned int> otherCpu();
/// Pins the calling thread to one CPU.
void pinTo(unsigned int cpu);

/// Each program of times defines its cases. Rounds.cpp has main().
std::vector<Case> cases();

}  // namespace bench
