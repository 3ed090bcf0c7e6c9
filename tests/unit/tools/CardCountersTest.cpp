// Which of the missing packets were lost before the card, with the test as polling thread and as card.

#include "tools/stats/CardCounters.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <utility>

#include "tests/support/TempDir.h"
#include "tests/unit/tools/NumberedSample.h"
#include "tools/data/Sequence.h"

using namespace numbered;

namespace {

class LostBeforeCard : public ::testing::Test {
protected:
    LostBeforeCard() { vexo_stats::describe(counts, 0, 3); }

    // Of a card that counts since long ago.
    static stats::CardReading Reading(std::uint32_t backPressure) { return {1'000'000, backPressure, 0, 0}; }
    void Open(std::uint32_t backPressure) {
        counter.restart(&layouts);
        card.start(counts, Reading(backPressure), counts.sequenceLost);
    }
    void Take(const std::string& packet) {
        counter.take(counts, reinterpret_cast<const unsigned char*>(packet.data()), packet.size());
    }
    std::uint64_t At(std::uint32_t backPressure) {
        card.add(counts, Reading(backPressure), false);
        card.noteLostBeforeCard(counts, counts.sequenceLost);
        return counts.lostBeforeCard;
    }

    test_support::TempDir dir;
    const vexo::data::Layouts layouts{{dir.Write("other.ini", kOfStream), vexo::data::kSimulated}};
    vexo::data::SequenceCounter counter;
    stats::CardCounters card;
    vexo_stats::Stream counts{};
};

TEST(ShortestAbsence, IsThePowerOfTwoFromWhichOnACallbackIsLonger) {
    constexpr std::uint64_t kLongest = std::uint64_t{1} << 62;
    const std::pair<std::uint64_t, std::uint64_t> cases[] = {
        {0, 2},
        {1, 2},
        {2, 2},
        {3, 4},
        {4, 4},
        {5, 8},
        {1000, 1024},
        {kLongest, kLongest},
        {~std::uint64_t{0}, kLongest},
    };
    for (const auto& [lasts, shortest] : cases) EXPECT_EQ(stats::shortestAbsence(lasts), shortest) << lasts;
}

}  // namespace

TEST_F(LostBeforeCard, IsWhatBackPressureDoesNotExplain) {
    Open(50);
    Take(OfOne(17, 100));
    Take(OfOne(17, 110));
    EXPECT_EQ(At(54), 5U);
    EXPECT_EQ(At(60), 5U) << "the card counts before the gap arrives";
    Take(OfOne(17, 117));
    EXPECT_EQ(At(60), 5U);
}

// A program starts twice. Its contract maps look as if they had numbers, until the first quote tells.
TEST_F(LostBeforeCard, NeitherFallsNorExceedsTheGapsWhenASecondStartBeginsWithOtherNumbers) {
    Open(0);
    Take(OfOne(17, 100));
    Take(OfOne(17, 110));
    EXPECT_EQ(At(4), 5U);
    Open(4);
    Take(Simulated(2, 7));
    EXPECT_EQ(At(4), 5U);
    Take(Simulated(2, 11));
    EXPECT_EQ(At(4), 8U);
    Take(OfOne(17, 200));
    EXPECT_EQ(At(4), 5U);
    EXPECT_EQ(counts.sequenceLost, 9U);
    Take(OfOne(17, 206));
    EXPECT_EQ(At(7), 7U);
    EXPECT_EQ(counts.sequenceLost, 14U);
}

// The tap's ring was too full for the mark of the second opening: the numbers go on, the card's counters do not.
TEST_F(LostBeforeCard, DoesNotWrapWhenGapsOfBeforeTheOpeningAreForgotten) {
    Open(0);
    Take(Simulated(2, 7));
    Take(Simulated(2, 11));
    EXPECT_EQ(At(0), 3U);
    card.start(counts, Reading(0), counts.sequenceLost);
    Take(OfOne(17, 200));
    EXPECT_EQ(counts.sequenceLost, 0U);
    EXPECT_EQ(At(0), 0U);
}
