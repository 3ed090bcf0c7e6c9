#include "sim/card/PacketFaults.h"
#include "sim/card/Registers.h"
#include "tests/unit/sim/card/CardFixture.h"

using namespace vexo_sim;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

// A card that quotes one instrument a thousand times a second to channel 0.
class CardFaults : public CardTest {
protected:
    void SetUp() override {
        CardConfig config;
        config.quotesPerSecond = 1000;
        powerOnWith({makeInstrument(0, 7, "SR505")}, config);
        card.openUp(0);
        setMask(0, 7, 1);
        write(card_reg::kDecodeSwitch, card_reg::kSwitchLevel1);
    }
    FaultState& faults() { return card.state().faults; }
};

}  // namespace

TEST_F(CardFaults, AStoppedCardIsSilentAndItsClockStands) {
    card.stop(true);
    now.time = 100005;
    advanceMs(5000);
    EXPECT_THAT(take(0), IsEmpty());
    EXPECT_EQ(read(card_reg::kExchangeTimeA), 100000U);
}

TEST_F(CardFaults, AStoppedCardStillAnswersAndKeepsWhatIsWritten) {
    card.stop(true);
    write(card_reg::kTradingDate, 20250115);
    EXPECT_EQ(read(card_reg::kTradingDate), 20250115U);
    EXPECT_EQ(read(card_reg::kHardwareVersion), 13U);
    setMask(0, 7, 3);
    EXPECT_EQ(readBack(0, 7, 0), 3U);
}

TEST_F(CardFaults, AResetDoesNotReviveAStoppedCard) {
    card.stop(true);
    card.reset();
    advanceMs(5000);
    EXPECT_EQ(learned(), 0U);
    EXPECT_THAT(counters(), Each(0U));
}

TEST_F(CardFaults, ACardThatGoesOnDoesNotMakeUpForTheTime) {
    card.stop(true);
    advanceMs(100);
    card.stop(false);
    advanceMs(0);
    EXPECT_THAT(take(0), IsEmpty());
    advanceMs(10);
    EXPECT_THAT(take(0), SizeIs(10));
}

TEST_F(CardFaults, ACardThatGoesOnHasNoEndAheadOfIt) {
    packet_faults::stopAfter(card.state(), 5);
    card.stopAfterMs(30);
    advanceMs(10);
    EXPECT_TRUE(faults().stopped);
    card.stop(false);
    take(0);
    advanceMs(50);
    EXPECT_THAT(take(0), SizeIs(50));
}

TEST_F(CardFaults, ACardStopsAfterItsLastPacketOfSo) {
    packet_faults::stopAfter(card.state(), 25);
    advanceMs(20);
    EXPECT_FALSE(faults().stopped);
    advanceMs(20);
    EXPECT_TRUE(faults().stopped);
    EXPECT_THAT(take(0), SizeIs(25));
}

TEST_F(CardFaults, ACardStopsAtItsMoment) {
    card.stopAfterMs(30);
    advanceMs(29);
    EXPECT_FALSE(faults().stopped);
    EXPECT_THAT(take(0), SizeIs(29));
    advanceMs(500);
    EXPECT_TRUE(faults().stopped);
    EXPECT_THAT(take(0), SizeIs(1));
}

TEST_F(CardFaults, ACardStopsAtItsMomentWhileItIsHeldInReset) {
    write(card_reg::kReset, 1);
    card.stopAfterMs(30);
    advanceMs(31);
    EXPECT_TRUE(faults().stopped);
}

TEST_F(CardFaults, FrozenCountersStandWhileInstrumentsAreLearned) {
    faults().counters = CounterMode::kFrozen;
    const auto before = counters();
    card.reset();
    EXPECT_EQ(counters(), before);
    advanceMs(1000);
    EXPECT_EQ(learned(), 1U);
    EXPECT_EQ(counters(), before);
}

TEST_F(CardFaults, RunningCountersNeverStandStill) {
    faults().counters = CounterMode::kRunning;
    const auto before = counters();
    advanceMs(1000);
    const auto after = counters();
    for (std::size_t n = 0; n < before.size(); ++n) EXPECT_EQ(after[n], before[n] + 1000);
}

TEST_F(CardFaults, AHeldStreamCannotBeOpened) {
    faults().heldUp = 0x20;
    EXPECT_FALSE(card.openUp(5));
    EXPECT_TRUE(card.openUp(4));
    faults().heldUp = 0;
    EXPECT_TRUE(card.openUp(5));
}

TEST_F(CardFaults, IgnoredResetsLeaveTheCardAsItWas) {
    faults().resetsIgnored = 2;
    card.reset();
    card.reset();
    EXPECT_EQ(learned(), 1U);
    EXPECT_EQ(read(card_reg::kDecodeSwitch), card_reg::kSwitchLevel1);
    card.reset();
    EXPECT_EQ(learned(), 0U);
    EXPECT_EQ(read(card_reg::kDecodeSwitch), 0U);
}

TEST_F(CardFaults, ACardMayIgnoreEveryReset) {
    faults().resetsIgnored = kForGood;
    for (int n = 0; n < 3; ++n) card.reset();
    EXPECT_EQ(learned(), 1U);
    EXPECT_EQ(faults().resetsIgnored, kForGood);
}

TEST_F(CardFaults, TheResetRegisterWorksOnACardThatIgnoresTheOther) {
    faults().resetsIgnored = kForGood;
    write(card_reg::kReset, 1);
    write(card_reg::kReset, 0);
    EXPECT_EQ(learned(), 0U);
}

TEST_F(CardFaults, PowerOnEndsThemAll) {
    faults().counters = CounterMode::kRunning;
    faults().heldUp = 0xFFFF;
    faults().resetsIgnored = kForGood;
    packet_faults::stopAfter(card.state(), 1);
    card.stopAfterMs(1);
    advanceMs(5);
    powerOn(m_config);
    advanceMs(1000);
    EXPECT_FALSE(faults().stopped);
    EXPECT_FALSE(faults().armed);
    EXPECT_EQ(faults().heldUp, 0U);
    EXPECT_EQ(faults().resetsIgnored, 0U);
    EXPECT_EQ(faults().counters, CounterMode::kTrue);
}
