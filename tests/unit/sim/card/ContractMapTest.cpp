#include <set>

#include "tests/unit/sim/card/CardFixture.h"
#include "tests/unit/sim/card/MapDecoder.h"

using namespace vexo_sim;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

class ContractMap : public CardTest {
protected:
    static std::vector<Instrument> rows(std::uint32_t count, const std::string& prefix = "SR") {
        std::vector<Instrument> list;
        for (std::uint32_t n = 0; n < count; ++n)
            list.push_back(makeInstrument(0, n, prefix + std::to_string(100 + n)));
        return list;
    }
    std::vector<MapMessage> takeMessages() {
        std::vector<MapMessage> all;
        for (const Bytes& packet : take(0))
            for (const MapMessage& message : decodeMap(packet)) all.push_back(message);
        return all;
    }
};

}  // namespace

TEST_F(ContractMap, APacketIsLaidOutAsItsReaderExpects) {
    powerOnWith({makeInstrument(0, 0x0102, "SR505"), makeInstrument(1, 0x0304, "SPD-SR505/SR509")});
    card.openUp(0);
    write(card_reg::kMapTransmit, 1);
    advanceMs(0);
    const auto packets = take(0);
    ASSERT_THAT(packets, SizeIs(1));
    const Bytes expected = {2, 0,  0,   0,   48,  0,   0,   0,   1,   0,   0,   0,  // type, length, sequence
                            0, 34,                                                  // message area
                            0, 14, 0,   0,   0,   2,   0,   1,   2,   'S', 'R', '5', '0', '5', 0,   20,  1,
                            3, 4,  'S', 'P', 'D', '-', 'S', 'R', '5', '0', '5', '/', 'S', 'R', '5', '0', '9'};
    EXPECT_EQ(packets[0], expected);
}

TEST_F(ContractMap, OneRoundAnnouncesEveryLearnedInstrumentOnce) {
    powerOn();
    advanceMs(500);
    card.openUp(0);
    write(card_reg::kMapTransmit, 1);
    std::vector<MapMessage> all;
    for (int step = 0; step < 200 && all.size() < learned(); ++step) {
        advanceMs(1);
        for (const MapMessage& message : takeMessages()) all.push_back(message);
    }
    ASSERT_THAT(all, SizeIs(learned()));
    for (std::uint32_t n = 0; n < learned(); ++n) {
        const Instrument& instrument = card.state().parser.instruments[n];
        ASSERT_EQ(all[n], (MapMessage{instrument.table, instrument.row, instrument.id}));
    }
}

TEST_F(ContractMap, RoundsFollowOneAnother) {
    CardConfig config;
    config.mapRoundMs = 100;
    config.mapMessagesPerPacket = 4;
    powerOnWith(rows(10), config);
    card.openUp(0);
    write(card_reg::kMapTransmit, 1);
    std::vector<std::size_t> sizes;
    for (int step = 0; step < 300; ++step) {
        advanceMs(1);
        for (const Bytes& packet : take(0)) sizes.push_back(decodeMap(packet).size());
    }
    EXPECT_THAT(sizes, ElementsAre(4, 4, 2, 4, 4, 2, 4, 4, 2, 4));
}

TEST_F(ContractMap, PacketsAreNumberedAndSayHowLongTheyAre) {
    CardConfig config;
    config.mapMessagesPerPacket = 3;
    powerOnWith(rows(10), config);
    card.openUp(0);
    write(card_reg::kMapTransmit, 1);
    advanceMs(0);
    advanceMs(200);
    const auto packets = take(0);
    ASSERT_THAT(packets, SizeIs(5));
    for (std::uint32_t n = 0; n < packets.size(); ++n) {
        EXPECT_EQ(readAs<enyx_sim::PacketHead>(packets[n], 0).sequence, n + 1);
        EXPECT_EQ(readAs<enyx_sim::PacketHead>(packets[n], 0).length, packets[n].size());
    }
}

TEST_F(ContractMap, NothingIsSentWithoutTheTransmitSwitch) {
    powerOnWith(rows(10));
    card.openUp(0);
    advanceMs(1000);
    EXPECT_THAT(take(0), IsEmpty());
    write(card_reg::kMapTransmit, 1);
    advanceMs(1);
    EXPECT_THAT(take(0), SizeIs(1));
    write(card_reg::kMapTransmit, 0);
    advanceMs(1000);
    EXPECT_THAT(take(0), IsEmpty());
}

TEST_F(ContractMap, OnlyTheValueOneTransmits) {
    powerOnWith(rows(10));
    card.openUp(0);
    write(card_reg::kMapTransmit, 2);
    advanceMs(1000);
    EXPECT_THAT(take(0), IsEmpty());
}

TEST_F(ContractMap, GoesToChannelZeroOnly) {
    powerOnWith(rows(10));
    for (std::uint32_t channel = 1; channel < kStreams; ++channel) card.openUp(channel);
    write(card_reg::kMapTransmit, 1);
    advanceMs(1000);
    for (std::uint32_t channel = 0; channel < kStreams; ++channel) EXPECT_THAT(take(channel), IsEmpty()) << channel;
}

TEST_F(ContractMap, WaitsForAReaderAndStartsWithTheFirstInstrument) {
    CardConfig config;
    config.mapMessagesPerPacket = 4;
    powerOnWith(rows(10), config);
    write(card_reg::kMapTransmit, 1);
    advanceMs(1000);
    card.openUp(0);
    advanceMs(1);
    const auto messages = takeMessages();
    ASSERT_THAT(messages, SizeIs(4));
    EXPECT_EQ(messages[0].id, "SR100");
}

