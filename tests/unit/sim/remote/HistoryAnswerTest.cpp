#include "sim/remote/HistoryAnswer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/sim/remote/Messages.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace vexo_sim::remote {
namespace {

wire::Packet PartOf(std::uint64_t first, std::uint32_t packets, std::uint32_t flags = wire::kHistory) {
    wire::Head head;
    head.epoch = 0xA;
    head.first = first;
    head.flags = flags;
    return wire::MessageOf(head, packets);
}

wire::Packet EndOf(std::uint32_t messages) {
    wire::HistoryEnd end;
    end.head.epoch = 0xA;
    end.head.first = 100;
    end.cursor = 7;
    end.messages = messages;
    return wire::encodeHistoryEnd(end);
}

bool Take(HistoryAnswer& answer, const wire::Packet& bytes) { return answer.take(bytes.data(), bytes.size()); }

}  // namespace

TEST(HistoryAnswerTest, IsWholeWhenItsEndCountsAllMessages) {
    const wire::Packet first = PartOf(0, 10);
    const wire::Packet second = PartOf(10, 5);
    HistoryAnswer answer;
    EXPECT_FALSE(Take(answer, first));
    EXPECT_FALSE(Take(answer, second));
    EXPECT_FALSE(answer.isWhole());
    EXPECT_TRUE(Take(answer, EndOf(2)));
    EXPECT_TRUE(answer.isWhole());
    EXPECT_THAT(answer.messages(), ElementsAre(first, second));
    EXPECT_EQ(answer.end().cursor, 7U);
    EXPECT_EQ(answer.end().head.first, 100U);
}

TEST(HistoryAnswerTest, IsNotWholeWhenAMessageWasLostOrIsTooMuch) {
    for (const std::uint32_t counted : {0U, 2U, ~0U}) {
        HistoryAnswer answer;
        Take(answer, PartOf(0, 10));
        EXPECT_TRUE(Take(answer, EndOf(counted))) << counted;
        EXPECT_FALSE(answer.isWhole()) << counted;
    }
}

TEST(HistoryAnswerTest, LeavesOutWhatIsNotOfAnArchive) {
    HistoryAnswer answer;
    EXPECT_FALSE(Take(answer, PartOf(0, 10, 0)));
    EXPECT_FALSE(Take(answer, PartOf(0, 0, wire::kHeartbeat)));
    EXPECT_FALSE(answer.take("hello", 5));
    EXPECT_FALSE(answer.take(nullptr, 0));
    wire::Packet damaged = PartOf(0, 10);
    damaged.pop_back();
    EXPECT_FALSE(Take(answer, damaged));
    EXPECT_TRUE(Take(answer, EndOf(0)));
    EXPECT_TRUE(answer.isWhole());
    EXPECT_THAT(answer.messages(), IsEmpty());
}

TEST(HistoryAnswerTest, OneWithoutAnEndIsGivenUpBeforeItFillsTheMemory) {
    const wire::Packet part = PartOf(0, 10);
    HistoryAnswer answer(3 * part.size());
    for (int n = 0; n < 3; ++n) EXPECT_FALSE(Take(answer, part));
    EXPECT_TRUE(Take(answer, part));
    EXPECT_FALSE(answer.isWhole());
}

}  // namespace vexo_sim::remote
