#include "sim/remote/Moment.h"

#include <gtest/gtest.h>

namespace vexo_sim::remote {
namespace {

constexpr std::uint64_t kSecond = 1'000'000'000;
constexpr std::uint64_t kMorning = 1'736'902'800 * kSecond;  // 2025-01-15 09:00 of the exchange
constexpr std::uint64_t kNow = kMorning + 5400 * kSecond;    // half past ten

TEST(Moment, IsReadInTheExchangesZone) {
    EXPECT_EQ(pastMomentOf("2025-01-15 09:00", kNow), kMorning);
    EXPECT_EQ(pastMomentOf("2025-01-15T09:00:00.5", kNow), kMorning + kSecond / 2);
    EXPECT_EQ(pastMomentOf("2025-01-15", kNow), kMorning - 9 * 3600 * kSecond);
    EXPECT_EQ(pastMomentOf("20250115", kNow), kMorning - 9 * 3600 * kSecond);
    EXPECT_EQ(pastMomentOf("2024-02-29 23:59:59.999999999", kNow), 1'709'222'400 * kSecond - 1);
    EXPECT_EQ(pastMomentOf("1736902800", kNow), kMorning);
    EXPECT_EQ(pastMomentOf("1736902800.000000001", kNow), kMorning + 1);
}

TEST(Moment, ATimeAloneIsTheLastOne) {
    EXPECT_EQ(pastMomentOf("09:00", kNow), kMorning);
    EXPECT_EQ(pastMomentOf("09:00:30.25", kNow), kMorning + 30 * kSecond + kSecond / 4);
    EXPECT_EQ(pastMomentOf("10:30", kNow), kNow);
    EXPECT_EQ(pastMomentOf("21:00", kNow), kMorning - 12 * 3600 * kSecond);  // of the night before
    const std::uint64_t afterMidnight = kMorning - 8 * 3600 * kSecond;
    EXPECT_EQ(pastMomentOf("00:30", afterMidnight), afterMidnight - 1800 * kSecond);
    EXPECT_EQ(pastMomentOf("23:00", afterMidnight), afterMidnight - 7200 * kSecond);
}

TEST(Moment, ThatIsNoneOrNotPastIsRefused) {
    for (const char* text : {"",
                             "now",
                             "9:00",
                             "09:60",
                             "24:00",
                             "09:00:",
                             "09:00x",
                             "2025-13-01",
                             "2025-02-29",
                             "20251301",
                             "20250116",
                             "10000000",
                             "2025-01-15 9",
                             "2025-01-15 09:00 ",
                             "-1",
                             "1736902800.",
                             "17369028000",
                             "1e9",
                             "2025-01-15 10:30:00.000000001",
                             "1736908201"})
        EXPECT_FALSE(pastMomentOf(text, kNow)) << text;
}

TEST(Moment, IsShownAsItIsRead) {
    EXPECT_EQ(momentText(kMorning + 123'456'789), "2025-01-15 09:00:00.123");
    EXPECT_EQ(momentText(1'709'222'399 * kSecond), "2024-02-29 23:59:59.000");
    EXPECT_EQ(secondsText(kMorning + 1), "1736902800.000000001");
    EXPECT_EQ(pastMomentOf(secondsText(kMorning + 1), kNow), kMorning + 1);
}

}  // namespace
}  // namespace vexo_sim::remote
