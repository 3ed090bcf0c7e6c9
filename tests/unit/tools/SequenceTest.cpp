// Gaps in the numbers of packets, by layouts.

#include "tools/data/Sequence.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TempDir.h"
#include "tests/unit/tools/NumberedSample.h"

using namespace vexo::data;
using namespace numbered;

namespace {

class Sequence : public ::testing::Test {
protected:
    void Use(const std::vector<std::string>& texts) {
        std::vector<std::string> names;
        for (const std::string& text : texts) {
            names.push_back(text == kSimulated ? text : dir.Write(std::to_string(names.size()) + ".ini", text));
        }
        layouts = std::make_unique<Layouts>(names);
        counter = SequenceCounter(layouts.get());
    }
    void Take(const std::string& packet) {
        counter.take(counts, reinterpret_cast<const unsigned char*>(packet.data()), packet.size());
    }
    void Take(std::uint32_t type, std::initializer_list<std::uint16_t> numbers) {
        for (const std::uint16_t number : numbers) Take(OfOne(type, number));
    }

    test_support::TempDir dir;
    std::unique_ptr<Layouts> layouts;
    SequenceCounter counter;
    vexo_stats::Stream counts{};
};

}  // namespace

TEST_F(Sequence, TheFirstNumberIsTheBaseWhateverItIs) {
    Use({kOfStream});
    Take(17, {41000, 41001});
    EXPECT_EQ(counts.sequenceKnown, 1U);
    EXPECT_EQ(counts.sequenceGaps, 0U);
    EXPECT_EQ(counts.sequenceRestarts, 0U);
    counter.restart(layouts.get());
    Take(17, {0, 1, 2});
    EXPECT_EQ(counts.sequenceLost + counts.sequenceLate + counts.sequenceRestarts, 0U);
}

TEST_F(Sequence, NumbersCountThroughAllTypesOfTheStreamAndWrapAround) {
    Use({kOfStream});
    Take(17, {65533});
    Take(18, {65534});
    Take(17, {65535});
    Take(18, {0});
    EXPECT_EQ(counts.sequenceGaps, 0U);
    Take(17, {5});  // 1 to 4
    Take(18, {7});  // 6
    Take(18, {7});
    EXPECT_EQ(counts.sequenceGaps, 2U);
    EXPECT_EQ(counts.sequenceLost, 5U);
    EXPECT_EQ(counts.sequenceLate, 1U);
    Take(18, {40000});
    EXPECT_EQ(counts.sequenceRestarts, 1U);
}

TEST_F(Sequence, NumbersOfEachTypeCountByThemselvesIfTheLayoutSaysSo) {
    std::string text = kOfStream;
    text.insert(text.find("[type 17]"), "sequence_scope = type\n");
    Use({text});
    Take(17, {10, 11});
    Take(18, {500, 501});
    Take(17, {12});
    EXPECT_EQ(counts.sequenceGaps, 0U);
    Take(18, {505});
    Take(17, {14});
    EXPECT_EQ(counts.sequenceGaps, 2U);
    EXPECT_EQ(counts.sequenceLost, 4U);
}

TEST_F(Sequence, PacketsThatTheLayoutDoesNotDescribeHaveNoNumber) {
    Use({kOfStream});
    Take(Head(2) + "contract map");
    Take(17, {10});
    Take(Head(2) + "contract map");
    Take(Head(19) + std::string(8, 'x'));
    Take(Head(17) + std::string(9, 'x'));
    Take(Head(0xFFFFFFFF) + std::string(8, 'x'));
    Take("");
    Take(17, {11});
    EXPECT_EQ(counts.sequenceGaps + counts.sequenceLate + counts.sequenceRestarts, 0U);
    EXPECT_EQ(counts.sequenceKnown, 1U);
}

