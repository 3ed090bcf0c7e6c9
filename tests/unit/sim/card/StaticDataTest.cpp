#include "tests/unit/sim/card/CardFixture.h"

using namespace vexo_sim;
using ::testing::Each;
using ::testing::ElementsAreArray;

namespace {

class StaticData : public CardTest {
protected:
    static std::vector<Instrument> rows(std::uint32_t count) {
        std::vector<Instrument> list;
        for (std::uint32_t n = 0; n < count; ++n)
            list.push_back(makeInstrument(n % 2, 100 + n, (n % 2 == 0 ? "SR" : "SPD-") + std::to_string(1000 + n)));
        return list;
    }
};

}  // namespace

TEST_F(StaticData, InstrumentsAreLearnedAtAnEvenPace) {
    CardConfig config;
    config.learningMs = 100;
    config.instruments = InstrumentChoice::kNone;
    powerOn(config);
    ASSERT_TRUE(card.replaceInstruments(rows(10).data(), 10));
    EXPECT_EQ(learned(), 0U);
    for (std::uint32_t n = 1; n <= 10; ++n) {
        advanceNs(9'999'999);
        EXPECT_EQ(learned(), n - 1);
        advanceNs(1);
        EXPECT_EQ(learned(), n);
    }
    advanceMs(1000);
    EXPECT_EQ(learned(), 10U);
}

TEST_F(StaticData, AnyPaceOfLookingAtTheCardLearnsTheSame) {
    CardConfig config;
    config.learningMs = 70;
    powerOn(config);
    const std::uint32_t all = card.state().parser.count;
    for (int step = 0; step < 69; ++step) advanceMs(1);
    EXPECT_EQ(learned(), std::uint64_t{all} * 69 / 70);
    advanceMs(1);
    EXPECT_EQ(learned(), all);
}

TEST_F(StaticData, WithoutALearningTimeAllIsKnownAtTheFirstLook) {
    CardConfig config;
    config.learningMs = 0;
    powerOn(config);
    advanceMs(0);
    EXPECT_EQ(learned(), card.state().parser.count);
}

TEST_F(StaticData, ALearnedRowShowsItsId) {
    powerOnWith({makeInstrument(0, 7, "SR505C6000"), makeInstrument(1, 7, "SPD-SR505/SR509"),
                 makeInstrument(0, 4094, "X"), makeInstrument(1, 8191, "SIXTEENCHARACTER-AND-MORE")});
    EXPECT_EQ(readId(0, 7), "SR505C6000");
    EXPECT_EQ(readId(1, 7), "SPD-SR505/SR509");
    EXPECT_EQ(readId(0, 4094), "X");
    EXPECT_EQ(readId(1, 8191), "SIXTEENCHARACTER");
    EXPECT_EQ(readBack(0, 7, 0), 0U);
}

TEST_F(StaticData, ParserCountersCountPerTable) {
    powerOnWith({makeInstrument(0, 1, "SR505"), makeInstrument(0, 2, "SR505C6000"), makeInstrument(1, 3, "SPD-A/B")});
    EXPECT_THAT(counters(), ElementsAreArray({2U, 2U, 15U, 8U, 1U, 1U, 7U, 4U}));
}

TEST_F(StaticData, AllEightParserCountersMoveWhileTheDefaultListIsLearned) {
    powerOn();
    advanceMs(200);
    const auto early = counters();
    advanceMs(295);
    const auto late = counters();
    for (std::size_t n = 0; n < 4; ++n) EXPECT_GT(late[n], early[n]) << n;
    EXPECT_THAT(std::vector<std::uint32_t>(early.begin() + 4, early.end()), Each(0U));
    for (std::size_t n = 4; n < 8; ++n) EXPECT_GT(late[n], 0U) << n;
}

TEST_F(StaticData, ParserCountersStandStillOnceAllIsLearnedAlsoWhileIdsAreRepaired) {
    powerOn();
    advanceMs(500);
    const auto before = counters();
    storeWord(0, 5, 1, 0);
    advanceMs(2000);
    EXPECT_EQ(readId(0, 5).size(), std::strlen(card.state().parser.instruments[5].id));
    EXPECT_EQ(counters(), before);
}

