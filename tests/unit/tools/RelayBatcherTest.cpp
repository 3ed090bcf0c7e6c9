#include <enyx-sim/md_payload.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tools/relay/Batcher.h"

using relay::Batcher;
using relay::BatchLimits;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace wire = vexo_sim::wire;

namespace {

constexpr std::uint64_t kMicrosecond = 1000;
constexpr std::uint64_t kBegin = 1'000'000'000'000;
constexpr std::uint64_t kEpoch = 7;

struct SentMessage {
    std::string subject;
    wire::Head head;
    std::vector<std::string> packets;
    std::vector<std::uint64_t> numbers, times;
};

/// Decodes what is published. Takes nothing while it is down.
class ScriptedNetwork : public relay::Network {
public:
    bool publish(const std::string& subject, const void* data, std::size_t size) override {
        if (isDown) return false;
        const wire::Message message = wire::decode(data, size);
        EXPECT_EQ(message.problem, wire::Problem::kNone);
        SentMessage sent{subject, message.head, {}, {}, {}};
        wire::forEachPacket(message, [&](const wire::PacketIn& packet) {
            sent.packets.emplace_back(reinterpret_cast<const char*>(packet.data), packet.size);
            sent.numbers.push_back(packet.number);
            sent.times.push_back(packet.timeNs);
        });
        messages.push_back(sent);
        return true;
    }

    bool isDown = false;
    std::vector<SentMessage> messages;
};

/// A batcher whose clock the test moves. Packets come at the present moment, numbered one after the other.
class RelayBatcher : public ::testing::Test {
protected:
    void Begin(const BatchLimits& limits) {
        batcher = std::make_unique<Batcher>(network, "vexo.local.0.3.stream", relay::StreamFacts{kEpoch, 2048, 0},
                                            limits);
        batcher->sendHeartbeat(now);
        network.messages.clear();
    }
    void Add(const std::string& packet) {
        batcher->add(number++, now, packet.data(), static_cast<std::uint32_t>(packet.size()), now);
    }
    std::vector<std::vector<std::string>> Packets() const {
        std::vector<std::vector<std::string>> all;
        for (const SentMessage& message : network.messages) all.push_back(message.packets);
        return all;
    }
    const wire::Head& LastHead() const { return network.messages.back().head; }

    ScriptedNetwork network;
    std::unique_ptr<Batcher> batcher;
    std::uint64_t now = kBegin;
    std::uint64_t number = 0;
};

}  // namespace

TEST_F(RelayBatcher, PacketsWaitForCompanyUntilTheirTimeIsOver) {
    Begin({65536, 100 * kMicrosecond});
    Add("first");
    now += 60 * kMicrosecond;
    Add("second");
    now += 39 * kMicrosecond;
    batcher->tick(now);
    EXPECT_THAT(network.messages, IsEmpty());
    EXPECT_EQ(batcher->dueIn(now), kMicrosecond);
    now += kMicrosecond;
    batcher->tick(now);
    EXPECT_THAT(Packets(), ElementsAre(ElementsAre("first", "second")));
    EXPECT_EQ(network.messages[0].subject, "vexo.local.0.3.stream");
    EXPECT_THAT(network.messages[0].times, ElementsAre(kBegin, kBegin + 60 * kMicrosecond));
    EXPECT_EQ(LastHead().sentNs, now);
    EXPECT_EQ(LastHead().epoch, kEpoch);
    EXPECT_EQ(LastHead().mtu, 2048U);
}

TEST_F(RelayBatcher, AMessageThatIsFullGoesAtOnce) {
    Begin({wire::kHeadBytes + 2 * wire::footprint(10), 100 * kMicrosecond});
    for (int n = 0; n < 5; ++n) Add("0123456789");
    EXPECT_THAT(Packets(), ElementsAre(SizeIs(2), SizeIs(2)));
    batcher->flush(now);
    EXPECT_THAT(network.messages.back().numbers, ElementsAre(4));
}

TEST_F(RelayBatcher, WithNoTimeEachPacketIsAMessage) {
    Begin({65536, 0});
    Add("first");
    Add("second");
    EXPECT_THAT(Packets(), ElementsAre(ElementsAre("first"), ElementsAre("second")));
}

TEST_F(RelayBatcher, APacketThatIsLongerThanAMessageMayBeGoesAlone) {
    Begin({wire::kHeadBytes + 2 * wire::footprint(10), 100 * kMicrosecond});
    const std::string longOne(wire::kMaxPacketBytes, 'x');
    Add("short");
    Add(longOne);
    Add("short");
    batcher->flush(now);
    EXPECT_THAT(Packets(), ElementsAre(ElementsAre("short"), ElementsAre(longOne), ElementsAre("short")));
}

TEST_F(RelayBatcher, APacketThatNoCardHasIsLostAndCounted) {
    Begin({65536, 100 * kMicrosecond});
    Add("short");
    Add(std::string(wire::kMaxPacketBytes + 1, 'x'));
    Add("short");
    batcher->flush(now);
    EXPECT_THAT(network.messages[1].numbers, ElementsAre(2));
    EXPECT_EQ(LastHead().counts.lostByRelay, 1U);
}

TEST_F(RelayBatcher, AGapEndsAMessageAndTheNextHeadCountsIt) {
    Begin({65536, 100 * kMicrosecond});
    Add("first");
    number += 5;  // the queue was full
    Add("second");
    batcher->flush(now);
    ASSERT_THAT(network.messages, SizeIs(2));
    EXPECT_EQ(network.messages[0].head.first, 0U);
    EXPECT_EQ(network.messages[0].head.counts.lostByRelay, 0U);
    EXPECT_EQ(network.messages[1].head.first, 6U);
    EXPECT_EQ(network.messages[1].head.counts.lostByRelay, 5U);
    EXPECT_EQ(network.messages[1].head.counts.delivered, 7U);
}

