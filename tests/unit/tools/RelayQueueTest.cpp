#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tools/relay/Sender.h"

using relay::Batcher;
using relay::PacketQueue;
using relay::QueuedPacket;
using relay::Sender;
using relay::StreamCounts;
using ::testing::ElementsAre;

namespace wire = vexo_sim::wire;

namespace {

constexpr std::size_t kBytes = 4096;
constexpr std::size_t kRoom = kBytes / 32;  // packets of 10 bytes

void Put(PacketQueue& queue, std::size_t packets = 1) {
    for (std::size_t n = 0; n < packets; ++n) queue.put(tap::clock_ticks::timeOfDay(), "0123456789", 10);
}

std::vector<std::uint64_t> TakeAll(PacketQueue& queue) {
    std::vector<std::uint64_t> numbers;
    QueuedPacket packet;
    for (const std::uint64_t limit = queue.published(); queue.front(limit, packet); queue.pop())
        numbers.push_back(packet.number);
    return numbers;
}

/// Adds up what a subscriber would have.
class Received : public relay::Network {
public:
    bool publish(const std::string&, const void* data, std::size_t size) override {
        const wire::Message message = wire::decode(data, size);
        EXPECT_EQ(message.problem, wire::Problem::kNone);
        EXPECT_GE(message.head.first, next);
        missing += message.head.first - next;
        packets += message.head.packets;
        next = message.head.first + message.head.packets;
        last = message.head;
        return true;
    }

    std::uint64_t next = 0, packets = 0, missing = 0;
    wire::Head last;
};

class RelaySender : public ::testing::Test {
protected:
    RelaySender() { tap::clock_ticks::g_counterIsEven = false; }

    PacketQueue queue{kBytes};
    Received network;
    Batcher batcher{network, "subject", {}, {65536, 100'000}};
    std::optional<StreamCounts> counts = StreamCounts{};
    Sender sender{queue, batcher, [this] { return counts; }};
};

}  // namespace

TEST(RelayQueue, PacketsThatDoNotFitKeepTheirNumbers) {
    PacketQueue queue(kBytes);
    Put(queue, kRoom + 5);
    std::vector<std::uint64_t> numbers = TakeAll(queue);
    EXPECT_EQ(numbers.size(), kRoom);
    EXPECT_EQ(numbers.back(), kRoom - 1);
    Put(queue);
    EXPECT_THAT(TakeAll(queue), ElementsAre(kRoom + 5));
    EXPECT_EQ(queue.delivered(), kRoom + 6);
}

TEST(RelayQueue, AnEmptyQueueIsSettledUpToTheLastPacketThatCame) {
    PacketQueue queue(kBytes);
    Put(queue, kRoom + 5);
    EXPECT_EQ(queue.settled(), 0U);
    TakeAll(queue);
    EXPECT_EQ(queue.settled(), kRoom + 5);
    queue.lose();
    EXPECT_EQ(queue.settled(), kRoom + 6);
    Put(queue);
    EXPECT_THAT(TakeAll(queue), ElementsAre(kRoom + 6));
}

TEST(RelayQueue, NumbersGoOnBehindFourBillionPackets) {
    constexpr std::uint64_t kLast = 0xFFFFFFFF;
    PacketQueue queue(kBytes, kLast);
    Put(queue, 2);
    EXPECT_THAT(TakeAll(queue), ElementsAre(kLast, kLast + 1));
}

TEST(RelayQueue, EachPacketIsTakenOrMissingWhenTwoThreadsAreAtWork) {
    PacketQueue queue(kBytes);
    constexpr std::uint64_t kPackets = 200'000;
    std::thread poller([&] { Put(queue, kPackets); });
    std::uint64_t taken = 0, missing = 0, next = 0;
    QueuedPacket packet;
    while (next < kPackets) {
        for (const std::uint64_t limit = queue.published(); queue.front(limit, packet); queue.pop()) {
            ASSERT_GE(packet.number, next);
            ASSERT_EQ(std::memcmp(packet.data, "0123456789", 10), 0);
            missing += packet.number - next;
            next = packet.number + 1;
            ++taken;
        }
        const std::uint64_t settled = queue.settled();
        ASSERT_GE(settled, next);
        missing += settled - next;
        next = settled;
    }
    poller.join();
    EXPECT_EQ(taken + missing, kPackets);
}

TEST_F(RelaySender, AccountsForEveryPacketOfAQueueThatOverflows) {
    for (int round = 0; round < 100; ++round) {
        Put(queue, kRoom + 7);
        sender.step();
    }
    sender.finish([] { return false; });
    EXPECT_EQ(network.packets, 100 * kRoom);
    EXPECT_EQ(network.missing, 700U);
    EXPECT_EQ(network.last.counts.lostByRelay, 700U);
    EXPECT_EQ(network.last.counts.delivered, 100 * (kRoom + 7));
    EXPECT_EQ(network.last.flags, wire::kHeartbeat);
}

TEST_F(RelaySender, WhatIsLeftWhenTheTimeIsOverCountsAsLost) {
    Put(queue, 10);
    sender.finish([] { return true; });
    EXPECT_EQ(network.packets, 0U);
    EXPECT_EQ(network.missing, 10U);
    EXPECT_EQ(network.last.counts.lostByRelay, 10U);
}

TEST_F(RelaySender, TheLastMessageHasTheCardsLastCounts) {
    counts = StreamCounts{1, 2, 3};
    sender.finish([] { return false; });
    EXPECT_EQ(network.last.counts.lostByRing, 1U);
    EXPECT_EQ(network.last.counts.fifoErrors, 2U);
    EXPECT_EQ(network.last.counts.streamErrors, 3U);
    EXPECT_FALSE(sender.isCardSilent());
    counts.reset();
    sender.finish([] { return false; });
    EXPECT_TRUE(sender.isCardSilent());
    EXPECT_EQ(network.last.counts.lostByRing, 1U);
}