TEST_F(StaticData, OverwrittenIdsComeBackWithTheNextRound) {
    CardConfig config;
    config.learningMs = 10;
    config.staticRoundMs = 250;
    powerOnWith({makeInstrument(0, 7, "SR505"), makeInstrument(1, 7, "SPD-SR505/SR509")}, config);
    for (const std::uint32_t table : {0U, 1U})
        for (std::uint32_t word = 0; word < 64; ++word) storeWord(table, 7, word, 0xFFFFFFFF);
    advanceMs(239);
    EXPECT_EQ(readBack(0, 7, 1), 0xFFFFFFFFU);
    advanceMs(1);
    EXPECT_EQ(readId(0, 7), "SR505");
    EXPECT_EQ(readId(1, 7), "SPD-SR505/SR509");
}

TEST_F(StaticData, ARepairLeavesMaskAndUpperWordsAsTheHostWroteThem) {
    powerOnWith({makeInstrument(0, 7, "SR505")});
    for (std::uint32_t word = 0; word < 64; ++word) storeWord(0, 7, word, 0x70 + word);
    advanceMs(250);
    EXPECT_EQ(readId(0, 7), "SR505");
    EXPECT_EQ(readBack(0, 7, 0), 0x70U);
    for (std::uint32_t word = 5; word < 64; ++word) EXPECT_EQ(readBack(0, 7, word), 0x70U + word);
}

TEST_F(StaticData, IdsOverwrittenAgainAreRepairedAgain) {
    powerOnWith({makeInstrument(0, 7, "SR505")});
    for (int time = 0; time < 3; ++time) {
        storeWord(0, 7, 2, 0);
        EXPECT_EQ(readId(0, 7), "SR50");
        advanceMs(250);
        EXPECT_EQ(readId(0, 7), "SR505");
    }
}

TEST_F(StaticData, RowsWithoutAnInstrumentKeepWhatTheHostWrote) {
    powerOnWith({makeInstrument(0, 7, "SR505")});
    storeWord(0, 8, 1, 0x41414141);
    storeWord(1, 7, 1, 0x42424242);
    advanceMs(1000);
    EXPECT_EQ(readId(0, 8), "AAAA");
    EXPECT_EQ(readId(1, 7), "BBBB");
}

TEST_F(StaticData, ReplacedInstrumentsAreLearnedFromTheBeginning) {
    powerOnWith(rows(4));
    setMask(0, 100, 0xFFFF);
    const std::vector<Instrument> other = {makeInstrument(0, 3, "CF501")};
    ASSERT_TRUE(card.replaceInstruments(other.data(), other.size()));
    EXPECT_EQ(readId(0, 100), "");
    EXPECT_EQ(readBack(0, 100, 0), 0U);
    EXPECT_EQ(learned(), 0U);
    advanceMs(500);
    EXPECT_EQ(readId(0, 3), "CF501");
}

TEST_F(StaticData, AnImpossibleListChangesNothing) {
    powerOnWith(rows(4));
    const std::vector<Instrument> twice = {makeInstrument(0, 3, "CF501"), makeInstrument(0, 3, "CF503")};
    EXPECT_FALSE(card.replaceInstruments(twice.data(), twice.size()));
    EXPECT_EQ(learned(), 4U);
    EXPECT_EQ(readId(0, 100), "SR1000");
}

TEST_F(StaticData, AnEmptyListIsLearnedAtOnce) {
    powerOnWith({});
    advanceMs(1000);
    EXPECT_EQ(learned(), 0U);
    EXPECT_THAT(counters(), Each(0U));
}

TEST_F(StaticData, AClockThatStepsBackStopsNothing) {
    CardConfig config;
    config.learningMs = 100;
    powerOn(config);
    advanceMs(25);
    now.monotonicNs = 5;
    advanceMs(0);
    EXPECT_EQ(learned(), card.state().parser.count / 4);
    advanceMs(25);
    EXPECT_EQ(learned(), card.state().parser.count / 2);
}
