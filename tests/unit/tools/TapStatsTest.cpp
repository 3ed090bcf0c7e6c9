// What the tap counts of a stream that it records, with the test as polling thread, writer's thread and card.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TempDir.h"
#include "tools/tap/StreamStats.h"
#include "tools/tap/TapClock.h"

using tap::PacketRing;
using tap::StreamStats;

namespace {

constexpr std::uint64_t kRingLasts = 1000;  // on the page's clock: 512 ticks and more are an absence

class TapStats : public ::testing::Test {
protected:
    TapStats() {
        tap::clock_ticks::g_counterIsEven = true;
        counts.longCallback = kRingLasts;
        vexo_stats::describe(counts, 0, 3);
        Open(0);
    }
    ~TapStats() override { tap::clock_ticks::g_counterIsEven = false; }

    // Of a card that counts since long ago.
    static stats::CardReading Reading(std::uint32_t backPressure) { return {1'000'000, backPressure, 0, 0}; }
    // A packet of the simulated card, at the @p polls-th poll since the last one.
    void Deliver(std::uint64_t ticks, std::uint32_t number, int polls = 1) {
        for (int n = 0; n < polls; ++n) presence.poll();
        const std::uint32_t packet[4] = {2, sizeof packet, number, 0};
        if (ring.put(ticks, packet, sizeof packet, 0, presence.atOnce())) {
            presence.packet();
        } else {
            presence.begin();
        }
    }
    void Drain() {
        PacketRing::Record record;
        for (const std::uint64_t limit = ring.published(); ring.front(limit, record); ring.pop(record)) {
            stream.take(record);
        }
    }
    void Open(std::uint32_t backPressure) {
        presence.begin();
        const bool isMarked = ring.putOpening(0);
        stream.noteOpening(Reading(backPressure), ring.lost(), isMarked);
    }
    // Drains the ring, and asks the card while the program polls.
    void Look(std::uint32_t backPressure, StreamStats::When when = StreamStats::When::kOpen) {
        Drain();
        stream.beginLook(presence, ring);
        stream.note(Reading(backPressure), when, ring.lost());
        stream.endLook(stream.takeNoted(), ring.lost(), ring.lost());
    }

    const vexo::data::Layouts layouts{std::vector<std::string>{vexo::data::kSimulated}};
    vexo_stats::Process process{};
    vexo_stats::Stream counts{};
    PacketRing ring{4096};
    tap::Presence presence;
    StreamStats stream{process, counts, &layouts};
};

}  // namespace

TEST_F(TapStats, BackPressureWhileTheProgramPollsIsTheRings) {
    Deliver(1000, 1);
    Deliver(1100, 2);
    presence.poll();
    Look(10);
    EXPECT_EQ(counts.backPressure, 10U);
    EXPECT_EQ(counts.backPressureInCallbacks, 0U);
}

TEST_F(TapStats, BackPressureOfALongAbsenceIsTheApplications) {
    Deliver(1000, 1);
    Deliver(1512, 2);
    presence.poll();
    Look(10);
    EXPECT_EQ(counts.backPressureInCallbacks, 10U);
    Deliver(1600, 3);
    presence.poll();
    Look(15);  // the card may count late
    EXPECT_EQ(counts.backPressureInCallbacks, 15U);
    Deliver(1700, 4);
    presence.poll();
    Look(17);
    EXPECT_EQ(counts.backPressureInCallbacks, 15U);
    EXPECT_EQ(counts.backPressure, 17U);
}

