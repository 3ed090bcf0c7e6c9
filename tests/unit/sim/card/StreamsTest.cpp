#include "tests/unit/sim/card/CardFixture.h"

using namespace vexo_sim;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class Streams : public CardTest {
protected:
    void SetUp() override {
        CardConfig config;
        config.instruments = InstrumentChoice::kNone;
        config.ringBytes = 16384;
        powerOn(config);
    }
};

}  // namespace

TEST_F(Streams, HaveOneReaderAtATime) {
    EXPECT_TRUE(card.openUp(4));
    EXPECT_FALSE(card.openUp(4));
    EXPECT_TRUE(card.openUp(5));
    card.closeUp(4);
    EXPECT_TRUE(card.openUp(4));
}

TEST_F(Streams, HaveOneWriterAtATime) {
    EXPECT_TRUE(card.openDown(4));
    EXPECT_FALSE(card.openDown(4));
    card.closeDown(4);
    EXPECT_TRUE(card.openDown(4));
}

TEST_F(Streams, PushedPacketsArriveAsTheyAre) {
    EXPECT_TRUE(card.push(2, "hello", 5));
    EXPECT_TRUE(card.push(2, nullptr, 0));
    EXPECT_THAT(take(2), ElementsAre(Bytes{'h', 'e', 'l', 'l', 'o'}, Bytes{}));
    EXPECT_EQ(card.state().up[2].packets, 2U);
    EXPECT_THAT(take(3), IsEmpty());
}

TEST_F(Streams, APacketLongerThanTheMtuIsRefused) {
    const Bytes packet(m_config.mtu + 1);
    EXPECT_FALSE(card.push(0, packet.data(), m_config.mtu + 1));
    EXPECT_TRUE(card.push(0, packet.data(), m_config.mtu));
    EXPECT_EQ(card.state().up[0].packets, 1U);
    EXPECT_EQ(card.state().up[0].backPressure, 0U);
}

TEST_F(Streams, APushIntoAFullRingCountsAsBackPressure) {
    const Bytes packet(m_config.mtu);
    while (card.push(0, packet.data(), m_config.mtu)) {
    }
    EXPECT_EQ(card.state().up[0].packets, 3U);
    EXPECT_EQ(card.state().up[0].backPressure, 1U);
}

TEST_F(Streams, ClosingForgetsPacketsAndCounters) {
    card.openUp(0);
    card.push(0, "x", 1);
    card.state().up[0].errors = 3;
    card.closeUp(0);
    EXPECT_THAT(take(0), IsEmpty());
    EXPECT_EQ(card.state().up[0].packets, 0U);
    EXPECT_EQ(card.state().up[0].errors, 0U);
}

TEST_F(Streams, SendsAreCounted) {
    EXPECT_TRUE(card.send(1, 100));
    EXPECT_TRUE(card.send(1, 23));
    EXPECT_EQ(card.state().down[1].packets, 2U);
    EXPECT_EQ(card.state().down[1].bytes, 123U);
    EXPECT_EQ(card.state().down[0].packets, 0U);
}

TEST_F(Streams, ABusyStreamTakesNothingForThatManySends) {
    card.state().down[1].busySends = 2;
    EXPECT_FALSE(card.send(1, 1));
    EXPECT_FALSE(card.send(1, 1));
    EXPECT_TRUE(card.send(1, 1));
    EXPECT_EQ(card.state().down[1].packets, 1U);
}

TEST_F(Streams, AStreamBusyForGoodStaysBusy) {
    card.state().down[1].busySends = kForGood;
    for (int n = 0; n < 1000; ++n) ASSERT_FALSE(card.send(1, 1));
    EXPECT_EQ(card.state().down[1].busySends, kForGood);
}

TEST(CardConfigs, OutOfRangeAreRefused) {
    EXPECT_TRUE(isValid(CardConfig{}));
    const auto with = [](auto change) {
        CardConfig config;
        change(config);
        return isValid(config);
    };
    EXPECT_FALSE(with([](CardConfig& c) { c.ringBytes = 4095; }));
    EXPECT_FALSE(with([](CardConfig& c) { c.ringBytes = (1 << 20) + 1; }));
    EXPECT_FALSE(with([](CardConfig& c) { c.mtu = 511; }));
    EXPECT_FALSE(with([](CardConfig& c) { c.mtu = 65537, c.ringBytes = 1 << 20; }));
    EXPECT_FALSE(with([](CardConfig& c) { c.mtu = 4096, c.ringBytes = 8192; }));
    EXPECT_TRUE(with([](CardConfig& c) { c.mtu = 4096, c.ringBytes = 8193; }));
    EXPECT_TRUE(with([](CardConfig& c) { c.mtu = 65536, c.ringBytes = 1 << 20; }));
    EXPECT_FALSE(with([](CardConfig& c) { c.quotesPerSecond = 100'000'001; }));
    EXPECT_FALSE(with([](CardConfig& c) { c.learningMs = 3'600'001; }));
    EXPECT_FALSE(with([](CardConfig& c) { c.staticRoundMs = 0; }));
    EXPECT_FALSE(with([](CardConfig& c) { c.staticRoundMs = 3'600'001; }));
    EXPECT_FALSE(with([](CardConfig& c) { c.mapMessagesPerPacket = 0; }));
    EXPECT_FALSE(with([](CardConfig& c) { c.mapRoundMs = 0; }));
    EXPECT_FALSE(with([](CardConfig& c) { c.mapRoundMs = 3'600'001; }));
    EXPECT_FALSE(with([](CardConfig& c) { c.instruments = static_cast<InstrumentChoice>(3); }));
}
