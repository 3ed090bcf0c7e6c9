#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "tests/integration/Scenario.h"

namespace scenario {

/// One run of the library over a card that a scenario file, or else the environment, describes.
struct SimulatedRun {
    int year = 2067, month = 1, day = 1;
    int hour = 9, minute = 30, second = 0;
    std::string cardIni;                             // path of the scenario
    std::map<std::string, std::string> environment;  // of the process
    std::string libraryIni;                          // content
    int secondsBefore = 0;                           // between start-up and the first poll
    int milliseconds = 1500;
    int pollsEach = 8;  // in each of them
};

/// What the application saw.
struct Sight {
    Outcome outcome;
    bool started = false;  // false: the process ended inside VexoStart
    std::uint64_t quotes = 0;
    std::uint64_t outOfTurn = 0;   // quotes whose sequence number is not the one after the last
    std::uint64_t largestGap = 0;  // numbers missing between two quotes that follow each other
    std::uint32_t firstDate = 0, firstTime = 0;
    std::uint32_t lastDate = 0, lastTime = 0;
    std::uint64_t instruments = 0;  // different ids among the quotes
};

/// Runs it in a process of its own, under a fake clock. @p prepare runs there first, in an empty working directory.
Sight RunOnSimulatedCard(
    const SimulatedRun& run, const std::function<void()>& prepare = [] {});

}  // namespace scenario
