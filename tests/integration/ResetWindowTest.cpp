// Whether a start-up resets the card, by the time of day, the card's date and its parser counters.

#include <enyx-sim/enyx_sim.h>
#include <gtest/gtest.h>

#include "tests/integration/Scenario.h"

namespace {

using namespace scenario;

constexpr char kResetLine[] = "INFO Reset and Clear fpga table over.";

enum class Counters { standing, moving };

struct WindowCase {
    int day;  // of a month of its own: day files are the host's, and tests run side by side
    const char* name;
    int hour, minute, second;
    bool cardHasToday;
    Counters counters;
    bool reset;
};

class ResetWindow : public ::testing::TestWithParam<WindowCase> {};

// The card as another process left it: decoding, with today's date. The sleeps of the start-up are where it changes:
// the first follows the driver's own reset of the card, which forgets the switch.
void RunningCard(test_support::FakeTime& clock, const WindowCase& c) {
    clock.OnSleep([&c](unsigned int) {
        static std::uint32_t counter = 0;
        enyx_sim_poke_register(0, 0x11, 3);
        if (c.cardHasToday) enyx_sim_poke_register(0, 0x106, 20650300u + static_cast<std::uint32_t>(c.day));
        if (c.counters == Counters::moving) enyx_sim_poke_register(0, 0x210C, ++counter);
    });
}

TEST_P(ResetWindow, DecidesTheReset) {
    const WindowCase c = GetParam();
    const DayFile dayFile(2065, 3, c.day, c.hour >= 17);
    const Outcome outcome = RunInChild([&c] {
        test_support::FakeTime clock(2065, 3, c.day, c.hour, c.minute, c.second);
        SmallCard({{"SR705", 0}}, {});
        RunningCard(clock, c);
        const std::string ini = WriteIni("");
        PayloadSpi spi;
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        const int result = api->VexoStart(spi, ini.c_str());
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
        return result;
    });

    EXPECT_EQ(outcome.exitStatus, 0);
    EXPECT_EQ(outcome.Logged(kResetLine), c.reset) << outcome.out;
}

// One second passes between the clock set here and the decision: the sleep after the driver's reset of the card.
INSTANTIATE_TEST_SUITE_P(
    , ResetWindow,
    ::testing::Values(WindowCase{1, "OtherDateAtAQuietTime", 8, 30, 0, false, Counters::moving, true},
                      WindowCase{2, "EarlyMorning", 7, 59, 0, true, Counters::moving, true},
                      WindowCase{3, "LastSecondOfTheEarlyMorning", 7, 59, 59, true, Counters::moving, true},
                      WindowCase{4, "BeforeTheMorningSession", 8, 30, 0, true, Counters::standing, false},
                      WindowCase{5, "MorningSessionCountersMoving", 9, 30, 0, true, Counters::moving, false},
                      WindowCase{6, "MorningSessionCountersStanding", 9, 30, 0, true, Counters::standing, true},
                      WindowCase{7, "MorningBreak", 10, 20, 0, true, Counters::standing, false},
                      WindowCase{8, "SecondSessionCountersMoving", 11, 0, 0, true, Counters::moving, false},
                      WindowCase{9, "SecondSessionCountersStanding", 11, 0, 0, true, Counters::standing, true},
                      WindowCase{10, "Noon", 12, 30, 0, true, Counters::standing, false},
                      WindowCase{11, "AfternoonCountersMoving", 14, 0, 0, true, Counters::moving, false},
                      WindowCase{12, "AfternoonCountersStanding", 14, 0, 0, true, Counters::standing, true},
                      WindowCase{13, "AfterTheClose", 17, 0, 0, true, Counters::moving, true},
                      WindowCase{14, "BeforeTheEvening", 20, 30, 0, true, Counters::standing, false},
                      WindowCase{15, "EveningCountersMoving", 22, 0, 0, true, Counters::moving, false},
                      WindowCase{16, "EveningCountersStanding", 22, 0, 0, true, Counters::standing, true},
                      WindowCase{17, "LateEvening", 23, 40, 0, true, Counters::moving, true},
                      WindowCase{18, "JustAfterMidnight", 0, 5, 0, true, Counters::moving, true}),
    [](const auto& testCase) { return testCase.param.name; });

}  // namespace
