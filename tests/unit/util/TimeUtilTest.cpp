#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "VexoZceUtil.h"
#include "tests/support/FakeTime.h"

namespace {

using test_support::FakeTime;
using testing::IsEmpty;

constexpr long kInstant = 1740963601123456789;  // 2025-03-03 01:00:01.123456789 UTC

class Clocks : public testing::Test {
protected:
    Clocks() { clock.SetEpoch(kInstant / 1000000000, kInstant % 1000000000); }

    FakeTime clock;
};

// ---- clocks ----

TEST_F(Clocks, GetTimeIsTheRealTimeClockInNanoseconds) { EXPECT_EQ(get_time(), 1740963601123456789u); }

TEST_F(Clocks, BrixGetTimeTampIsTheSameValue) { EXPECT_EQ(BrixGetTimeTamp(), 1740963601123456789u); }

TEST_F(Clocks, BrixDiffTimeTampIsTheTimeSinceTheStart) {
    EXPECT_EQ(BrixDiffTimeTamp(kInstant - 1500), 1500u);
    EXPECT_EQ(BrixDiffTimeTamp(kInstant), 0u);
    EXPECT_EQ(BrixDiffTimeTamp(0), 1740963601123456789u);
}

TEST_F(Clocks, BrixDiffTimeTampWrapsWhenTheStartLiesAhead) {
    EXPECT_EQ(BrixDiffTimeTamp(kInstant + 1), std::numeric_limits<unsigned long>::max());
}

TEST_F(Clocks, GetTimeSincePowerofIsTheMonotonicClock) {
    EXPECT_EQ(get_time_since_powerof(), static_cast<unsigned long>(kInstant - FakeTime::kMonotonicLagNs));
}

TEST_F(Clocks, EachFunctionReadsItsClockOnce) {
    clock.SetStepPerRead(1);

    get_time();
    BrixGetTimeTamp();
    BrixDiffTimeTamp(0);
    get_time_since_powerof();

    EXPECT_EQ(clock.NowNs(), kInstant + 4);
}

// ---- busy wait ----

TEST_F(Clocks, NsSleepReturnsTheFirstTimeReadAtOrAfterTheEnd) {
    clock.SetStepPerRead(10);

    EXPECT_EQ(NS_Sleep(kInstant, 95), static_cast<unsigned long>(kInstant + 100));
    EXPECT_EQ(clock.NowNs(), kInstant + 110) << "reads the clock in every round and no more";
}

TEST_F(Clocks, NsSleepEndsExactlyAtTheEnd) {
    clock.SetStepPerRead(10);

    EXPECT_EQ(NS_Sleep(kInstant, 100), static_cast<unsigned long>(kInstant + 100));
}

TEST_F(Clocks, NsSleepReadsOnceWhenTheEndHasPassed) {
    EXPECT_EQ(NS_Sleep(kInstant, 0), static_cast<unsigned long>(kInstant));
    EXPECT_EQ(NS_Sleep(kInstant, -5), static_cast<unsigned long>(kInstant));
    EXPECT_EQ(NS_Sleep(0, 1), static_cast<unsigned long>(kInstant));
    EXPECT_EQ(NS_Sleep(-10, 5), static_cast<unsigned long>(kInstant)) << "an end before 1970";
}

TEST_F(Clocks, NsSleepSpinsInsteadOfSleeping) {
    clock.SetStepPerRead(1000000000);

    NS_Sleep(kInstant, 3000000000);

    EXPECT_THAT(clock.Sleeps(), IsEmpty());
}

// ---- change of day ----

TEST(RotateDay, TheFirstCallRecordsTodayAndDoesNotRotate) {
    const FakeTime clock(2025, 3, 3, 12, 0, 0);
    unsigned long lastDay = 0;

    EXPECT_EQ(CheckIsRotateDay(lastDay), 0u);
    EXPECT_EQ(lastDay, 20250303u);
}

TEST(RotateDay, RotatesOnceJustAfterLocalMidnight) {
    FakeTime clock(2025, 3, 3, 23, 59, 59);
    unsigned long lastDay = 20250303;

    EXPECT_EQ(CheckIsRotateDay(lastDay), 0u);
    clock.Advance(1);
    EXPECT_EQ(CheckIsRotateDay(lastDay), 1u);
    EXPECT_EQ(lastDay, 20250304u);
    EXPECT_EQ(CheckIsRotateDay(lastDay), 0u);
    EXPECT_EQ(lastDay, 20250304u);
}

TEST(RotateDay, RotatesAcrossTheEndOfAMonthAndOfAYear) {
    FakeTime clock(2025, 2, 28, 23, 59, 59);
    unsigned long lastDay = 20250228;

    clock.Advance(1);
    EXPECT_EQ(CheckIsRotateDay(lastDay), 1u);
    EXPECT_EQ(lastDay, 20250301u);
    clock.SetLocal(2026, 1, 1, 0, 0, 0);
    EXPECT_EQ(CheckIsRotateDay(lastDay), 1u);
    EXPECT_EQ(lastDay, 20260101u);
}

TEST(RotateDay, AClockSetBackDoesNotRotateAndKeepsTheLastDay) {
    const FakeTime clock(2025, 3, 3, 12, 0, 0);
    unsigned long lastDay = 20250304;

    EXPECT_EQ(CheckIsRotateDay(lastDay), 0u);
    EXPECT_EQ(lastDay, 20250304u);
}

TEST(RotateDay, KeepsTheLastDayWhenTheLocalTimeIsUnknown) {
    FakeTime clock(2025, 3, 3, 12, 0, 0);
    clock.FailLocaltime(true);
    unsigned long lastDay = 0;

    EXPECT_EQ(CheckIsRotateDay(lastDay), 0u);
    EXPECT_EQ(lastDay, 0u);
}

// ---- trading hours ----

TEST(TradeTime, EverySecondOfTheDayFollowsTheSessions) {
    constexpr int kHour = 3600, kMinute = 60;
    FakeTime clock(2025, 3, 3, 0, 0, 0);
    std::vector<int> wrong;

    for (int second = 0; second < 24 * kHour; ++second, clock.Advance(1)) {
        const bool morningAndAfternoon = second > 9 * kHour && second < 15 * kHour;
        const bool night = second > 21 * kHour && second < 23 * kHour + 30 * kMinute;
        if (ZceIsInTradeTime() != (morningAndAfternoon || night)) wrong.push_back(second);
    }

    EXPECT_THAT(wrong, IsEmpty());
}

struct BoundRow {
    const char* name;
    int hour, minute, second;
    bool inside;
};

class TradeTimeBounds : public testing::TestWithParam<BoundRow> {};

TEST_P(TradeTimeBounds, AreAsPublished) {
    const FakeTime clock(2025, 3, 3, GetParam().hour, GetParam().minute, GetParam().second);

    EXPECT_EQ(ZceIsInTradeTime(), GetParam().inside);
}

INSTANTIATE_TEST_SUITE_P(TradeTime, TradeTimeBounds,
                         testing::Values(BoundRow{"Open", 9, 0, 0, false}, BoundRow{"SecondAfterOpen", 9, 0, 1, true},
                                         BoundRow{"LastSecondOfTheDay", 14, 59, 59, true},
                                         BoundRow{"Close", 15, 0, 0, false}, BoundRow{"NightOpen", 21, 0, 0, false},
                                         BoundRow{"SecondAfterNightOpen", 21, 0, 1, true},
                                         BoundRow{"LastSecondOfTheNight", 23, 29, 59, true},
                                         BoundRow{"NightClose", 23, 30, 0, false}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(TradeTime, DoesNotLookAtTheDayOfTheWeek) {
    const FakeTime sunday(2025, 3, 2, 10, 0, 0);

    EXPECT_TRUE(ZceIsInTradeTime());
}

TEST(TradeTime, IsOutsideWhenTheLocalTimeIsUnknown) {
    FakeTime clock(2025, 3, 3, 10, 0, 0);
    clock.FailLocaltime(true);

    EXPECT_FALSE(ZceIsInTradeTime());
}

TEST(TradeTime, FollowsTheTimeZoneOfTheProcess) {
    FakeTime clock;
    clock.SetEpoch(1740967200);  // 02:00 UTC
    const char* const oldZone = std::getenv("TZ");
    const std::string restored = oldZone != nullptr ? oldZone : "";

    ::setenv("TZ", "UTC0", 1);
    const bool inUtc = ZceIsInTradeTime();
    ::setenv("TZ", "CST-8", 1);
    const bool inChina = ZceIsInTradeTime();
    oldZone != nullptr ? ::setenv("TZ", restored.c_str(), 1) : ::unsetenv("TZ");
    ::tzset();

    EXPECT_FALSE(inUtc);
    EXPECT_TRUE(inChina);
}

TEST(TradeTime, AndTheDayCanBeAskedFromSeveralThreadsAtOnce) {
    const FakeTime clock(2025, 3, 3, 10, 0, 0);
    constexpr std::size_t kThreads = 4;
    int wrong[kThreads] = {};
    std::vector<std::thread> threads;

    for (int& mine : wrong) {
        threads.emplace_back([&mine] {
            unsigned long lastDay = 20250302;
            for (int i = 0; i < 2000; ++i) {
                if (!ZceIsInTradeTime()) ++mine;
                if (CheckIsRotateDay(lastDay) != (i == 0 ? 1u : 0u)) ++mine;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_THAT(wrong, testing::Each(0));
}

}  // namespace
