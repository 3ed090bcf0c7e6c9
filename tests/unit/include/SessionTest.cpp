#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <tuple>

#include "VexoZceSession.h"

std::uint32_t TradingDateOfCxx11(const char* time, std::uint64_t hostNs);

using namespace vexo_zce;

namespace {

constexpr std::uint32_t kFriday = 20261120;
constexpr std::uint32_t kSaturday = 20261121;
constexpr std::uint32_t kMonday = 20261123;
constexpr std::uint32_t kTuesday = 20261124;

/// Natural date, trading date, name of the session.
using Placed = std::tuple<std::uint32_t, std::uint32_t, std::string>;

std::uint32_t SecondOf(std::uint32_t time) { return time / 10000 * 3600 + time / 100 % 100 * 60 + time % 100; }

class Session : public ::testing::Test {
protected:
    Placed Place(std::uint32_t time, const HostTime& host) {
        QuoteTime when{};
        EXPECT_TRUE(clock.place(time, 0, host, when)) << time;
        return {when.naturalDate, when.tradingDate, when.session != nullptr ? when.session->name : ""};
    }
    /// With the host's clock at the same time.
    Placed Place(std::uint32_t time, std::uint32_t date) { return Place(time, HostTime{date, SecondOf(time)}); }
    bool Drops(const std::string& time) {
        QuoteTime when{};
        return !clock.place(time.data(), time.size(), HostTime{kMonday, 36000}, when);
    }

    SessionClock clock;
};

}  // namespace

TEST_F(Session, TheDaySessionsBelongToTheirDay) {
    EXPECT_EQ(Place(90000, kMonday), Placed(kMonday, kMonday, "morning"));
    EXPECT_EQ(Place(112959, kMonday), Placed(kMonday, kMonday, "morning"));
    EXPECT_EQ(Place(143000, kMonday), Placed(kMonday, kMonday, "afternoon"));
}

TEST_F(Session, TheNightBelongsToTheNextTradingDay) {
    EXPECT_EQ(Place(210000, kMonday), Placed(kMonday, kTuesday, "night"));
    EXPECT_EQ(Place(225959, kMonday), Placed(kMonday, kTuesday, "night"));
}

TEST_F(Session, FridayNightBelongsToMonday) { EXPECT_EQ(Place(213000, kFriday), Placed(kFriday, kMonday, "night")); }

TEST_F(Session, ATimeOfTheWeekendBelongsToMondayAndToNoSession) {
    EXPECT_EQ(Place(3000, kSaturday), Placed(kSaturday, kMonday, ""));
    EXPECT_EQ(Place(100000, kSaturday), Placed(kSaturday, kMonday, ""));
    EXPECT_EQ(Place(213000, kSaturday), Placed(kSaturday, kMonday, ""));
    EXPECT_EQ(Place(213000, kSaturday + 1), Placed(kSaturday + 1, kMonday, ""));
}

TEST_F(Session, EverySessionHasItsFirstAndItsLastSecond) {
    const std::pair<std::uint32_t, std::uint32_t> hours[] = {
        {85500, 101500}, {103000, 113000}, {133000, 150000}, {205500, 230000}};
    for (const auto& [first, last] : hours) {
        const auto name = std::get<2>(Place(first, kMonday));
        EXPECT_NE(name, "") << first;
        EXPECT_EQ(std::get<2>(Place(last, kMonday)), name);
        EXPECT_EQ(std::get<2>(Place(last + 1, kMonday)), "");
        const std::uint32_t before = first % 10000 == 0 ? first - 10000 + 5959 : first - 100 + 59;
        EXPECT_EQ(std::get<2>(Place(before, kMonday)), "") << before;
    }
}

TEST_F(Session, TheTradingDayChangesAtSeventeenHours) {
    EXPECT_EQ(Place(165959, kMonday), Placed(kMonday, kMonday, ""));
    EXPECT_EQ(Place(170000, kMonday), Placed(kMonday, kTuesday, ""));
    EXPECT_EQ(Place(235959, kMonday), Placed(kMonday, kTuesday, ""));
    EXPECT_EQ(Place(0, kTuesday), Placed(kTuesday, kTuesday, ""));
    EXPECT_EQ(Place(170000, kFriday), Placed(kFriday, kMonday, ""));
}

TEST_F(Session, OnAHolidayNothingIsTradedNorInTheNightBeforeIt) {
    ASSERT_TRUE(clock.holidays().add(kTuesday));
    EXPECT_EQ(Place(100000, kTuesday), Placed(kTuesday, kTuesday + 1, ""));
    EXPECT_EQ(Place(213000, kTuesday), Placed(kTuesday, kTuesday + 1, ""));
    EXPECT_EQ(Place(213000, kMonday), Placed(kMonday, kTuesday + 1, ""));
    EXPECT_EQ(Place(100000, kMonday), Placed(kMonday, kMonday, "morning"));
}

TEST_F(Session, AHolidayBehindAWeekendTakesTheNightOfFriday) {
    ASSERT_TRUE(clock.holidays().add(kMonday));
    EXPECT_EQ(Place(213000, kFriday), Placed(kFriday, kTuesday, ""));
    EXPECT_EQ(Place(213000, kFriday - 1), Placed(kFriday - 1, kFriday, "night"));
}