TEST_F(RelayBatcher, AGapAtTheEndIsToldByAHeartbeat) {
    Begin({65536, 100 * kMicrosecond});
    Add("first");
    batcher->setDelivered(4);
    batcher->skipTo(4, now);
    now += Batcher::kHeartbeatNs;
    batcher->tick(now);
    EXPECT_EQ(LastHead().first, 4U);
    EXPECT_EQ(LastHead().counts.lostByRelay, 3U);
    EXPECT_EQ(LastHead().counts.delivered, 4U);
}

TEST_F(RelayBatcher, ANetworkThatTakesNothingCostsPacketsThatAreCounted) {
    Begin({65536, 100 * kMicrosecond});
    network.isDown = true;
    for (int n = 0; n < 3; ++n) Add("lost");
    batcher->flush(now);
    network.isDown = false;
    Add("there");
    batcher->flush(now);
    EXPECT_THAT(Packets(), ElementsAre(ElementsAre("there")));
    EXPECT_EQ(LastHead().first, 3U);
    EXPECT_EQ(LastHead().counts.lostByRelay, 3U);
    EXPECT_EQ(batcher->sent().packets, 1U);
    EXPECT_EQ(batcher->sent().messages, 2U);  // with the heartbeat at the begin
}

TEST_F(RelayBatcher, AQuietStreamIsAHeartbeatEachTenthOfASecond) {
    Begin({65536, 100 * kMicrosecond});
    now += Batcher::kHeartbeatNs - 1;
    batcher->tick(now);
    EXPECT_THAT(network.messages, IsEmpty());
    batcher->setStreamCounts(3, 4, 5);
    batcher->tick(++now);
    ASSERT_THAT(network.messages, SizeIs(1));
    EXPECT_EQ(LastHead().flags, wire::kHeartbeat);
    EXPECT_EQ(LastHead().packets, 0U);
    EXPECT_EQ(LastHead().counts.lostByRing, 3U);
    EXPECT_EQ(LastHead().counts.fifoErrors, 4U);
    EXPECT_EQ(LastHead().counts.streamErrors, 5U);
    now += Batcher::kHeartbeatNs / 2;
    Add("a packet instead");
    batcher->flush(now);
    now += Batcher::kHeartbeatNs - 1;
    batcher->tick(now);
    EXPECT_THAT(network.messages, SizeIs(2));
}

TEST_F(RelayBatcher, AClockThatIsSetBackHoldsNothingUp) {
    Begin({65536, 100 * kMicrosecond});
    Add("first");
    now -= 3'600'000'000'000;
    batcher->tick(now);
    EXPECT_THAT(Packets(), ElementsAre(ElementsAre("first")));
    now -= 3'600'000'000'000;
    batcher->tick(now);
    EXPECT_EQ(LastHead().flags, wire::kHeartbeat);
}

namespace {

/// A Level-1 packet of the simulated card.
std::string QuoteOf(const std::string& id, std::uint32_t table = 0) {
    enyx_sim::Level1Quote quote{};
    id.copy(quote.common.id, sizeof quote.common.id);
    quote.common.table = static_cast<std::uint8_t>(table);
    quote.common.level = 1;
    const enyx_sim::PacketHead head{table == 0 ? 17U : 19U, sizeof head + sizeof quote, 1};
    std::string packet(reinterpret_cast<const char*>(&head), sizeof head);
    return packet.append(reinterpret_cast<const char*>(&quote), sizeof quote);
}

}  // namespace

TEST_F(RelayBatcher, PacketsOfAContractGoToItsOwnSubjectTooWithNumbersOfTheirOwn) {
    const vexo::data::Layouts layouts({"simulated"});
    relay::Contracts contracts(layouts, {"local", 0, 3});
    Begin({65536, 100 * kMicrosecond});
    batcher->addContracts(contracts);
    const std::string sugar = QuoteOf("SR701");
    const std::string spread = QuoteOf("SPD SR701&SR705", 1);
    const std::string sameSpread = QuoteOf("SPD-SR701/SR705", 1);
    for (const std::string& packet : {sugar, spread, sugar, QuoteOf("no id"), std::string("unknown"), sameSpread})
        Add(packet);
    batcher->flush(now);
    Add(sugar);
    batcher->flush(now);
    ASSERT_THAT(network.messages, SizeIs(5));
    EXPECT_THAT(network.messages[0].packets, SizeIs(6));
    EXPECT_EQ(network.messages[1].subject, "vexo.local.0.3.q.17.SR701");
    EXPECT_THAT(network.messages[1].packets, ElementsAre(sugar, sugar));
    EXPECT_THAT(network.messages[1].numbers, ElementsAre(0, 1));
    EXPECT_EQ(network.messages[1].head.flags, wire::kSelection);
    EXPECT_EQ(network.messages[2].subject, "vexo.local.0.3.q.19.SPD-SR701-SR705");
    EXPECT_THAT(network.messages[2].packets, ElementsAre(spread, sameSpread));
    EXPECT_EQ(network.messages[4].subject, "vexo.local.0.3.q.17.SR701");
    EXPECT_THAT(network.messages[4].numbers, ElementsAre(2));
    EXPECT_EQ(network.messages[4].head.epoch, kEpoch);
    EXPECT_EQ(contracts.count(), 2U);
}
