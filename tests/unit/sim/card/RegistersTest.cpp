#include "sim/card/Registers.h"
#include "tests/unit/sim/card/CardFixture.h"

using namespace vexo_sim;

namespace {

constexpr std::uint32_t kWriteOnly[] = {card_reg::kReset,
                                        card_reg::kMapTransmit,
                                        card_reg::kSoftwareVersion,
                                        0x200,
                                        0x201,
                                        0x202,
                                        0x203,
                                        0x204,
                                        0x205,
                                        0x300,
                                        0x301,
                                        0x302,
                                        0x303,
                                        0x304,
                                        0x305,
                                        0x306,
                                        0x307,
                                        0x308,
                                        0x310,
                                        0x311,
                                        0x312,
                                        0x313,
                                        0x314,
                                        0x315,
                                        0x316,
                                        0x317,
                                        0x318,
                                        0x11000,
                                        0x11002,
                                        0x12000,
                                        0x12002};

class Registers : public CardTest {
protected:
    void SetUp() override {
        CardConfig config;
        config.instruments = InstrumentChoice::kNone;
        powerOn(config);
    }
    std::uint32_t peek(std::uint32_t word) const { return registers::peek(card.state(), word); }
};

}  // namespace

TEST_F(Registers, HardwareVersionIsTheConfiguredOne) {
    m_config.hardwareVersion = 4711;
    powerOn(m_config);
    EXPECT_EQ(read(0x101), 4711U);
}

TEST_F(Registers, OnlyTheFirstReadAfterASoftwareVersionIsTheVerdict) {
    m_config.verdict = 2;
    m_config.fibreStatus = 7;
    powerOn(m_config);
    EXPECT_EQ(read(0x103), 7U);
    write(0x102, 0x01010213);
    EXPECT_EQ(read(0x103), 2U);
    EXPECT_EQ(read(0x103), 7U);
    write(0x102, 0x01010213);
    EXPECT_EQ(read(0x103), 2U);
}

TEST_F(Registers, PeekingTheVerdictDoesNotUseItUp) {
    m_config.verdict = 2;
    powerOn(m_config);
    write(0x102, 1);
    EXPECT_EQ(peek(0x103), 2U);
    EXPECT_EQ(read(0x103), 2U);
    EXPECT_EQ(peek(0x103), 15U);
}

TEST_F(Registers, TradingDateIsZeroAfterPowerOnAndKeepsWhatIsWritten) {
    EXPECT_EQ(read(0x106), 0U);
    write(0x106, 20250115);
    EXPECT_EQ(read(0x106), 20250115U);
    powerOn(m_config);
    EXPECT_EQ(read(0x106), 0U);
}

TEST_F(Registers, DecodeSwitchReadsBack) {
    EXPECT_EQ(read(0x11), 0U);
    write(0x11, 3);
    EXPECT_EQ(read(0x11), 3U);
}

TEST_F(Registers, WriteOnlyRegistersKeepTheirValueButReadZero) {
    for (const std::uint32_t word : kWriteOnly) {
        const std::uint32_t value = word == card_reg::kReset ? 1 : 0xA5000000U | word;
        write(word, value);
        EXPECT_EQ(read(word), 0U) << std::hex << word;
        EXPECT_EQ(peek(word), value) << std::hex << word;
    }
}

TEST_F(Registers, TableDataRegistersReadBack) {
    write(0x11001, 0x12345678);
    write(0x12001, 0x9ABCDEF0);
    EXPECT_EQ(read(0x11001), 0x12345678U);
    EXPECT_EQ(read(0x12001), 0x9ABCDEF0U);
}

TEST_F(Registers, ReadOnlyRegistersIgnoreWrites) {
    for (const std::uint32_t word : {0x101U, 0x103U, 0x104U, 0x105U, 0x200BU, 0x200CU, 0x200DU, 0x200EU, 0x210BU,
                                     0x210CU, 0x210DU, 0x210EU, 0x11003U, 0x12003U}) {
        const std::uint32_t before = peek(word);
        write(word, before + 1);
        EXPECT_EQ(peek(word), before) << std::hex << word;
    }
}