TEST_F(Session, AHolidayOverAWholeWeekIsPassedAtOnce) {
    for (std::uint32_t date = 20270206; date < 20270214; ++date) ASSERT_TRUE(clock.holidays().add(date));
    EXPECT_EQ(Place(150000, 20270205), Placed(20270205, 20270205, "afternoon"));
    EXPECT_EQ(Place(213000, 20270205), Placed(20270205, 20270215, ""));
    EXPECT_EQ(Place(90000, 20270215), Placed(20270215, 20270215, "morning"));
}

TEST_F(Session, TheQuoteGetsTheDayThatIsNearestToTheHostsTime) {
    EXPECT_EQ(Place(235959, HostTime{kSaturday, 1}), Placed(kFriday, kMonday, ""));
    EXPECT_EQ(Place(1, HostTime{kFriday, 86399}), Placed(kSaturday, kMonday, ""));
    EXPECT_EQ(Place(150000, HostTime{kMonday, SecondOf(205000)}), Placed(kMonday, kMonday, "afternoon"));
    EXPECT_EQ(std::get<0>(Place(120000, HostTime{kMonday, 0})), kMonday);      // half a day ahead
    EXPECT_EQ(std::get<0>(Place(120001, HostTime{kMonday, 0})), kMonday - 1);  // more than half a day
    EXPECT_EQ(std::get<0>(Place(115959, HostTime{kMonday, 86399})), kMonday);
    EXPECT_EQ(std::get<0>(Place(115958, HostTime{kMonday, 86399})), kTuesday);
}

TEST_F(Session, WithoutTheHostsTimeOfDayTheQuoteHasTheHostsDate) {
    EXPECT_EQ(Place(235959, HostTime{kMonday, kNoSecond}), Placed(kMonday, kTuesday, ""));
    EXPECT_EQ(Place(0, HostTime{kMonday, kNoSecond}), Placed(kMonday, kMonday, ""));
}

TEST_F(Session, TheMonthTheYearAndTheLeapDayAreCrossed) {
    EXPECT_EQ(Place(213000, 20281229), Placed(20281229, 20290101, "night"));
    EXPECT_EQ(Place(235959, HostTime{20270101, 0}), Placed(20261231, 20270101, ""));
    EXPECT_EQ(Place(213000, 20280228), Placed(20280228, 20280229, "night"));
    EXPECT_EQ(Place(235959, HostTime{19700101, 0}), Placed(19700101, 19700102, ""));  // no day before the first
}

TEST_F(Session, NonsenseTimesAreCountedAndDropped) {
    QuoteTime when{};
    unsigned dropped = 0;
    for (const std::uint32_t time : {999999U, 240000U, 236000U, 235960U, 96000U, 99960U, 4294967295U}) {
        EXPECT_FALSE(clock.place(time, 0, HostTime{kMonday, 0}, when)) << time;
        EXPECT_EQ(clock.dropped(), ++dropped);
    }
    EXPECT_FALSE(clock.place(90000, 1000000000, HostTime{kMonday, 0}, when));
    for (const HostTime host : {HostTime{0, 0}, HostTime{20270229, 0}, HostTime{kMonday, 86400}})
        EXPECT_FALSE(clock.place(90000, 0, host, when));
    EXPECT_EQ(clock.dropped(), dropped + 4);
    EXPECT_TRUE(clock.place(235959, 999999999, HostTime{kMonday, 0}, when));
    EXPECT_EQ(clock.dropped(), dropped + 4);
}

TEST_F(Session, ATextThatIsNoTimeIsCountedAndDropped) {
    unsigned dropped = 0;
    for (const std::string time : {"99:99:99.9", "", "9:00:00", "09:00", "09:00:0", "09:00:00.", "09:00:00,5",
                                   "09-00-00", "0a:00:00", "24:00:00", "09:60:00", "09:00:60", "09:00:00.x",
                                   "09:00:00.5x", "09:00:00.1234567890", " 09:00:00", "09:00:00 "}) {
        EXPECT_TRUE(Drops(time)) << time;
        EXPECT_EQ(clock.dropped(), ++dropped);
    }
    EXPECT_FALSE(Drops("09:00:00"));
    EXPECT_FALSE(Drops(std::string("09:00:00.5\0xx", 13)));
    EXPECT_EQ(clock.dropped(), dropped);
}

TEST_F(Session, NanosecondsAreKept) {
    QuoteTime when{};
    ASSERT_TRUE(clock.place("09:00:00.123456789", 18, HostTime{20250115, 32400}, when));
    EXPECT_EQ(when.nsOfDay, 32400123456789);
    EXPECT_EQ(when.nsSince1970, 1736902800123456789);  // 01:00 UTC
    ASSERT_TRUE(clock.place("09:00:00.5", 10, HostTime{20250115, 32400}, when));
    EXPECT_EQ(when.nsSince1970, 1736902800500000000);
    ASSERT_TRUE(clock.place(235959, 999999999, HostTime{22611231, kNoSecond}, when));
    EXPECT_EQ(when.nsSince1970 % kNsPerSecond, 999999999);
    EXPECT_GT(when.nsSince1970, 0);
}

