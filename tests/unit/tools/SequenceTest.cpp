// Gaps in the numbers of packets, by layouts.

#include "tools/data/Sequence.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TempDir.h"

using namespace vexo::data;

namespace {

// Numbers in the payload: big-endian, 16 bits, in the whole stream.
constexpr char kOfStream[] =
    "[layout]\nname = one\nmeaning = One\nsequence_field = seq\n"
    "[type 17]\nmeaning = A\nsize = 8\nfields = f\nfixed = mark 7\n"
    "[type 18]\nmeaning = B\nsize = 12\nfields = f\nfixed = mark 7\n"
    "[fields f]\nseq = 2, u16be, 1, Number\nmark = 4, u8, 1, Mark\n";

std::string Little(std::uint64_t number, std::size_t bytes) {
    return std::string(reinterpret_cast<const char*>(&number), bytes);
}
std::string Head(std::uint32_t type, std::uint32_t length = 0, std::uint32_t number = 0) {
    return Little(type, 4) + Little(length, 4) + Little(number, 4);
}
std::string OfOne(std::uint32_t type, std::uint16_t number, char mark = 7) {
    std::string payload(type == 17 ? 8 : 12, '\0');
    payload[2] = static_cast<char>(number >> 8);
    payload[3] = static_cast<char>(number & 0xFF);
    payload[4] = mark;
    return Head(type) + payload;
}
// A packet of the simulated card, with no more of a quote than its layout looks at.
std::string Simulated(std::uint32_t type, std::uint32_t number) {
    std::string payload(type == 2 ? 30 : 128, '\0');
    if (type != 2) payload[43] = 1;  // the level
    return Head(type, static_cast<std::uint32_t>(12 + payload.size()), number) + payload;
}

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
    counts.lostBeforeCard = 1;
    Take(17, {100});
    EXPECT_EQ(counts.sequenceLost, 0U);
    EXPECT_EQ(counts.lostBeforeCard, 0U);
    Take(17, {102});
    EXPECT_EQ(counts.sequenceLost, 1U);
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
