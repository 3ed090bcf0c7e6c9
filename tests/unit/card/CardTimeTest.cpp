#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/unit/card/CardServiceFixture.h"
#include "tests/unit/card/MutexProbe.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Vexo2_U50::CZceFpgaServ;

constexpr unsigned int kToday = 20250303;

class CardTime : public test_support::CardServiceFixture {
protected:
    CardTime() { drv.registers[0x106] = kToday; }

    void SetSystemTime(int hhmmss) { clock.SetLocal(2025, 3, 3, hhmmss / 10000, hhmmss / 100 % 100, hhmmss % 100); }
    void SetCardTime(unsigned int a, unsigned int b) {
        drv.registers[0x104] = a;
        drv.registers[0x105] = b;
    }
    unsigned int RealTime(int system, unsigned int card) {
        SetSystemTime(system);
        SetCardTime(card, card);
        return serv.GetRealTime();
    }
};

std::string SystemTimeLine(unsigned int time) { return "INFO System time:" + std::to_string(time) + "."; }

// ---- date ----

TEST_F(CardTime, UpdateTimeStampWritesTodaysDateIntoTheCard) {
    serv.UpdateTimeStamp();

    EXPECT_THAT(drv.TakeCalls(), ElementsAre("W 0x106 0x134febf"));  // 20250303
    EXPECT_THAT(log.Take(), ElementsAre("INFO Update fpga addr 0x106 to 20250303 over"));
}

TEST_F(CardTime, DateIsYearMonthAndDayOfTheLocalCalendar) {
    clock.SetLocal(2025, 12, 31, 23, 59, 59);
    serv.UpdateTimeStamp();
    clock.SetLocal(2026, 1, 1, 0, 0, 0);
    serv.UpdateTimeStamp();
    clock.SetLocal(2028, 2, 29, 12, 0, 0);
    serv.UpdateTimeStamp();

    EXPECT_THAT(log.Take(), ElementsAre("INFO Update fpga addr 0x106 to 20251231 over",
                                        "INFO Update fpga addr 0x106 to 20260101 over",
                                        "INFO Update fpga addr 0x106 to 20280229 over"));
}

TEST_F(CardTime, UpdateTimeStampGoesOnWhenTheWriteFails) {
    drv.reportFailure = true;

    serv.UpdateTimeStamp();

    EXPECT_THAT(log.Take(), ElementsAre("INFO Update fpga addr 0x106 to 20250303 over"));
}

