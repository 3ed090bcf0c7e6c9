#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/integration/SimulatedRun.h"

namespace scenario {

/// What a rehearsal must come to, and how long it has to run for that.
struct Expectation {
    int hour = 9, minute = 30, second = 0;
    int milliseconds = 1500;
    int pollsEach = 8;
    bool starts = true;
    std::vector<std::string> logged;
    std::vector<std::string> notLogged;
    std::function<void(const Sight&)> check = [](const Sight&) {};
};

void ExpectQuotesInTurn(const Sight& sight);

/// Start-up is done, and quotes come without a gap.
Expectation Healthy();
/// Start-up ends the process with these lines in the log.
Expectation EndsWith(std::vector<std::string> lines);

/// Runs it at the expectation's time of day, on a date of its own because of the day files, and checks what comes of
/// it.
/// @param run  with the card and the library's ini file filled in
void ExpectOfRun(const Expectation& e, SimulatedRun run, int month, int number);

/// The library's line that ends start-up.
inline constexpr char kEndLine[] = "ERROR Create Brix service failed!";
/// The library's line after a reset of the card.
inline constexpr char kResetLine[] = "INFO Reset and Clear fpga table over.";

}  // namespace scenario
