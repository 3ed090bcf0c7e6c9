#include "sim/remote/Receiver.h"

#include "sim/card/PacketFaults.h"
#include "tests/unit/sim/card/CardFixture.h"
#include "tests/unit/sim/remote/Messages.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace vexo_sim::remote {
namespace {

constexpr std::uint32_t kChannel = 3;
constexpr std::uint64_t kSecond = 1'000'000'000;
constexpr std::uint64_t kFirstRun = 0xA;
constexpr std::uint64_t kSecondRun = 0xB;

class ReceiverTest : public CardTest {
protected:
    void SetUp() override {
        CardConfig config;
        config.instruments = InstrumentChoice::kNone;
        config.ringBytes = kMinRingBytes * 4;
        powerOn(config);
        card.pauseFeed(true);
        card.openUp(kChannel);
        receiver.restart();
    }

    wire::Head head(std::uint64_t epoch, std::uint64_t first) const {
        wire::Head made;
        made.epoch = epoch;
        made.first = first;
        made.mtu = 4096;
        made.counts = counts;
        return made;
    }
    Notice receive(std::uint64_t epoch, std::uint64_t first, std::uint32_t packets) {
        return receive(wire::MessageOf(head(epoch, first), packets));
    }
    Notice receive(const Bytes& message) {
        m_message = message;  // until nothing of it is held back
        return receiver.receive(card, m_message.data(), m_message.size(), nowNs);
    }
    void greet(std::uint64_t epoch, std::uint64_t next) { receiver.greet(head(epoch, next)); }

    /// The numbers of the packets in the stream. Each packet must be whole.
    std::vector<std::uint64_t> numbers() {
        std::vector<std::uint64_t> found;
        for (const Bytes& packet : take(kChannel)) {
            found.push_back(readAs<std::uint64_t>(packet, 0));
            EXPECT_EQ(packet, wire::PacketOf(found.back()));
        }
        return found;
    }
    const UpStreamState& stream() const { return card.state().up[kChannel]; }
    std::uint32_t lost() const { return stream().backPressure; }

