#include "tests/integration/Expectation.h"

#include <gtest/gtest.h>

#include <utility>

namespace scenario {

void ExpectQuotesInTurn(const Sight& sight) {
    EXPECT_GT(sight.quotes, 0U);
    EXPECT_EQ(sight.outOfTurn, 0U);
}

Expectation Healthy() {
    Expectation e;
    e.check = ExpectQuotesInTurn;
    return e;
}

Expectation EndsWith(std::vector<std::string> lines) {
    Expectation e;
    e.starts = false;
    e.logged = std::move(lines);
    return e;
}

void ExpectOfRun(const Expectation& e, SimulatedRun run, int month, int number) {
    run.month = month;
    run.day = 1 + number;
    run.hour = e.hour;
    run.minute = e.minute;
    run.second = e.second;
    run.milliseconds = e.milliseconds;
    run.pollsEach = e.pollsEach;
    const DayFile dayFile(run.year, run.month, run.day, run.hour >= 17);

    const Sight sight = RunOnSimulatedCard(run);

    EXPECT_EQ(sight.started, e.starts) << sight.outcome.out;
    for (const std::string& line : e.logged)
        EXPECT_TRUE(sight.outcome.Logged(line)) << line << "\n" << sight.outcome.out;
    for (const std::string& line : e.notLogged) EXPECT_FALSE(sight.outcome.Logged(line)) << line;
    e.check(sight);
}

}  // namespace scenario
