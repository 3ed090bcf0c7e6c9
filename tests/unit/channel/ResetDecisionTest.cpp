#include "tests/unit/channel/ChannelFixture.h"

#include <unistd.h>

#include "tests/support/TimeZone.h"

namespace {

using testing::ElementsAre;

enum class Counters { kStanding, kMoving, kDecodeOff };

class ResetDecision : public ChannelTest {
protected:
    ResetDecision() {
        MakeChannel();
        MakeServices();
    }

    /// From 0 (midnight) to 86399.
    void SetSecondOfDay(int second) {
        time.SetLocal(day.year, day.month, day.day, second / 3600, second / 60 % 60, second % 60);
    }
    void SetClock(int hour, int minute, int second) {
        time.SetLocal(day.year, day.month, day.day, hour, minute, second);
    }

    void SetCounters(Counters counters) {
        drv->registers[0x11] = counters == Counters::kDecodeOff ? 0 : 3;
        drv->onRead = nullptr;
        if (counters != Counters::kMoving) return;
        drv->onRead = [this](unsigned long addr) {
            if (addr == 0x210E) ++drv->registers[addr];
        };
    }

    /// Decides; tells whether the card was reset. A card is never half reset.
    bool Decide() {
        channel->ChkAndRst();
        const std::string timeline = Timeline();
        const std::vector<std::string> steps = {"WL 0x10 0x1\n", "WL 0x10 0x0\n", "ZERO 0x11000", "ZERO 0x12000",
                                                "INFO Reset and Clear fpga table over.\n"};
        std::size_t found = 0;
        for (const std::string& step : steps) found += timeline.find(step) != std::string::npos ? 1 : 0;
        EXPECT_THAT(found, testing::AnyOf(0U, steps.size())) << timeline;
        return found != 0;
    }
};

// ---- the times of day ----

struct Span {
    int first, last;  // HHMMSS, both inside
    bool standing, moving;
};

// What an operator is told: the card stays as it is between the sessions, and inside one while its counters move.
constexpr Span kDay[] = {
    {0, 80000, true, true},         {80001, 85959, false, false},  {90000, 101450, true, false},
    {101451, 102959, false, false}, {103000, 113000, true, false}, {113001, 132959, false, false},
    {133000, 155959, true, false},  {160000, 201500, true, true},  {201501, 205959, false, false},
    {210000, 232959, true, false},  {233000, 235959, true, true},
};

int SecondOfDay(int hhmmss) { return hhmmss / 10000 * 3600 + hhmmss / 100 % 100 * 60 + hhmmss % 100; }

TEST(ResetDecisionTable, CoversTheWholeDay) {
    int next = 0;
    for (const Span& span : kDay) {
        EXPECT_EQ(SecondOfDay(span.first), next);
        next = SecondOfDay(span.last) + 1;
    }
    EXPECT_EQ(next, 86400);
}

class ResetTable : public ResetDecision, public testing::WithParamInterface<Span> {
protected:
    /// Every second near both ends of the span, and some inside it.
    void Sweep(Counters counters, bool expected) {
        const int first = SecondOfDay(GetParam().first);
        const int last = SecondOfDay(GetParam().last);
        for (const int second : {first, first + 1, first + 2, (first + last) / 2, last - 2, last - 1, last}) {
            SCOPED_TRACE(second);
            SetSecondOfDay(second);
            SetCounters(counters);
            EXPECT_EQ(Decide(), expected);
        }
    }
};

TEST_P(ResetTable, CardWithStandingCounters) { Sweep(Counters::kStanding, GetParam().standing); }

TEST_P(ResetTable, CardWithMovingCounters) { Sweep(Counters::kMoving, GetParam().moving); }

// Counters that nobody counts tell nothing: decoding that is off counts as moving.
TEST_P(ResetTable, CardThatDoesNotDecode) { Sweep(Counters::kDecodeOff, GetParam().moving); }

INSTANTIATE_TEST_SUITE_P(ResetDecision, ResetTable, testing::ValuesIn(kDay), [](const auto& test) {
    const std::string digits = std::to_string(1000000 + test.param.first);
    return "From" + digits.substr(1);
});

// ---- the whole course ----

TEST_F(ResetDecision, CountersAreReadThreeTimesASecondApart) {
    SetClock(9, 30, 0);
    SetCounters(Counters::kMoving);

    channel->ChkAndRst();

    const std::vector<std::string> counters = {"R 0x200b", "R 0x200c", "R 0x200d", "R 0x200e",
                                               "R 0x210b", "R 0x210c", "R 0x210d", "R 0x210e"};
    std::vector<std::string> expected = {"R 0x106",
                                         "INFO First time read fpga date:DATE, system date:DATE.",
                                         "R 0x106",
                                         "R 0x104",
                                         "R 0x105",
                                         "INFO [channel:0] Current fpga time:0. system time:93000.",
                                         "INFO System time:93000.",
                                         "R 0x106",
                                         "R 0x11",
                                         "INFO 0x11 register value:0x3"};
    expected.insert(expected.end(), counters.begin(), counters.end());
    for (int pass = 0; pass < 2; ++pass) {
        expected.push_back("sleep 1");
        expected.insert(expected.end(), counters.begin(), counters.end());
    }
    ExpectTimeline(expected);
}

TEST_F(ResetDecision, TableIsClearedTwiceByAReset) {
    SetClock(7, 0, 0);

    channel->ChkAndRst();

    ExpectTimeline({
        "R 0x106",
        "INFO First time read fpga date:DATE, system date:DATE.",
        "INFO System time:70000.",
        "R 0x106",
        "WL 0x10 0x1",
        "sleep 1",
        "WL 0x10 0x0",
        "ZERO 0x11000 0x0..0x3ffc0 by 0x1",
        "ZERO 0x12000 0x0..0x3ffc0 by 0x1",
        "INFO [channel:0] Clear all inst table over",
        "INFO Reset and Clear fpga table over.",
        "ZERO 0x11000 0x0..0x3ffc0 by 0x1",
        "ZERO 0x12000 0x0..0x3ffc0 by 0x1",
        "INFO [channel:0] Clear all inst table over",
    });
}

TEST_F(ResetDecision, CountersAreAskedAlsoInTheSecondThatTheClosedHoursShare) {
    SetClock(16, 0, 0);
    SetCounters(Counters::kMoving);

    channel->ChkAndRst();

    EXPECT_THAT(time.Sleeps(), ElementsAre(1U, 1U, 1U));  // two of the counters, one of the reset
}

TEST_F(ResetDecision, OutsideTheWindowsTheCountersAreNotAsked) {
    SetClock(8, 30, 0);

    channel->ChkAndRst();

    ExpectTimeline(
        {"R 0x106", "INFO First time read fpga date:DATE, system date:DATE.", "INFO System time:83000.", "R 0x106"});
}

// ---- the card's own time ----

TEST_F(ResetDecision, TimeOfTheCardCountsNotThatOfTheHost) {
    SetClock(10, 14, 40);
    SetCounters(Counters::kStanding);
    drv->registers[0x104] = 101451;

    EXPECT_FALSE(Decide());
}

TEST_F(ResetDecision, LaterOfTheTwoStampsCounts) {
    SetClock(10, 29, 30);
    SetCounters(Counters::kStanding);
    drv->registers[0x104] = 102959;
    drv->registers[0x105] = 103000;

    EXPECT_TRUE(Decide());
}

TEST_F(ResetDecision, TimeOfTheCardThatCannotBeReadLeavesItAlone) {
    SetClock(9, 30, 0);
    SetCounters(Counters::kStanding);
    for (const unsigned long stamp : {0x104UL, 0x105UL}) {
        drv->failingReads = {stamp};
        EXPECT_FALSE(Decide()) << stamp;
    }
}

TEST_F(ResetDecision, TimeOfTheCardThatCannotBeReadIsLogged) {
    SetClock(9, 30, 0);
    drv->failingReads = {0x105};

    channel->ChkAndRst();

    ExpectTimeline({"R 0x106", "INFO First time read fpga date:DATE, system date:DATE.", "R 0x106", "R 0x104",
                    "R 0x105", "ERROR [channel:0] 2 Unable to read time stamp !", "R 0x106"});
}

TEST_F(ResetDecision, ATimeZoneThatIsSetWithoutTzsetMovesTheTimesOfDay) {
    const test_support::TimeZone zone("UTC0");
    SetClock(8, 30, 0);
    SetCounters(Counters::kStanding);
    EXPECT_FALSE(Decide());

    const test_support::TimeZone oneHourWest("YST1");

    EXPECT_TRUE(Decide());
}

// ---- the card's date ----

TEST_F(ResetDecision, CardOfAnotherDateIsAlwaysReset) {
    SetCounters(Counters::kMoving);
    for (const int hhmmss : {0, 80001, 85959, 93000, 101451, 120000, 133000, 203000, 210000, 235959}) {
        SetSecondOfDay(SecondOfDay(hhmmss));
        for (const unsigned int date : {0U, day.Number() - 1, day.Number() + 1, 0xFFFFFFFFU}) {
            drv->registers[0x106] = date;
            EXPECT_TRUE(Decide()) << hhmmss << ' ' << date;
        }
    }
}

TEST_F(ResetDecision, CardWhoseDateCannotBeReadIsReset) {
    SetClock(8, 30, 0);
    drv->failingReads = {0x106};

    channel->ChkAndRst();

    EXPECT_THAT(Timeline(), testing::StartsWith(Dated("R 0x106\nINFO First time read fpga date:0, system date:DATE.\n"
                                                      "WL 0x10 0x1\n")));
}

TEST_F(ResetDecision, DateOfTheCardThatChangesMeanwhilePreventsAReset) {
    SetClock(7, 0, 0);
    drv->scripted[0x106] = {day.Number(), day.Number() + 1};

    EXPECT_FALSE(Decide());
}

TEST_F(ResetDecision, MidnightThatPassesMeanwhilePreventsAReset) {
    SetClock(23, 59, 59);
    int reads = 0;
    drv->onRead = [&](unsigned long addr) {
        // The date is computed before the read, so this midnight shows in the second comparison.
        if (addr == 0x106 && ++reads == 1) time.Advance(1);
    };

    EXPECT_FALSE(Decide());
}

}  // namespace