TEST_F(ContractMap, SwitchedOnAgainStartsWithTheFirstInstrument) {
    CardConfig config;
    config.mapMessagesPerPacket = 4;
    powerOnWith(rows(10), config);
    card.openUp(0);
    write(card_reg::kMapTransmit, 1);
    advanceMs(1);
    ASSERT_THAT(takeMessages(), SizeIs(4));
    write(card_reg::kMapTransmit, 0);
    write(card_reg::kMapTransmit, 1);
    advanceMs(1);
    EXPECT_EQ(takeMessages().at(0).id, "SR100");
}

TEST_F(ContractMap, WhileLearningOnlyWhatIsLearnedIsAnnounced) {
    CardConfig config;
    config.learningMs = 1000;
    config.instruments = InstrumentChoice::kNone;
    powerOn(config);
    ASSERT_TRUE(card.replaceInstruments(rows(10).data(), 10));
    card.openUp(0);
    write(card_reg::kMapTransmit, 1);
    advanceMs(300);
    EXPECT_THAT(takeMessages(), SizeIs(3));
    advanceMs(100);
    advanceMs(100);
    EXPECT_THAT(takeMessages(), SizeIs(5));
}

TEST_F(ContractMap, TheMtuBoundsAPacket) {
    CardConfig config;
    config.mtu = 512;
    config.mapMessagesPerPacket = 1000;
    powerOnWith(rows(100, "ABCDEFGHIJKLMNOPQRSTUVWX"), config);  // 5 + 27 bytes a message
    card.openUp(0);
    write(card_reg::kMapTransmit, 1);
    std::set<std::string> ids;
    for (int step = 0; step < 40; ++step) {
        advanceMs(200);
        for (const Bytes& packet : take(0)) {
            EXPECT_LE(packet.size(), 512U);
            for (const MapMessage& message : decodeMap(packet)) ids.insert(message.id);
        }
    }
    EXPECT_THAT(ids, SizeIs(100));
}

TEST_F(ContractMap, APacketIsFilledToTheLastByteOfTheMtu) {
    // 14 bytes before the messages, 17 for the first, 13 for each other
    for (const auto& [mtu, messages] : {std::pair<std::uint32_t, std::size_t>{524, 38}, {525, 39}, {526, 39}}) {
        CardConfig config;
        config.mtu = mtu;
        config.mapMessagesPerPacket = 1000;
        powerOnWith(rows(100, "ABCDE"), config);
        card.openUp(0);
        write(card_reg::kMapTransmit, 1);
        advanceMs(1);
        EXPECT_THAT(takeMessages(), SizeIs(messages)) << mtu;
    }
}

TEST_F(ContractMap, TheSixteenBitAreaLengthBoundsAPacketOfTheLargestMtu) {
    CardConfig config;
    config.mtu = 65536;
    config.ringBytes = 1 << 20;
    config.mapMessagesPerPacket = 100000;
    powerOnWith(rows(8192, "ABCDEFGHIJKLMNOPQRSTUVW"), config);
    card.openUp(0);
    write(card_reg::kMapTransmit, 1);
    advanceMs(200);
    const auto packets = take(0);
    ASSERT_THAT(packets, SizeIs(1));
    EXPECT_LE(packets[0].size(), 14U + 65535U);
    EXPECT_GT(packets[0].size(), 65000U);
    EXPECT_GT(decodeMap(packets[0]).size(), 2000U);
}

TEST_F(ContractMap, AFullRingDelaysButLosesNothing) {
    CardConfig config;
    config.mtu = 512;
    config.ringBytes = 4096;
    config.mapMessagesPerPacket = 8;
    powerOnWith(rows(1000), config);
    card.openUp(0);
    write(card_reg::kMapTransmit, 1);
    std::vector<std::string> ids;
    for (int step = 0; step < 1000 && ids.size() < 3000; ++step) {
        advanceMs(300);  // longer than a round: far more is due than the ring holds
        for (const MapMessage& message : takeMessages()) ids.push_back(message.id);
    }
    ASSERT_GE(ids.size(), 3000U);
    for (std::size_t n = 0; n < 3000; ++n) ASSERT_EQ(ids[n], "SR" + std::to_string(100 + n % 1000)) << n;
    EXPECT_EQ(card.state().up[0].backPressure, 0U);
}

TEST_F(ContractMap, ALongPauseIsFollowedByOneRoundAtMost) {
    CardConfig config;
    config.mapMessagesPerPacket = 4;
    powerOnWith(rows(10), config);
    card.openUp(0);
    write(card_reg::kMapTransmit, 1);
    advanceMs(3'600'000);
    EXPECT_THAT(take(0), SizeIs(3));
    advanceMs(10);
    EXPECT_THAT(take(0), IsEmpty());
}

TEST_F(ContractMap, PausingTheFeedPausesItToo) {
    powerOnWith(rows(10));
    card.openUp(0);
    write(card_reg::kMapTransmit, 1);
    card.pauseFeed(true);
    advanceMs(1000);
    EXPECT_THAT(take(0), IsEmpty());
    card.pauseFeed(false);
    advanceMs(1);
    EXPECT_THAT(take(0), SizeIs(1));
}