TEST_F(Session, TheHostsClockIsReadInTheExchangesZone) {
    const std::uint64_t nineHours = 1736902800;  // 2025-01-15 09:00 of the exchange
    EXPECT_EQ(hostTimeOf(nineHours * 1000000000U).date, 20250115U);
    EXPECT_EQ(hostTimeOf(nineHours * 1000000000U).second, 32400U);
    const std::uint64_t midnight = 1736870400;  // 2025-01-15 00:00 of the exchange, the 14th in UTC
    EXPECT_EQ(hostTimeOf(midnight * 1000000000U).date, 20250115U);
    EXPECT_EQ(hostTimeOf(midnight * 1000000000U).second, 0U);
    EXPECT_EQ(hostTimeOf(midnight * 1000000000U - 1).date, 20250114U);
    EXPECT_EQ(hostTimeOf(midnight * 1000000000U - 1).second, 86399U);
    QuoteTime when{};
    EXPECT_FALSE(clock.place(90000, 0, hostTimeOf(~std::uint64_t{0}), when));
}

TEST(SessionHoursOfAnApplication, TakeThePlaceOfTheExchanges) {
    const SessionHours rows[] = {{"late", 21 * 3600, 26 * 3600 + 30 * 60, true}, {"day", 9 * 3600, 15 * 3600, false}};
    const SessionTable table = {rows, 2, 20 * 3600};
    SessionClock clock(table);
    QuoteTime when{};
    ASSERT_TRUE(clock.place(3000, 0, HostTime{kSaturday, 1800}, when));
    EXPECT_EQ(when.session, &rows[0]);  // began on Friday
    EXPECT_EQ(when.naturalDate, kSaturday);
    EXPECT_EQ(when.tradingDate, kMonday);
    ASSERT_TRUE(clock.place(23000, 0, HostTime{kTuesday, 9000}, when));
    EXPECT_EQ(when.session, &rows[0]);
    EXPECT_EQ(when.tradingDate, kTuesday);
    ASSERT_TRUE(clock.place(23001, 0, HostTime{kTuesday, 9001}, when));
    EXPECT_EQ(when.session, nullptr);
    ASSERT_TRUE(clock.place(3000, 0, HostTime{kMonday, 1800}, when));  // Sunday has no night
    EXPECT_EQ(when.session, nullptr);
    EXPECT_EQ(when.tradingDate, kMonday);
    ASSERT_TRUE(clock.place(120000, 0, HostTime{kMonday, 43200}, when));
    EXPECT_EQ(when.session, &rows[1]);
    ASSERT_TRUE(clock.place(193000, 0, HostTime{kMonday, 70200}, when));
    EXPECT_EQ(when.tradingDate, kMonday);
    ASSERT_TRUE(clock.place(200000, 0, HostTime{kMonday, 72000}, when));
    EXPECT_EQ(when.tradingDate, kTuesday);
}

TEST(SessionHoursOfAnApplication, MayBeNone) {
    const SessionTable table = {nullptr, 0, 17 * 3600};
    SessionClock clock(table);
    QuoteTime when{};
    ASSERT_TRUE(clock.place(90000, 0, HostTime{kMonday, 32400}, when));
    EXPECT_EQ(when.session, nullptr);
    EXPECT_EQ(when.tradingDate, kMonday);
}

TEST(SessionClock, IsTheSameForAnApplicationInCxx11) {
    EXPECT_EQ(TradingDateOfCxx11("21:30:00.5", 1763645400500000000U), 20251121U);  // 2025-11-20 21:30 of the exchange
    EXPECT_EQ(TradingDateOfCxx11("99:99:99.9", 1763645400500000000U), 0U);
}

TEST(SessionClock, AnyNumbersGiveADayOfTheCalendarOrAreDropped) {
    std::mt19937 random(20261122);
    SessionClock clock;
    for (int i = 0; i < 200; ++i) clock.holidays().add(static_cast<std::uint32_t>(random() % 3000000 + 20000000));
    std::uint64_t dropped = 0;
    for (int i = 0; i < 200000; ++i) {
        const HostTime host = {static_cast<std::uint32_t>(random() % 3000000 + 19680000),
                               static_cast<std::uint32_t>(random() % 90000)};
        QuoteTime when{};
        if (!clock.place(static_cast<std::uint32_t>(random() % 250000), static_cast<std::uint32_t>(random()), host,
                         when)) {
            EXPECT_EQ(clock.dropped(), ++dropped);
            continue;
        }
        ASSERT_EQ(dateOf(dayNumber(when.tradingDate)), when.tradingDate);
        ASSERT_TRUE(clock.isTradingDay(dayNumber(when.tradingDate)));
        ASSERT_GE(when.tradingDate, when.naturalDate);
        ASSERT_LE(std::abs(dayNumber(when.naturalDate) - dayNumber(host.date)), 1);
    }
    EXPECT_GT(dropped, 100U);
}
