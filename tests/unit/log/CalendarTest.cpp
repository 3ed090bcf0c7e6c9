#include <gtest/gtest.h>

#include <climits>
#include <ctime>
#include <string>

#include "src/log/LineBuilder.h"

namespace {

constexpr std::time_t kDay = 86400;

std::string Text(const std::tm& t) {
    return std::to_string(t.tm_year + 1900L) + '-' + std::to_string(t.tm_mon + 1) + '-' + std::to_string(t.tm_mday) +
           ' ' + std::to_string(t.tm_hour) + ':' + std::to_string(t.tm_min) + ':' + std::to_string(t.tm_sec);
}

std::string Broken(std::time_t when, long utcOffset) {
    std::tm fields;
    breakDownWithOffset(when, utcOffset, fields);
    return Text(fields);
}

std::string Reference(std::time_t when) {
    std::tm fields{};
    ::gmtime_r(&when, &fields);
    return Text(fields);
}

TEST(Calendar, EveryDayFrom1970To2100IsThatOfTheCLibrary) {
    for (std::time_t day = 0; day <= 131 * 366; ++day) {
        const std::time_t when = day * kDay + day * 7919 % kDay;  // another second of the day each time
        ASSERT_EQ(Broken(when, 0), Reference(when)) << when;
    }
}

TEST(Calendar, TimesBefore1970AreThoseOfTheCLibrary) {
    for (std::time_t day = -1; day >= -2500 * 366; day -= 37) {
        const std::time_t when = day * kDay - day * 7919 % kDay;
        ASSERT_EQ(Broken(when, 0), Reference(when)) << when;
    }
}

TEST(Calendar, TheSecondsAroundMidnightAreThoseOfTheCLibrary) {
    for (const std::time_t day : {-719468, -146097, -1, 0, 1, 59, 60, 789, 790, 11016, 47540, 47541, 146097}) {
        for (std::time_t second = -2; second <= 2; ++second) {
            const std::time_t when = day * kDay + second;
            EXPECT_EQ(Broken(when, 0), Reference(when)) << when;
        }
    }
}

TEST(Calendar, TheOffsetMovesTheTime) {
    constexpr std::time_t kNow = 1740963601;  // 2025-03-03 01:00:01 UTC
    for (long offset = -14 * 3600; offset <= 14 * 3600; offset += 900)
        EXPECT_EQ(Broken(kNow, offset), Reference(kNow + offset)) << offset;
}

TEST(Calendar, NothingOfTheEarlierContentStays) {
    std::tm fields;
    fields.tm_isdst = 1;
    fields.tm_gmtoff = 99;

    breakDownWithOffset(0, 0, fields);

    EXPECT_EQ(fields.tm_isdst, 0);
    EXPECT_EQ(fields.tm_gmtoff, 0);
}

}  // namespace
