// Several channels, loggers and forks at once. A build with the thread sanitizer finds the races among them.

#include <gtest/gtest.h>
#include <string>

#include "tests/integration/Scenario.h"
#include "tests/threads/FourChannels.h"

namespace {

TEST(FourChannels, ReceiveEveryPacketAndLogWholeLines) {
    const scenario::DayFile dayFile(2066, 1, 12, false);
    const scenario::Outcome outcome = scenario::RunInChild([] {
        four_channels::Run();
        return 0;
    });

    EXPECT_EQ(outcome.exitStatus, 0);
    std::vector<int> next(four_channels::kLoggers);
    for (const std::string& line : outcome.Log()) {
        int logger = 0;
        int number = 0;
        if (std::sscanf(line.c_str(), "INFO logger %d line %d", &logger, &number) != 2) continue;
        ASSERT_LT(logger, four_channels::kLoggers);
        EXPECT_EQ(line, "INFO logger " + std::to_string(logger) + " line " + std::to_string(next[logger]++));
    }
    EXPECT_EQ(next, std::vector<int>(four_channels::kLoggers, four_channels::kLines));
    EXPECT_EQ(outcome.CountLogged("WARN [channel:3] Contract map packets are ignored, only channel 0 learns the map!"),
              1u);
}

}  // namespace