TEST_F(CardTime, DatesAgreeWhenTheCardHasToday) {
    std::uint32_t card = 0;
    std::uint32_t system = 0;

    EXPECT_TRUE(serv.bDataEqual(&card, &system));

    EXPECT_EQ(card, kToday);
    EXPECT_EQ(system, kToday);
    EXPECT_THAT(drv.TakeCalls(), ElementsAre("R 0x106"));
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(CardTime, DatesDifferWhenTheCardHasAnyOtherDay) {
    for (const unsigned int other : {0U, kToday - 1, kToday + 1, 0xFFFFFFFFU}) {
        drv.registers[0x106] = other;
        std::uint32_t card = 0;
        std::uint32_t system = 0;

        EXPECT_FALSE(serv.bDataEqual(&card, &system)) << other;

        EXPECT_EQ(card, other);
        EXPECT_EQ(system, kToday);
    }
}

TEST_F(CardTime, FailedReadOfTheDateLeavesWhatTheCallerHadAndComparesThat) {
    drv.failingReads = {0x106};
    std::uint32_t system = 0;

    std::uint32_t card = kToday;
    EXPECT_TRUE(serv.bDataEqual(&card, &system));
    card = 19991231;
    EXPECT_FALSE(serv.bDataEqual(&card, &system));
    EXPECT_EQ(card, 19991231u);
}

// ---- time ----

TEST_F(CardTime, InTradingHoursTheCardsTimeIsTheResult) {
    SetSystemTime(100000);
    SetCardTime(100005, 100005);

    EXPECT_EQ(serv.GetRealTime(), 100005u);

    EXPECT_THAT(drv.TakeCalls(), ElementsAre("R 0x106", "R 0x104", "R 0x105"));
    EXPECT_THAT(log.Take(), ElementsAre("INFO [channel:0] Current fpga time:100005. system time:100000.",
                                        "INFO System time:100005."));
}

TEST_F(CardTime, LargerOfTheTwoStampsCounts) {
    SetSystemTime(100000);

    SetCardTime(100001, 95959);
    EXPECT_EQ(serv.GetRealTime(), 100001u);
    SetCardTime(95959, 100002);
    EXPECT_EQ(serv.GetRealTime(), 100002u);
    SetCardTime(0, 100003);
    EXPECT_EQ(serv.GetRealTime(), 100003u);
    SetCardTime(100004, 0);
    EXPECT_EQ(serv.GetRealTime(), 100004u);
    SetCardTime(100005, 0x80000000);
    EXPECT_EQ(serv.GetRealTime(), 100000u) << "a stamp that is no time at all counts as the larger one";
}

TEST_F(CardTime, StampsThatDifferByMoreThan1799FromTheSystemTimeAreNotUsed) {
    SetSystemTime(103500);
    SetCardTime(101500, 101500);

    EXPECT_EQ(serv.GetRealTime(), 103500u);

    EXPECT_THAT(log.Take(), ElementsAre("INFO [channel:0] Current fpga time:101500. system time:103500.",
                                        "INFO System time:103500."));
}

TEST_F(CardTime, CardsTimeIsUsedUpToADistanceOf1799OnEitherSide) {
    for (const int system : {90001, 94500, 100000, 103500, 120000, 145959, 210001, 232959}) {
        for (int distance = -3700; distance <= 3700; ++distance) {
            // Every distance around the two bounds, and some of the rest.
            const int fromBound = std::abs(std::abs(distance) - 1799);
            if (fromBound > 8 && distance % 97 != 0) continue;
            const auto card = static_cast<unsigned int>(system + distance);
            const bool near = distance >= -1799 && distance <= 1799;
            EXPECT_EQ(RealTime(system, card), near ? card : static_cast<unsigned int>(system))
                << "system " << system << ", card " << card;
        }
    }
}

TEST_F(CardTime, CardsTimeFarAwayIsNotUsed) {
    for (const unsigned int card : {0U, 1U, 235959U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(RealTime(100000, card), 100000u) << card;
    }
}

TEST_F(CardTime, CardIsAskedInsideTheTradingWindowsOnly) {
    struct Edge {
        int system;
        bool asked;
    };
    for (const Edge edge : {Edge{85959, false}, Edge{90000, false}, Edge{90001, true}, Edge{113000, true},
                            Edge{145959, true}, Edge{150000, false}, Edge{205959, false}, Edge{210000, false},
                            Edge{210001, true}, Edge{232959, true}, Edge{233000, false}}) {
        const auto card = static_cast<unsigned int>(edge.system) + 7;
        EXPECT_EQ(RealTime(edge.system, card), static_cast<unsigned int>(edge.system) + (edge.asked ? 7 : 0));
        EXPECT_EQ(drv.TakeCalls().empty(), !edge.asked) << edge.system;
    }
}

TEST_F(CardTime, OutsideTradingHoursTheSystemTimeIsTheResultAndNoRegisterIsRead) {
    SetCardTime(150000, 150000);
    SetSystemTime(150000);

    EXPECT_EQ(serv.GetRealTime(), 150000u);

    EXPECT_THAT(drv.TakeCalls(), IsEmpty());
    EXPECT_THAT(log.Take(), ElementsAre("INFO System time:150000."));
}

TEST_F(CardTime, TenMinutesPastMidnightGivesZero) {
    SetSystemTime(1000);

    EXPECT_EQ(serv.GetRealTime(), 0u);
    EXPECT_THAT(log.Take(), ElementsAre("INFO System time:0."));
}

TEST_F(CardTime, SystemTimesUpTo1799GiveZeroAndLaterOnesThemselves) {
    for (int minute = 0; minute < 30; ++minute) {
        for (int second = 0; second < 60; ++second) {
            const auto system = static_cast<unsigned int>(minute * 100 + second);
            SetSystemTime(static_cast<int>(system));
            EXPECT_EQ(serv.GetRealTime(), system <= 1799 ? 0u : system) << system;
        }
    }
}

TEST_F(CardTime, CardOfAnotherDateIsNotAskedForItsTime) {
    drv.registers[0x106] = kToday - 1;
    SetSystemTime(100000);
    SetCardTime(100005, 100005);

    EXPECT_EQ(serv.GetRealTime(), 100000u);

    EXPECT_THAT(drv.TakeCalls(), ElementsAre("R 0x106"));
    EXPECT_THAT(log.Take(), ElementsAre("INFO System time:100000."));
}

TEST_F(CardTime, DateThatCannotBeReadIsNotToday) {
    drv.failingReads = {0x106};
    SetSystemTime(100000);
    SetCardTime(100005, 100005);

    EXPECT_EQ(serv.GetRealTime(), 100000u);
    EXPECT_THAT(log.Take(), ElementsAre("INFO System time:100000."));
}

TEST_F(CardTime, FailedReadOfTheFirstStampEndsTheQuestion) {
    CZceFpgaServ fourth(idToIndex, 3);
    fourth.Init(&drv);
    drv.failingReads = {0x104};

    EXPECT_EQ(fourth.GetRealTime(), 0xFFFFFFFFu);

    EXPECT_THAT(drv.TakeCalls(), ElementsAre("R 0x106", "R 0x104"));
    EXPECT_THAT(log.Take(), ElementsAre("ERROR [channel:3] 1 Unable to read time stamp !"));
}

TEST_F(CardTime, FailedReadOfTheSecondStampEndsTheQuestion) {
    CZceFpgaServ last(idToIndex, 15);
    last.Init(&drv);
    drv.failingReads = {0x105};

    EXPECT_EQ(last.GetRealTime(), 0xFFFFFFFFu);

    EXPECT_THAT(drv.TakeCalls(), ElementsAre("R 0x106", "R 0x104", "R 0x105"));
    EXPECT_THAT(log.Take(), ElementsAre("ERROR [channel:15] 2 Unable to read time stamp !"));
}

TEST_F(CardTime, SystemTimeIsTheOneAtTheStartOfTheQuestion) {
    SetSystemTime(100000);
    SetCardTime(50000, 50000);
    drv.onRead = [this](unsigned long addr) {
        if (addr == 0x104) SetSystemTime(101500);
    };

    EXPECT_EQ(serv.GetRealTime(), 100000u);
    EXPECT_THAT(log.Take(),
                ElementsAre("INFO [channel:0] Current fpga time:50000. system time:100000.", SystemTimeLine(100000)));
}

TEST_F(CardTime, QuestionsOfTimeTakeNoLock) {
    std::vector<bool> lockHeld;
    drv.onAccess = [&] { lockHeld.push_back(test_support::IsHeld(CZceFpgaServ::subscribe_mutex)); };

    serv.UpdateTimeStamp();
    serv.GetRealTime();

    EXPECT_THAT(lockHeld, ElementsAre(false, false, false, false));
}

}  // namespace
