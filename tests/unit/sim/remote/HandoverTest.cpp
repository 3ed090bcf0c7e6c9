#include "sim/remote/Handover.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/sim/remote/Messages.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace vexo_sim::remote {
namespace {

constexpr std::uint64_t kFirstRun = 0xA;
constexpr std::uint64_t kSecondRun = 0xB;
constexpr std::size_t kRoom = 1 << 20;

using Next = Handover::Next;
using Taken = Handover::Taken;

class HandoverTest : public ::testing::Test {
protected:
    void keep(std::uint64_t epoch, std::uint64_t first, std::uint32_t packets = 1) {
        wire::Head head;
        head.epoch = epoch;
        head.first = first;
        const wire::Packet bytes = wire::MessageOf(head, packets);
        handover.keep(wire::decode(bytes.data(), bytes.size()), bytes.data(), bytes.size());
    }
    Next judge(Position came, bool isAll, Position archive) {
        wire::HistoryEnd end;
        end.head.epoch = archive.epoch;
        end.head.first = archive.next;
        end.isAll = isAll;
        return handover.judge(came, end);
    }
    /// The first numbers of the messages that wait.
    std::vector<std::uint64_t> rest() {
        std::vector<std::uint64_t> firsts;
        std::vector<unsigned char> message;
        while (handover.take(message) == Taken::kMessage)
            firsts.push_back(wire::decode(message.data(), message.size()).head.first);
        return firsts;
    }

    Handover handover{kRoom};
};

TEST_F(HandoverTest, WithoutALiveMessageTheArchiveIsAskedOn) {
    EXPECT_EQ(judge({kFirstRun, 10}, false, {kFirstRun, 100}), Next::kPull);
    EXPECT_EQ(judge({kFirstRun, 100}, true, {kFirstRun, 100}), Next::kWait);
}

TEST_F(HandoverTest, LiveMessagesFollowWhenTheArchiveHasLedUpToThem) {
    keep(kFirstRun, 50, 10);
    keep(kFirstRun, 60, 10);
    EXPECT_EQ(judge({kFirstRun, 49}, false, {kFirstRun, 70}), Next::kPull);
    EXPECT_EQ(judge({kFirstRun, 55}, false, {kFirstRun, 70}), Next::kLive);
    EXPECT_THAT(rest(), ElementsAre(50, 60));
}

TEST_F(HandoverTest, AnArchiveThatIsBehindTheStreamIsWaitedFor) {
    keep(kFirstRun, 50);
    EXPECT_EQ(judge({kFirstRun, 40}, true, {kFirstRun, 40}), Next::kWait);
    EXPECT_EQ(judge({kFirstRun, 50}, true, {kFirstRun, 50}), Next::kLive);
}

TEST_F(HandoverTest, WhatTheArchiveDoesNotHaveIsNotWaitedFor) {
    keep(kFirstRun, 50);
    EXPECT_EQ(judge({kFirstRun, 40}, false, {kFirstRun, 60}), Next::kPull);
    EXPECT_EQ(judge({kFirstRun, 40}, true, {kFirstRun, 60}), Next::kLive);
}

TEST_F(HandoverTest, AnEmptyPastIsOverAtOnce) {
    keep(kFirstRun, 50);
    wire::HistoryEnd end;
    end.head.epoch = kFirstRun;
    end.head.first = 51;
    end.isAll = true;
    EXPECT_EQ(handover.judge(std::nullopt, end), Next::kLive);
}

TEST_F(HandoverTest, MessagesOfARunThatIsOverGoWhenTheArchiveHasToldAll) {
    keep(kFirstRun, 50);
    keep(kSecondRun, 0);
    EXPECT_EQ(judge({kFirstRun, 40}, false, {kSecondRun, 1}), Next::kPull);
    EXPECT_EQ(judge({kSecondRun, 1}, true, {kSecondRun, 1}), Next::kLive);
    EXPECT_THAT(rest(), ElementsAre(0));
}

TEST_F(HandoverTest, TheOldestMessagesGoWhenThereAreTooManyAndTheArchiveIsAskedForThem) {
    for (std::uint64_t first = 0; first < 100'000; first += 100) keep(kFirstRun, first, 100);
    EXPECT_LE(handover.bytes(), kRoom);
    EXPECT_EQ(judge({kFirstRun, 1000}, false, {kFirstRun, 100'000}), Next::kPull);
    EXPECT_EQ(judge({kFirstRun, 100'000}, true, {kFirstRun, 100'000}), Next::kLive);
    std::vector<unsigned char> message;
    EXPECT_EQ(handover.take(message), Taken::kMessage);
    for (std::uint64_t first = 100'000; first < 200'000; first += 100) keep(kFirstRun, first, 100);
    EXPECT_EQ(handover.take(message), Taken::kGap);
    EXPECT_EQ(judge({kFirstRun, 100'000}, false, {kFirstRun, 200'000}), Next::kPull);
}

TEST_F(HandoverTest, WithoutAnArchiveAGapIsTaken) {
    for (std::uint64_t first = 0; first < 100'000; first += 100) keep(kFirstRun, first, 100);
    handover.giveUp();
    const std::vector<std::uint64_t> firsts = rest();
    ASSERT_FALSE(firsts.empty());
    EXPECT_GT(firsts.front(), 0U);
    EXPECT_EQ(firsts.back(), 99'900U);
    EXPECT_EQ(handover.bytes(), 0U);
}

}  // namespace
}  // namespace vexo_sim::remote
