#include "src/log/ZoneOffsets.h"

#include <gtest/gtest.h>

#include <ctime>

#include "tests/unit/log/LogFixture.h"

namespace {

constexpr std::time_t kWinter = 1740963601;  // 2025-03-03 01:00:01 UTC
constexpr std::time_t kSummer = kWinter + 90 * 86400;
constexpr long kHour = 3600;

TEST(ZoneOffsets, SummerTimeIsKnownInAdvance) {
    const Zone zone("CET-1CEST,M3.5.0,M10.5.0/3");

    zone_offsets::learn(kWinter, kHour, true);

    EXPECT_EQ(zone_offsets::at(kWinter), kHour);
    EXPECT_EQ(zone_offsets::at(kSummer), 2 * kHour);
}

// A handler would otherwise show the summer time of the zone before.
TEST(ZoneOffsets, AnotherZoneIsLearnedAlsoWhenItsPresentOffsetIsTheSame) {
    const Zone zone("CET-1CEST,M3.5.0,M10.5.0/3");
    zone_offsets::learn(kWinter, kHour, true);

    const Zone other("XST-1");
    zone_offsets::learn(kWinter, kHour, true);

    EXPECT_EQ(zone_offsets::at(kSummer), kHour);
}

}  // namespace