TEST_F(Registers, WordsWithoutARegisterReadZeroAndIgnoreWrites) {
    for (const std::uint32_t word : {0x0U, 0xFU, 0x13U, 0x100U, 0x107U, 0x206U, 0x309U, 0x319U, 0x3FFU, 0x400U, 0x200AU,
                                     0x200FU, 0x10FFFU, 0x11004U, 0x12004U, 0x1FFFFU}) {
        write(word, 0xFFFFFFFF);
        EXPECT_EQ(read(word), 0U) << std::hex << word;
        EXPECT_EQ(peek(word), 0U) << std::hex << word;
    }
}

TEST_F(Registers, NarrowWritesLeaveTheOtherBitsAlone) {
    write(0x106, 0x11223344);
    ASSERT_TRUE(card.write(0x106 * 4, 0, 8, 0xAA));
    EXPECT_EQ(read(0x106), 0x112233AAU);
    ASSERT_TRUE(card.write(0x106 * 4 + 2, 0, 16, 0xBBCC));
    EXPECT_EQ(read(0x106), 0xBBCC33AAU);
    ASSERT_TRUE(card.write(0x106 * 4, 8, 8, 0xFFDD));
    EXPECT_EQ(read(0x106), 0xBBCCDDAAU);
    ASSERT_TRUE(card.write(0x106 * 4, 0, 24, 0xFF010203));
    EXPECT_EQ(read(0x106), 0xBB010203U);
}

TEST_F(Registers, NarrowReadsShowTheirBitsOnly) {
    write(0x106, 0x11223344);
    std::uint64_t value = 0;
    ASSERT_TRUE(card.read(0x106 * 4, 0, 8, value));
    EXPECT_EQ(value, 0x44U);
    ASSERT_TRUE(card.read(0x106 * 4 + 1, 0, 16, value));
    EXPECT_EQ(value, 0x2233U);
    ASSERT_TRUE(card.read(0x106 * 4, 16, 16, value));
    EXPECT_EQ(value, 0x1122U);
}

TEST_F(Registers, A64BitAccessSpansTwoRegistersTheLowerFirst) {
    ASSERT_TRUE(card.write(0x200 * 4, 0, 64, 0x1122334455667788));
    EXPECT_EQ(peek(0x200), 0x55667788U);
    EXPECT_EQ(peek(0x201), 0x11223344U);

    write(0x106, 0xCAFEF00D);
    std::uint64_t value = 0;
    ASSERT_TRUE(card.read(0x106 * 4, 0, 64, value));
    EXPECT_EQ(value, 0xCAFEF00DU);
}

TEST_F(Registers, AFieldAcrossThreeRegistersTouchesEachPart) {
    ASSERT_TRUE(card.write(0x200 * 4 + 2, 0, 64, 0x1122334455667788));
    EXPECT_EQ(peek(0x200), 0x77880000U);
    EXPECT_EQ(peek(0x201), 0x33445566U);
    EXPECT_EQ(peek(0x202), 0x00001122U);
}

TEST_F(Registers, ImpossibleFieldsAreRefused) {
    std::uint64_t value = 0;
    for (const std::uint32_t width : {0U, 1U, 7U, 12U, 63U, 65U, 72U}) {
        EXPECT_FALSE(card.read(0x408, 0, width, value)) << width;
        EXPECT_FALSE(card.write(0x408, 0, width, 1)) << width;
    }
    const std::uint64_t last = registers::kSpaceBytes - 4;
    EXPECT_TRUE(card.read(last, 0, 32, value));
    EXPECT_FALSE(card.read(last, 8, 32, value));
    EXPECT_FALSE(card.read(last, 0, 64, value));
    EXPECT_FALSE(card.write(registers::kSpaceBytes, 0, 8, 1));
    EXPECT_FALSE(card.write(~std::uint64_t{0}, 0, 8, 1));
    EXPECT_EQ(peek(0x102), 0U);
}

TEST_F(Registers, ExchangeTimesFollowTheHostsClock) {
    now.time = 93015;
    advanceMs(0);
    EXPECT_EQ(read(0x104), 93015U);
    EXPECT_EQ(read(0x105), 93015U);
}

