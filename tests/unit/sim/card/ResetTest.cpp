#include "sim/card/Registers.h"
#include "tests/unit/sim/card/CardFixture.h"

using namespace vexo_sim;
using ::testing::Each;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

constexpr std::uint32_t kResetRegister = card_reg::kReset;

// A card at work: instruments learned, one row subscribed, both switches on, a reader on channel 0.
class Reset : public CardTest {
protected:
    void SetUp() override {
        powerOnWith({makeInstrument(0, 7, "SR505"), makeInstrument(1, 9, "SPD-SR505/SR509")});
        write(card_reg::kTradingDate, 20250115);
        card.openUp(0);
        setMask(0, 7, 1);
        storeWord(0, 7, 20, 0x1234);
        write(card_reg::kDecodeSwitch, 3);
        write(card_reg::kMapTransmit, 1);
        advanceMs(10);
        ASSERT_THAT(take(0), Not(IsEmpty()));
    }

    void expectForgotten() {
        EXPECT_EQ(learned(), 0U);
        EXPECT_EQ(readId(0, 7), "");
        EXPECT_EQ(readId(1, 9), "");
        EXPECT_EQ(readBack(0, 7, 0), 0U);
        EXPECT_EQ(read(card_reg::kDecodeSwitch), 0U);
        EXPECT_EQ(registers::peek(card.state(), card_reg::kMapTransmit), 0U);
        EXPECT_THAT(counters(), Each(0U));
    }
};

}  // namespace

TEST_F(Reset, OfTheRootCoreForgetsAndLearnsAgain) {
    card.reset();
    expectForgotten();
    advanceMs(499);
    EXPECT_LT(learned(), 2U);
    advanceMs(1);
    EXPECT_EQ(learned(), 2U);
    EXPECT_EQ(readId(0, 7), "SR505");
    EXPECT_EQ(readBack(0, 7, 0), 0U);
}

TEST_F(Reset, ByRegisterForgetsAtOnceAndLearnsWhenReleased) {
    write(kResetRegister, 1);
    expectForgotten();
    advanceMs(5000);
    EXPECT_EQ(learned(), 0U);
    write(kResetRegister, 0);
    advanceMs(499);
    EXPECT_LT(learned(), 2U);
    advanceMs(1);
    EXPECT_EQ(learned(), 2U);
}

TEST_F(Reset, KeepsTheTradingDateAndTheUpperWordsOfTheRows) {
    card.reset();
    EXPECT_EQ(read(card_reg::kTradingDate), 20250115U);
    EXPECT_EQ(readBack(0, 7, 20), 0x1234U);
}

TEST_F(Reset, HeldSendsNothingWhateverIsSwitchedOn) {
    write(kResetRegister, 1);
    setMask(0, 7, 1);
    write(card_reg::kDecodeSwitch, 3);
    write(card_reg::kMapTransmit, 1);
    advanceMs(2000);
    EXPECT_THAT(take(0), IsEmpty());
}

TEST_F(Reset, ReleasedAfterTheSwitchesWereSetGoesToWorkOnceItHasLearned) {
    write(kResetRegister, 1);
    setMask(0, 7, 1);
    write(card_reg::kDecodeSwitch, 2);
    write(kResetRegister, 0);
    EXPECT_EQ(readBack(0, 7, 0), 0U);  // a release starts from an empty table
    setMask(0, 7, 1);
    advanceMs(249);  // row 7 is learned half-way
    EXPECT_THAT(take(0), IsEmpty());
    advanceMs(2);
    advanceMs(1);
    EXPECT_THAT(take(0), Not(IsEmpty()));
}

TEST_F(Reset, AReleaseWithoutAHoldDoesNothing) {
    write(kResetRegister, 0);
    EXPECT_EQ(learned(), 2U);
    EXPECT_EQ(readBack(0, 7, 0), 1U);
    EXPECT_EQ(read(card_reg::kDecodeSwitch), 3U);
}

TEST_F(Reset, OfTheRootCoreEndsAHold) {
    write(kResetRegister, 1);
    card.reset();
    advanceMs(500);
    EXPECT_EQ(learned(), 2U);
    EXPECT_EQ(registers::peek(card.state(), kResetRegister), 0U);
}

TEST_F(Reset, StopsThePacketsUntilTheHostSwitchesThemOnAgain) {
    card.reset();
    advanceMs(1000);
    EXPECT_THAT(take(0), IsEmpty());
    write(card_reg::kMapTransmit, 1);
    advanceMs(1);
    EXPECT_THAT(take(0), Not(IsEmpty()));
}

TEST_F(Reset, KeepsWhatWaitsInTheStreams) {
    ASSERT_TRUE(card.push(0, "abc", 3));
    card.reset();
    EXPECT_EQ(take(0), std::vector<Bytes>({Bytes{'a', 'b', 'c'}}));
}