TEST_F(Sequence, WithoutALayoutThatDescribesTheQuotesNothingIsCounted) {
    Use({kOfStream});
    for (std::uint16_t n = 0; n < 200; n = static_cast<std::uint16_t>(n + 2)) Take(OfOne(17, n, 8));
    EXPECT_TRUE(counter.isDecided());
    EXPECT_EQ(counts.sequenceKnown, 0U);
    EXPECT_EQ(counts.sequenceGaps, 0U);
    counter = SequenceCounter(nullptr);
    Take(17, {1, 5});
    EXPECT_EQ(counts.sequenceKnown, 0U);
    EXPECT_TRUE(counter.isDecided());
}

TEST_F(Sequence, TheSimulatedCardNumbersAllPacketsInTheirHead) {
    Use({kSimulated});
    Take(Simulated(2, 7));
    EXPECT_EQ(counts.sequenceKnown, 1U);
    Take(Simulated(2, 9));
    Take(Simulated(17, 12));
    EXPECT_TRUE(counter.isDecided());
    Take(Simulated(17, 13).substr(0, 8));  // too short to show its number
    Take(Simulated(2, 14));
    EXPECT_EQ(counts.sequenceGaps, 2U);
    EXPECT_EQ(counts.sequenceLost, 3U);
}

TEST_F(Sequence, AHeadThatLooksKnownIsForgottenWhenTheQuotesAreAnothers) {
    Use({kSimulated, kOfStream});
    Take(Simulated(2, 7));
    Take(Simulated(2, 9));
    EXPECT_EQ(counts.sequenceLost, 1U);
    Take(17, {100});
    EXPECT_EQ(counts.sequenceLost, 0U);
    Take(17, {102});
    EXPECT_EQ(counts.sequenceLost, 1U);
}

// A program that starts twice gets contract maps twice.
TEST_F(Sequence, ForgottenHeadsLeaveWhatAnEarlierOpeningCounted) {
    Use({kSimulated, kOfStream});
    Take(17, {10, 15, 14, 40000});
    counter.restart(layouts.get());
    Take(Simulated(2, 7));
    EXPECT_EQ(counts.sequenceLost, 4U);
    for (const std::uint32_t number : {9U, 8U, 5'000'000U}) Take(Simulated(2, number));
    EXPECT_EQ(counts.sequenceLost, 5U);
    Take(17, {100});
    EXPECT_EQ(counts.sequenceGaps, 1U);
    EXPECT_EQ(counts.sequenceLost, 4U);
    EXPECT_EQ(counts.sequenceLate, 1U);
    EXPECT_EQ(counts.sequenceRestarts, 1U);
    Take(17, {102});
    EXPECT_EQ(counts.sequenceLost, 5U);
}

TEST_F(Sequence, HeadsAreForgottenTooWhenTheQuotesHaveNoNumbers) {
    std::string text = kOfStream;
    text.erase(text.find("sequence_field"), std::string("sequence_field = seq\n").size());
    Use({kSimulated, text});
    Take(Simulated(2, 7));
    Take(Simulated(2, 9));
    Take(17, {1});
    EXPECT_EQ(counts.sequenceKnown, 0U);
    EXPECT_EQ(counts.sequenceLost, 0U);
    EXPECT_EQ(counter.numbering(), nullptr);
}

TEST_F(Sequence, AFewDamagedQuotesAtTheStartDoNotDecide) {
    Use({kOfStream});
    for (int n = 0; n < 20; ++n) Take(OfOne(17, 1, 99));
    EXPECT_FALSE(counter.isDecided());
    Take(17, {5, 7});
    EXPECT_TRUE(counter.isDecided());
    EXPECT_EQ(counts.sequenceLost, 1U);
}

// What a fast path relies on.
TEST_F(Sequence, AnExpectedNumberMayBeRaisedFromOutside) {
    Use({kOfStream});
    Take(17, {10});
    ASSERT_EQ(counter.expected.sizes[17], 20U);
    EXPECT_EQ(counter.expected.at[17], 14U);
    EXPECT_EQ(counter.expected.sizes[18], 0U);
    EXPECT_EQ(counter.expected.next[0], 11U);
    ++counter.expected.next[0];
    Take(18, {12});
    EXPECT_EQ(counts.sequenceGaps, 0U);
    counter.restart(layouts.get());
    EXPECT_EQ(counter.expected.sizes[17], 0U);
}