TEST_F(TapStats, ASilenceInWhichTheProgramPollsIsNoAbsence) {
    Deliver(1000, 1);
    Deliver(900'000, 2, 2);
    Deliver(900'100, 3);
    presence.poll();
    Look(10);
    EXPECT_EQ(counts.backPressureInCallbacks, 0U);
}

TEST_F(TapStats, AnAbsenceThatHasNotEndedCounts) {
    Deliver(1000, 1);
    Look(10);  // no poll since
    EXPECT_EQ(counts.backPressureInCallbacks, 10U);
}

TEST_F(TapStats, NobodyWhoTakesNothingFromAFullRingIsThere) {
    Deliver(1000, 1);
    presence.poll();
    Look(0);
    Look(10);
    EXPECT_EQ(counts.backPressureInCallbacks, 10U);
}

TEST_F(TapStats, WhatTheCardCountedBeforeTheStreamWasOpenedIsNobodysLoss) {
    Deliver(1000, 1);
    presence.poll();
    Look(7);
    Look(7, StreamStats::When::kClosed);
    EXPECT_EQ(counts.state, vexo_stats::kClosed);
    Open(500);
    Deliver(2000, 9);
    presence.poll();
    Look(501);
    EXPECT_EQ(counts.backPressure, 8U);
    EXPECT_EQ(counts.state, vexo_stats::kOpen);
    EXPECT_EQ(counts.sequenceLost, 0U) << "nobody listened meanwhile";
    EXPECT_EQ(counts.gaps[vexo_stats::kFirstBucket], 2U);
}

TEST_F(TapStats, ACardThatCountsFromTheOpeningOnHasCountedForTheProgram) {
    vexo_stats::Stream fresh{};
    fresh.longCallback = kRingLasts;
    vexo_stats::describe(fresh, 0, 3);
    StreamStats asked{process, fresh, &layouts};
    asked.noteOpening({70, 12, 17, 0}, 0, false);  // it was asked late
    asked.beginLook(presence, ring);
    asked.note({80, 13, 17, 0}, StreamStats::When::kOpen, 0);
    asked.endLook(asked.takeNoted(), 0, 0);
    EXPECT_EQ(fresh.cardPackets, 80U);
    EXPECT_EQ(fresh.backPressure, 13U);
    EXPECT_EQ(fresh.fifoErrors, 17U);
}

TEST_F(TapStats, PacketsThatTheTapsRingLostAreNotLostBeforeTheCard) {
    std::uint32_t number = 0;
    for (int n = 0; n < 200; ++n) Deliver(1000, ++number);
    const std::uint64_t lost = ring.lost();
    ASSERT_GT(lost, 0U);
    presence.poll();
    Look(0);
    number += 5;  // lost before the card
    Deliver(1100, ++number);
    Deliver(1100, ++number);
    presence.poll();
    Look(0);
    EXPECT_EQ(counts.sequenceLost, lost + 5);
    EXPECT_EQ(counts.lostByTap, lost);
    EXPECT_EQ(counts.lostBeforeCard, 5U);
    EXPECT_EQ(counts.packets[2], 202 - lost);
    EXPECT_EQ(stream.card().beforeCard, 5U);
}

// The last packets that a ring loses leave no gap: none follows them.
TEST_F(TapStats, LossesAtTheEndOfAStreamHideNoneOfTheNext) {
    Deliver(1000, 1);
    presence.poll();
    Look(100, StreamStats::When::kClosed);
    Open(0);
    Deliver(2000, 900);
    Deliver(2001, 904);
    presence.poll();
    Look(0);
    EXPECT_EQ(counts.sequenceLost, 3U);
    EXPECT_EQ(counts.lostBeforeCard, 3U);
    EXPECT_EQ(counts.backPressure, 100U);
}

TEST_F(TapStats, AnOpeningWaitsForItsMarkInTheRing) {
    Deliver(1000, 1);
    Look(0, StreamStats::When::kClosed);
    Deliver(1001, 4);  // of the first opening, still in the ring
    Open(50);
    stream.beginLook(presence, ring);
    const auto noted = stream.takeNoted();
    EXPECT_TRUE(noted.empty());
    stream.endLook(noted, 0, 0);
    Look(50);
    EXPECT_EQ(counts.lostBeforeCard, 2U);
    EXPECT_EQ(counts.backPressure, 0U);
}

TEST_F(TapStats, WithoutAnAnswerOfTheCardItsCountersAreUnknown) {
    vexo_stats::Stream silent{};
    silent.longCallback = kRingLasts;
    vexo_stats::describe(silent, 0, 3);
    StreamStats asked{process, silent, &layouts};
    asked.noteOpening({}, 0, false);
    asked.beginLook(presence, ring);
    asked.note({}, StreamStats::When::kOpen, 0);
    asked.endLook(asked.takeNoted(), 0, 0);
    EXPECT_EQ(asked.card(), capture::CardCounts{});
    EXPECT_EQ(silent.lostByTap, 0U);
}
