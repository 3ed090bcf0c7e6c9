#include "src/log/ZoneOffsets.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <string>

#include "tests/support/TempDir.h"
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

TEST(ZoneOffsets, AnOffsetThatIsNotTheLearnedOneIsLearned) {
    const Zone zone("CET-1CEST,M3.5.0,M10.5.0/3");
    zone_offsets::learn(kWinter, kHour, true);

    zone_offsets::learn(kWinter + 1, 5 * kHour, false);

    EXPECT_EQ(zone_offsets::at(kWinter + 1), 5 * kHour);
}

TEST(ZoneOffsets, AClockThatIsSetBackByTwoYearsMakesThemKnown) {
    const Zone zone("CET-1CEST,M3.5.0,M10.5.0/3");
    constexpr std::time_t kTwoYears = 728 * 86400;
    zone_offsets::learn(kWinter, kHour, true);

    zone_offsets::learn(kWinter - kTwoYears, kHour, false);

    EXPECT_EQ(zone_offsets::at(kSummer - kTwoYears), 2 * kHour);
}

/// The data of a time zone that goes forward by an hour and back again, in turn.
class ChangingZone {
public:
    ChangingZone(std::time_t first, std::time_t period, int changes) {
        m_data = "TZif" + std::string(16, '\0');
        for (const int count : {0, 0, 0, changes, 2, 4}) addNumber(count);
        for (int i = 0; i < changes; ++i) addNumber(static_cast<std::uint32_t>(first + i * period));
        for (int i = 0; i < changes; ++i) m_data += static_cast<char>(1 - i % 2);
        addNumber(0);
        m_data += std::string(2, '\0');
        addNumber(kHour);
        m_data += '\1' + std::string(1, '\0');
        m_data += std::string("UTC", 4);
    }

    const std::string& Data() const { return m_data; }

private:
    void addNumber(std::uint32_t number) {
        for (int shift = 24; shift >= 0; shift -= 8) m_data += static_cast<char>(number >> shift);
    }

    std::string m_data;
};

TEST(ZoneOffsets, OfAZoneThatChangesMoreOftenThanAnyTheNextSevenChangesAreKnown) {
    constexpr std::time_t kMonth = 30 * 86400;
    const test_support::TempDir dir;
    const Zone zone(dir.Write("zone", ChangingZone(kWinter + kMonth, kMonth, 12).Data()).c_str());

    zone_offsets::learn(kWinter, 0, true);

    EXPECT_EQ(zone_offsets::at(kWinter), 0);
    for (int change = 1; change <= 7; ++change) {
        const std::time_t at = kWinter + change * kMonth;
        EXPECT_EQ(zone_offsets::at(at - 1), change % 2 == 0 ? kHour : 0) << "before change " << change;
        EXPECT_EQ(zone_offsets::at(at), change % 2 == 1 ? kHour : 0) << "after change " << change;
    }
}

}  // namespace