    Receiver receiver{kChannel};
    wire::Counts counts;
    std::uint64_t nowNs = 1000 * kSecond;

private:
    Bytes m_message;
};

TEST_F(ReceiverTest, PacketsReachTheStreamInOrder) {
    receive(kFirstRun, 0, 2);
    receive(kFirstRun, 2, 1);
    EXPECT_THAT(numbers(), ElementsAre(0, 1, 2));
    EXPECT_EQ(stream().packets, 3U);
    EXPECT_EQ(lost(), 0U);
}

TEST_F(ReceiverTest, WhatARelaySentBeforeTheFirstMessageIsNotLost) {
    counts.lostByRing = 50;
    counts.fifoErrors = 6;
    receive(kFirstRun, 1000, 1);
    EXPECT_EQ(lost(), 0U);
    EXPECT_EQ(stream().fifoErrors, 0U);
}

TEST_F(ReceiverTest, AGapInTheNumbersIsBackPressure) {
    receive(kFirstRun, 0, 2);
    receive(kFirstRun, 5, 1);
    EXPECT_THAT(numbers(), ElementsAre(0, 1, 5));
    EXPECT_EQ(lost(), 3U);
    EXPECT_EQ(stream().packets, 3U);
}

TEST_F(ReceiverTest, AHeartbeatShowsWhatWasLostBeforeIt) {
    receive(kFirstRun, 0, 2);
    receive(kFirstRun, 12, 0);
    EXPECT_EQ(lost(), 10U);
}

TEST_F(ReceiverTest, APacketThatComesTwiceIsDeliveredOnce) {
    receive(kFirstRun, 0, 3);
    receive(kFirstRun, 0, 3);
    receive(kFirstRun, 2, 2);
    EXPECT_THAT(numbers(), ElementsAre(0, 1, 2, 3));
    EXPECT_EQ(lost(), 0U);
}

TEST_F(ReceiverTest, APacketThatWasCountedAsLostDoesNotComeLater) {
    receive(kFirstRun, 0, 1);
    receive(kFirstRun, 2, 1);
    receive(kFirstRun, 1, 1);
    EXPECT_THAT(numbers(), ElementsAre(0, 2));
    EXPECT_EQ(lost(), 1U);
}

TEST_F(ReceiverTest, TheCardsOwnLossesAndErrorsAreCountedFromTheOpening) {
    counts = {100, 10, 0, 0, 1};
    greet(kFirstRun, 1000);
    counts = {107, 12, 0, 0, 4};
    receive(kFirstRun, 1000, 1);
    EXPECT_EQ(lost(), 7U);
    EXPECT_EQ(stream().fifoErrors, 2U);
    EXPECT_EQ(stream().errors, 3U);
    receive(kFirstRun, 1001, 1);
    EXPECT_EQ(lost(), 7U) << "the same counts again";
}

TEST_F(ReceiverTest, WhatIsMissingBetweenTheHelloAndTheFirstMessageIsLost) {
    greet(kFirstRun, 1000);
    receive(kFirstRun, 1004, 1);
    EXPECT_EQ(lost(), 4U);
}

TEST_F(ReceiverTest, PacketsThatWereOnTheirWayAtTheHelloAreTaken) {
    greet(kFirstRun, 1000);
    receive(kFirstRun, 998, 1);
    receive(kFirstRun, 999, 2);
    EXPECT_THAT(numbers(), ElementsAre(998, 999, 1000));
    EXPECT_EQ(lost(), 0U);
}

TEST_F(ReceiverTest, AHelloAfterTheFirstMessageChangesNothing) {
    receive(kFirstRun, 10, 1);
    greet(kFirstRun, 1000);
    receive(kFirstRun, 11, 1);
    EXPECT_THAT(numbers(), ElementsAre(10, 11));
    EXPECT_EQ(lost(), 0U);
}

TEST_F(ReceiverTest, ARelayThatStartsAnewIsAGapWithACount) {
    counts.delivered = 14;  // it had four more packets on their way when it ended
    receive(kFirstRun, 9, 1);
    counts = {};
    counts.lostByRing = 5;
    const Notice notice = receive(kSecondRun, 2, 1);
    EXPECT_EQ(notice.kind, Notice::kRestarted);
    EXPECT_EQ(notice.lost, 4U + 2U);
    EXPECT_THAT(numbers(), ElementsAre(9, 2));
    EXPECT_EQ(lost(), 4U + 2U + 5U);
    EXPECT_EQ(receive(kSecondRun, 3, 1).kind, Notice::kNothing);
    EXPECT_EQ(lost(), 11U);
}

TEST_F(ReceiverTest, ASecondRelayOfTheSameChannelIsIgnoredAndToldOfOnce) {
    receive(kFirstRun, 0, 1);
    receive(kSecondRun, 0, 1);
    EXPECT_EQ(receive(kFirstRun, 1, 1).kind, Notice::kSecondRelay);
    EXPECT_EQ(receive(kFirstRun, 2, 1).kind, Notice::kNothing);
    EXPECT_EQ(receiver.ignored(), 2U);
    receive(kSecondRun, 1, 1);
    EXPECT_THAT(numbers(), ElementsAre(0, 0, 1));
}

TEST_F(ReceiverTest, OfTwoRelaysThatRunAtTheOpeningNoEarlierPacketIsLost) {
    counts.delivered = 7;
    greet(kSecondRun, 3);
    counts.delivered = 5'000'001;
    EXPECT_EQ(receive(kFirstRun, 5'000'000, 1).kind, Notice::kNothing);
    EXPECT_EQ(receive(kSecondRun, 3, 1).kind, Notice::kSecondRelay);
    EXPECT_THAT(numbers(), ElementsAre(5'000'000));
    EXPECT_EQ(lost(), 0U);
}

TEST_F(ReceiverTest, TheSameWhenTheOtherOneOnlyHadAHeartbeat) {
    greet(kSecondRun, 3);
    receive(kSecondRun, 3, 0);
    nowNs += kSecond / 10;
    EXPECT_EQ(receive(kFirstRun, 5'000'000, 1).kind, Notice::kNothing);
    EXPECT_EQ(lost(), 0U);
}

TEST_F(ReceiverTest, ARelayThatWasIdleForLongAndStartsAnewIsAGapWithACount) {
    receive(kFirstRun, 0, 0);
    nowNs += kSecond;
    receive(kFirstRun, 0, 0);
    const Notice notice = receive(kSecondRun, 2, 1);
    EXPECT_EQ(notice.kind, Notice::kRestarted);
    EXPECT_EQ(notice.lost, 2U);
    EXPECT_EQ(lost(), 2U);
}

TEST_F(ReceiverTest, ARunOfWhichTheArchiveHasOnlyLossesIsNoSecondRelay) {
    wire::Head losses = head(kFirstRun, 10);
    losses.flags = wire::kHistory;
    losses.counts.delivered = 14;
    receive(wire::MessageOf(losses, 0));
    wire::Head next = head(kSecondRun, 2);
    next.flags = wire::kHistory;
    const Notice notice = receive(wire::MessageOf(next, 1));
    EXPECT_EQ(notice.kind, Notice::kRestarted);
    EXPECT_EQ(notice.lost, 4U + 2U);
}

TEST_F(ReceiverTest, AnEarlierRelayGoesOnWhenTheLaterOneIsSilent) {
    receive(kFirstRun, 0, 1);
    receive(kSecondRun, 0, 1);
    nowNs += kSecond;
    EXPECT_EQ(receive(kFirstRun, 4, 1).kind, Notice::kNothing);
    EXPECT_THAT(numbers(), ElementsAre(0, 0, 4));
    EXPECT_EQ(lost(), 3U);
}

TEST_F(ReceiverTest, ManyRunsOfARelayAreAllTaken) {
    for (std::uint64_t run = 1; run <= 40; ++run) receive(run, 0, 1);
    EXPECT_EQ(numbers().size(), 40U);
    EXPECT_EQ(lost(), 0U);
}

TEST_F(ReceiverTest, AFullStreamHoldsTheRestOfAMessageBack) {
    const std::uint32_t packets = 400;  // of 8 to 107 bytes, for a ring of 16 KB
    receive(kFirstRun, 0, packets);
    ASSERT_TRUE(receiver.isHoldingBack());
    std::vector<std::uint64_t> all = numbers();
    while (receiver.isHoldingBack()) {
        receiver.resume(card);
        const std::vector<std::uint64_t> more = numbers();
        ASSERT_THAT(more, Not(IsEmpty()));
        all.insert(all.end(), more.begin(), more.end());
    }
    ASSERT_EQ(all.size(), packets);
    for (std::uint32_t n = 0; n < packets; ++n) EXPECT_EQ(all[n], n);
    EXPECT_EQ(lost(), 0U);
    EXPECT_EQ(stream().packets, packets);
}

TEST_F(ReceiverTest, APacketLargerThanAStreamTakesIsCountedAndTheOthersGoOn) {
    wire::MessageWriter writer(1 << 20);
    const Bytes large(5000);
    const Bytes small = wire::PacketOf(1);
    writer.add(0, large.data(), static_cast<std::uint32_t>(large.size()));
    writer.add(0, small.data(), static_cast<std::uint32_t>(small.size()));
    const wire::Bytes message = writer.finish(head(kFirstRun, 0));
    receive({message.data, message.data + message.size});
    EXPECT_THAT(numbers(), ElementsAre(1));
    EXPECT_EQ(lost(), 1U);
}

TEST_F(ReceiverTest, AStoppedCardDeliversNothing) {
    card.stop(true);
    receive(kFirstRun, 0, 2);
    EXPECT_THAT(numbers(), IsEmpty());
    EXPECT_EQ(lost(), 2U);
}

TEST_F(ReceiverTest, PacketFaultsOfTheModelStrikeTheRelaysPackets) {
    PacketFault fault;
    fault.channels = 1U << kChannel;
    fault.every = 2;
    ASSERT_GE(packet_faults::add(card.state(), fault), 0);
    receive(kFirstRun, 0, 4);
    EXPECT_THAT(numbers(), ElementsAre(1, 3));
}

TEST_F(ReceiverTest, AStrangersMessagesAreIgnoredAndToldOfOnce) {
    const Bytes whole = wire::MessageOf(head(kFirstRun, 0), 2);
    bool isTold = false;
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const Notice notice = receive(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
        EXPECT_EQ(notice.kind, isTold ? Notice::kNothing : Notice::kNotARelays) << size;
        isTold = true;
    }
    EXPECT_EQ(receiver.ignored(), whole.size());
    EXPECT_THAT(numbers(), IsEmpty());
    receive(whole);
    EXPECT_THAT(numbers(), ElementsAre(0, 1));
}

TEST_F(ReceiverTest, PacketsOfOneContractAreNoStream) {
    wire::Head made = head(kFirstRun, 0);
    made.flags = wire::kSelection;
    EXPECT_EQ(receive(wire::MessageOf(made, 1)).kind, Notice::kNotARelays);
    EXPECT_THAT(numbers(), IsEmpty());
}

TEST_F(ReceiverTest, ARelayOfAnotherVersionIsNamed) {
    Bytes message = wire::MessageOf(head(kFirstRun, 0), 1);
    message[offsetof(wire::HeadBytes, version)] = 9;
    const Notice notice = receive(message);
    EXPECT_EQ(notice.kind, Notice::kOtherVersion);
    EXPECT_EQ(notice.version, 9U);
    EXPECT_EQ(receive(message).kind, Notice::kNothing);
}

TEST_F(ReceiverTest, AStreamThatIsOpenedAgainCountsAfresh) {
    receive(kFirstRun, 0, 1);
    receive(kFirstRun, 10, 1);
    card.closeUp(kChannel);
    card.openUp(kChannel);
    receiver.restart();
    receive(kFirstRun, 500, 1);
    EXPECT_THAT(numbers(), ElementsAre(500));
    EXPECT_EQ(lost(), 0U);
}

TEST_F(ReceiverTest, TheMtuIsTheRelays) {
    wire::Head made = head(kFirstRun, 0);
    made.mtu = 9000;
    receive(wire::MessageOf(made, 0));
    EXPECT_EQ(card.state().config.mtu, 9000U);
}

}  // namespace
}  // namespace vexo_sim::remote
