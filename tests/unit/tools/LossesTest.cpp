// The table of losses by cause.

#include "tools/data/Losses.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace vexo::data;

TEST(Losses, WhatNobodyCountedIsNotKnown) {
    const Losses losses = lossesOf({});
    for (const LossCause cause : kAllLossCauses) EXPECT_FALSE(losses[cause]) << nameOf(cause);
    EXPECT_EQ(lossLine(losses),
              "before the card -, by the card -, by the ring -, by the tap -, by a relay -, by the application -");
}

TEST(Losses, BackPressureIsTheApplicationsOrTheRings) {
    LossCounts counts;
    counts.backPressure = 1030;
    counts.backPressureByApplication = 10;
    const Losses losses = lossesOf(counts);
    EXPECT_EQ(losses[LossCause::kByRing], 1020U);
    EXPECT_EQ(losses[LossCause::kByApplication], 10U);
    EXPECT_FALSE(losses[LossCause::kBeforeCard]);
    EXPECT_EQ(lossLine(losses),
              "before the card -, by the card -, by the ring 1,020, by the tap -, by a relay -, by the application 10");
}

TEST(Losses, AGapThatNoOtherCauseExplainsIsBeforeTheCard) {
    LossCounts counts;
    counts.sequenceLost = 100;
    EXPECT_FALSE(lossesOf(counts)[LossCause::kBeforeCard]) << "the ring may have lost them";
    counts.backPressure = 30;
    EXPECT_EQ(lossesOf(counts)[LossCause::kBeforeCard], 70U);
    counts.byTap = 20;
    counts.byRelay = 10;
    EXPECT_EQ(lossesOf(counts)[LossCause::kBeforeCard], 40U);
    counts.byTap = 200;
    EXPECT_EQ(lossesOf(counts)[LossCause::kBeforeCard], 0U);
    counts.lostBeforeCard = 5;
    EXPECT_EQ(lossesOf(counts)[LossCause::kBeforeCard], 5U) << "what the writer noted holds";
}

TEST(Losses, ErrorsOfTheCardAreKnownIfOneOfTheTwoCountersIs) {
    LossCounts counts;
    counts.fifoErrors = 17;
    EXPECT_EQ(lossesOf(counts)[LossCause::kByCard], 17U);
    counts.errors = 1;
    EXPECT_EQ(lossesOf(counts)[LossCause::kByCard], 18U);
    counts.errors = ~std::uint64_t{0};
    EXPECT_EQ(lossesOf(counts)[LossCause::kByCard], ~std::uint64_t{0});
}

TEST(Losses, ASumKnowsWhatOneOfItsPartsKnows) {
    Losses one;
    one[LossCause::kByTap] = 3;
    Losses other;
    other[LossCause::kByTap] = 4;
    other[LossCause::kByRing] = 0;
    const Losses both = one + other;
    EXPECT_EQ(both[LossCause::kByTap], 7U);
    EXPECT_EQ(both[LossCause::kByRing], 0U);
    EXPECT_FALSE(both[LossCause::kByRelay]);
}

TEST(Losses, KeysAreThoseOfJson) {
    std::string keys;
    for (const LossCause cause : kAllLossCauses) keys += std::string(keyOf(cause)) + " ";
    EXPECT_EQ(keys, "before_card by_card by_ring by_tap by_relay by_application ");
}