TEST_F(Registers, TheClockOffsetMovesTheExchangeTime) {
    struct {
        std::uint32_t local;
        std::int32_t offset;
        std::uint32_t exchange;
    } const cases[] = {{95959, 1, 100000}, {100000, -1, 95959},     {235959, 2, 1},
                       {1, -2, 235959},    {103500, -1200, 101500}, {120000, 86400 * 3 + 60, 120100}};
    for (const auto& c : cases) {
        m_config.clockOffsetSeconds = c.offset;
        now.time = c.local;
        powerOn(m_config);
        EXPECT_EQ(read(0x104), c.exchange) << c.local << " " << c.offset;
    }
}

TEST_F(Registers, OneOfTheTwoFeedsIsASecondBehindNowAndThenNeverBoth) {
    now.time = 100000;
    std::uint32_t lagsA = 0;
    std::uint32_t lagsB = 0;
    for (int step = 0; step < 400; ++step) {
        advanceMs(10);
        const std::uint32_t a = read(0x104);
        const std::uint32_t b = read(0x105);
        ASSERT_EQ(std::max(a, b), 100000U);
        ASSERT_TRUE(a == 100000 || a == 95959) << a;
        ASSERT_TRUE(b == 100000 || b == 95959) << b;
        lagsA += a != 100000;
        lagsB += b != 100000;
    }
    EXPECT_GT(lagsA, 0U);
    EXPECT_GT(lagsB, 0U);
    EXPECT_LT(lagsA + lagsB, 200U);
}

TEST_F(Registers, NoFeedIsBehindAcrossMidnight) {
    now.time = 0;
    for (int step = 0; step < 400; ++step) {
        advanceMs(10);
        ASSERT_EQ(read(0x104), 0U);
        ASSERT_EQ(read(0x105), 0U);
    }
}

TEST_F(Registers, APokedExchangeTimeStandsStillUntilItIsReleased) {
    ASSERT_TRUE(registers::poke(card.state(), 0x104, 101500));
    ASSERT_TRUE(registers::poke(card.state(), 0x105, 0));
    now.time = 120000;
    advanceMs(1);
    EXPECT_EQ(read(0x104), 101500U);
    EXPECT_EQ(read(0x105), 0U);
    ASSERT_TRUE(registers::poke(card.state(), 0x104, kClockRuns));
    EXPECT_EQ(read(0x104), 120000U);
}

TEST_F(Registers, PokingChangesReadOnlyRegisters) {
    ASSERT_TRUE(registers::poke(card.state(), 0x101, 5));
    ASSERT_TRUE(registers::poke(card.state(), 0x103, 0xE));
    ASSERT_TRUE(registers::poke(card.state(), 0x210E, 77));
    EXPECT_EQ(read(0x101), 5U);
    EXPECT_EQ(read(0x103), 0xEU);
    EXPECT_EQ(read(0x210E), 77U);
}

TEST_F(Registers, PokingACommandRegisterCommandsNothing) {
    write(0x11001, 0xFFFF);
    ASSERT_TRUE(registers::poke(card.state(), 0x11000, 5 << 6));
    EXPECT_EQ(peek(0x11000), 5U << 6);
    EXPECT_EQ(readBack(0, 5, 0), 0U);
}

TEST_F(Registers, PokingTableDataAndSelectIsWhatTheNextAccessUses) {
    setMask(1, 9, 0x21);
    ASSERT_TRUE(registers::poke(card.state(), 0x12002, 9 << 6));
    EXPECT_EQ(read(0x12003), 0x21U);
    ASSERT_TRUE(registers::poke(card.state(), 0x12001, 0x42));
    write(0x12000, 10 << 6);
    EXPECT_EQ(readBack(1, 10, 0), 0x42U);
}

TEST_F(Registers, PokingWhatHoldsNothingIsRefused) {
    for (const std::uint32_t word : {0x0U, 0x107U, 0x11003U, 0x12003U, 0x12004U, 0xFFFFFFFFU})
        EXPECT_FALSE(registers::poke(card.state(), word, 1)) << std::hex << word;
}

TEST_F(Registers, PokingTheSoftwareVersionAsksForNoVerdict) {
    ASSERT_TRUE(registers::poke(card.state(), 0x102, 0x01010213));
    EXPECT_EQ(peek(0x102), 0x01010213U);
    EXPECT_EQ(read(0x103), 15U);
}
