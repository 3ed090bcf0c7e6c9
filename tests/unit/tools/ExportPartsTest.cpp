#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "tools/data/NumberText.h"
#include "tools/vexo/export/Filter.h"
#include "tools/vexo/export/Progress.h"

using namespace vexo;
using namespace vexo::exporting;

namespace {

std::string Decimal(std::int64_t number, std::uint32_t decimals) {
    char text[data::kNumberRoom];
    const bool isNegative = number < 0;
    const auto magnitude = isNegative ? 0 - static_cast<std::uint64_t>(number) : static_cast<std::uint64_t>(number);
    return {text, data::putDecimal(text, isNegative, magnitude, data::powerOfTen(decimals), decimals)};
}

std::string Seconds(std::uint64_t ns) {
    char text[data::kNumberRoom];
    return {text, data::putSeconds(text, ns)};
}

}  // namespace

TEST(NumberText, DecimalsAreExactAndWithoutZerosAtTheEnd) {
    EXPECT_EQ(Decimal(0, 4), "0");
    EXPECT_EQ(Decimal(60000000, 4), "6000");
    EXPECT_EQ(Decimal(60005000, 4), "6000.5");
    EXPECT_EQ(Decimal(60000001, 4), "6000.0001");
    EXPECT_EQ(Decimal(-1, 4), "-0.0001");
    EXPECT_EQ(Decimal(-10000, 4), "-1");
    EXPECT_EQ(Decimal(std::numeric_limits<std::int64_t>::min(), 4), "-922337203685477.5808");
    EXPECT_EQ(Decimal(std::numeric_limits<std::int64_t>::max(), 9), "9223372036.854775807");
    EXPECT_EQ(Decimal(123, 1), "12.3");
}

TEST(NumberText, SecondsHaveNinePlaces) {
    EXPECT_EQ(Seconds(0), "0.000000000");
    EXPECT_EQ(Seconds(1'736'902'800'000'000'001), "1736902800.000000001");
    EXPECT_EQ(Seconds(~std::uint64_t{0}), "18446744073.709551615");
}

TEST(Filter, StarsStandForAnyCharactersAndQuestionMarksForOne) {
    EXPECT_TRUE(matches("SR701", "SR701"));
    EXPECT_FALSE(matches("SR701", "SR7011"));
    EXPECT_FALSE(matches("SR701", "SR70"));
    EXPECT_TRUE(matches("SR*", "SR701C5000"));
    EXPECT_TRUE(matches("*C*0", "SR701C5000"));
    EXPECT_TRUE(matches("SR?01", "SR701"));
    EXPECT_FALSE(matches("SR?01", "SR01"));
    EXPECT_TRUE(matches("*", ""));
    EXPECT_TRUE(matches("***", ""));
    EXPECT_FALSE(matches("?", ""));
    EXPECT_TRUE(matches("a*b*c", "aXbYbZc"));
    EXPECT_FALSE(matches("a*b*c", "aXbYbZ"));
    EXPECT_FALSE(matches("", "x"));
    EXPECT_TRUE(matches("", ""));
}

TEST(Filter, NoPatternTakesLong) {
    const std::string text(2000, 'a');
    std::string pattern;
    for (int i = 0; i < 200; ++i) pattern += "*a";
    EXPECT_FALSE(matches(pattern + "b", text));
    EXPECT_TRUE(matches(pattern, text));
}

TEST(Filter, MomentsAreOfTheExchangesZoneOrSecondsSince1970) {
    constexpr std::uint64_t kSecond = 1'000'000'000;
    EXPECT_EQ(momentOf("2025-01-15 09:00"), 1736902800 * kSecond);
    EXPECT_EQ(momentOf("2025-01-15T09:00:00.5"), 1736902800 * kSecond + kSecond / 2);
    EXPECT_EQ(momentOf("2025-01-15"), 1736870400 * kSecond);
    EXPECT_EQ(momentOf("2025-01-15 23:59:59.999999999"), 1736956800 * kSecond - 1);
    EXPECT_EQ(momentOf("20250115"), 1736870400 * kSecond);
    EXPECT_EQ(momentOf("20250115 09:00"), 1736902800 * kSecond);
    EXPECT_EQ(momentOf("20250115T09:00:00.5"), 1736902800 * kSecond + kSecond / 2);
    EXPECT_EQ(momentOf("1736902800"), 1736902800 * kSecond);
    EXPECT_EQ(momentOf("1736902800.000000001"), 1736902800 * kSecond + 1);
    EXPECT_EQ(momentOf("0"), 0U);
    EXPECT_EQ(momentOf("1234567"), 1234567 * kSecond);
    EXPECT_EQ(momentOf("123456789"), 123456789 * kSecond);
    EXPECT_EQ(momentOf("1970-01-01 00:00"), 0U);  // before 1970 in UTC
    for (const char* text :
         {"", ".", "1.", "1.x", "1.1234567890", "09:00", "2025-1-15", "2025-02-29", "2025-01-15 ", "2025-01-15 0900",
          "2025-01-15 24:00", "2025-01-15 09:60", "2025-01-15 09:00:", "2025-01-15 09:00:0", "2025-01-15 09:00:60",
          "2025-01-15 09:00:00.", "2025-01-15 09:00:00x", "20250115-", "9000000001"})
        EXPECT_FALSE(momentOf(text)) << text;
    for (const char* text : {"20250229", "20250115.5", "20250115 0900", "2025011509:00"})  // no seconds either
        EXPECT_FALSE(momentOf(text)) << text;
}

TEST(Progress, SaysShareRateAndTimeLeft) {
    EXPECT_EQ(progressText(600000, 50, 200, 1.0), "25 %, 600000 rows/s, 3 s left");
    EXPECT_EQ(progressText(600000, 300, 200, 2.0), "100 %, 300000 rows/s, 0 s left");  // the file has grown
    EXPECT_EQ(progressText(10, 300, 0, 2.0), "10 rows, 5 rows/s");
    EXPECT_EQ(progressText(0, 0, 100, 0), "0 rows, 0 rows/s");
}
