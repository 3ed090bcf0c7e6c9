// When a program counts as away from its stream, with the test as the program.

#include <gtest/gtest.h>

#include "tools/stats/Absence.h"

namespace {

constexpr std::uint64_t kLong = 1 << 20;
constexpr std::uint64_t kForAges = std::uint64_t{1} << 50;

class Absences : public ::testing::Test {
protected:
    Absences() { absence.start(counts); }

    // A packet is counted before its callback, a callback when it has returned.
    void BeginCallback(std::uint64_t ago) {
        ++counts.packets[17];
        counts.lastPacket = vexo_stats::startNow() - ago;
    }
    void EndCallback(std::uint64_t length) { ++counts.callbacks[vexo_stats::bucketOf(length)]; }
    void RingLasts(std::uint64_t clock) { counts.longCallback = clock; }
    bool IsAway() { return absence.look(counts); }

    vexo_stats::Stream counts{};
    stats::Absence absence;
};

}  // namespace

TEST_F(Absences, ACallbackThatIsUnderWayForLongerThanTheRingLastsIsOne) {
    RingLasts(kLong);
    BeginCallback(kLong);
    EXPECT_TRUE(IsAway());
}

TEST_F(Absences, ACallbackThatHasJustBegunIsNone) {
    RingLasts(kForAges);
    BeginCallback(0);
    EXPECT_FALSE(IsAway());
}

TEST_F(Absences, ACallbackThatHasEndedCountsByItsLength) {
    RingLasts(kForAges);
    BeginCallback(0);
    EndCallback(kForAges / 2);
    EXPECT_FALSE(IsAway());
    BeginCallback(0);
    EndCallback(kForAges);
    EXPECT_TRUE(IsAway());
    EXPECT_TRUE(IsAway()) << "the card may count late";
    EXPECT_FALSE(IsAway());
}

// Its packet never gets a callback that returned.
TEST_F(Absences, AHandlerThatThrewIsNotUnderWayWhenTheProgramPollsAgain) {
    RingLasts(kLong);
    BeginCallback(kLong);
    EXPECT_TRUE(IsAway());
    ++counts.idlePolls;
    EXPECT_TRUE(IsAway()) << "the card may count late";
    ++counts.idlePolls;
    EXPECT_FALSE(IsAway());
}

TEST_F(Absences, AProgramThatPollsAndFindsNothingIsThere) {
    RingLasts(0);
    ++counts.idlePolls;
    EXPECT_FALSE(IsAway());
    ++counts.failedPolls;
    EXPECT_FALSE(IsAway());
}

TEST_F(Absences, AProgramThatDoesNotPollIsAway) {
    RingLasts(1);
    ++counts.idlePolls;
    EXPECT_FALSE(IsAway());
    EXPECT_TRUE(IsAway());
}
