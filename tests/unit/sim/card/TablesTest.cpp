#include "sim/card/Tables.h"
#include "tests/unit/sim/card/CardFixture.h"

using namespace vexo_sim;

namespace {

class Tables : public CardTest, public ::testing::WithParamInterface<std::uint32_t> {
protected:
    void SetUp() override {
        CardConfig config;
        config.instruments = InstrumentChoice::kNone;
        powerOn(config);
    }
    std::uint32_t stored(std::uint32_t row, std::uint32_t word) const {
        return card.state().tables[GetParam()].words[row][word];
    }
};

INSTANTIATE_TEST_SUITE_P(BothTables, Tables, ::testing::Values(card_reg::kSingleLegTable, card_reg::kCombinationTable));

}  // namespace

TEST_P(Tables, ACommandStoresTheDataWordInTheRowItNames) {
    storeWord(GetParam(), 8191, 63, 0xDEADBEEF);
    EXPECT_EQ(stored(8191, 63), 0xDEADBEEFU);
    EXPECT_EQ(readBack(GetParam(), 8191, 63), 0xDEADBEEFU);
}

TEST_P(Tables, TheOtherTableStaysAsItIs) {
    storeWord(GetParam(), 12, 0, 0xFFFF);
    EXPECT_EQ(readBack(1 - GetParam(), 12, 0), 0U);
}

TEST_P(Tables, TheDataWordStaysForTheNextCommand) {
    storeWord(GetParam(), 1, 0, 7);
    write(card_reg::kTables[GetParam()].command, 2 << 6);
    EXPECT_EQ(readBack(GetParam(), 2, 0), 7U);
}

TEST_P(Tables, IdWordsAreReadBackInReverseOrder) {
    for (std::uint32_t word = 0; word < 64; ++word) storeWord(GetParam(), 3, word, 1000 + word);
    EXPECT_EQ(readBack(GetParam(), 3, 0), 1000U);
    for (std::uint32_t word = 1; word <= 4; ++word) EXPECT_EQ(readBack(GetParam(), 3, word), 1000U + 5 - word);
    for (std::uint32_t word = 5; word < 64; ++word) EXPECT_EQ(readBack(GetParam(), 3, word), 1000U + word);
}

TEST_P(Tables, RowsBeyondTheTableAreIgnoredAndReadZero) {
    write(card_reg::kTables[GetParam()].data, 0x55);
    for (const std::uint32_t row : {8192U, 8193U, 16384U, 0x3FFFFFFU})
        for (std::uint32_t word = 0; word < 64; ++word) {
            write(card_reg::kTables[GetParam()].command, row << 6 | word);
            EXPECT_EQ(readBack(GetParam(), row, word), 0U) << row;
        }
    for (const std::uint16_t instrument : card.state().tables[GetParam()].instrumentOfRow)
        ASSERT_EQ(instrument, kNoInstrument);  // what lies behind the rows in memory
    for (std::uint32_t row = 0; row < card_reg::kRows; ++row) ASSERT_EQ(stored(row, 0), 0U) << row;
    for (std::uint32_t row = 0; row < card_reg::kRows; ++row)
        ASSERT_EQ(card.state().tables[1 - GetParam()].words[row][0], 0U) << row;
}

TEST_P(Tables, ABrokenRowKeepsItsMaskAndTakesItsOtherWords) {
    setMask(GetParam(), 70, 0x1);
    tables::setBit(card.state().tables[GetParam()].maskRefused, 70, true);
    setMask(GetParam(), 70, 0x2);
    storeWord(GetParam(), 70, 9, 0x99);
    setMask(GetParam(), 71, 0x2);
    EXPECT_EQ(readBack(GetParam(), 70, 0), 0x1U);
    EXPECT_EQ(readBack(GetParam(), 70, 9), 0x99U);
    EXPECT_EQ(readBack(GetParam(), 71, 0), 0x2U);

    tables::setBit(card.state().tables[GetParam()].maskRefused, 70, false);
    setMask(GetParam(), 70, 0x2);
    EXPECT_EQ(readBack(GetParam(), 70, 0), 0x2U);
}

TEST(TableIds, ArePackedFourCharactersAWordTheFirstOnTop) {
    EXPECT_EQ(tables::idWord("SR501", 1), 0x53523530U);
    EXPECT_EQ(tables::idWord("SR501", 2), 0x31000000U);
    EXPECT_EQ(tables::idWord("SR501", 3), 0U);
    EXPECT_EQ(tables::idWord("SPD-SR505/SR509X", 4), 0x35303958U);
    EXPECT_EQ(tables::idWord("SPD-SR505/SR509XYZ", 4), 0x35303958U);
}
