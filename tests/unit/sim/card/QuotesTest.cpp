#include <map>
#include <set>

#include "sim/card/Registers.h"
#include "tests/unit/sim/card/CardFixture.h"

using namespace vexo_sim;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

namespace {

constexpr std::uint32_t kLevel1 = card_reg::kSwitchLevel1;
constexpr std::uint32_t kLevel5 = card_reg::kSwitchLevel5;

class Quotes : public CardTest {
protected:
    void SetUp() override { restart({}); }

    void restart(const CardConfig& config) {
        powerOnWith({makeInstrument(0, 7, "SR505"), makeInstrument(0, 8, "SR505C6000"),
                     makeInstrument(1, 7, "SPD-SR505/SR509"), makeInstrument(1, 9, "IPS-SF505/SM505")},
                    config);
        card.openUp(0);
    }
    static std::multiset<std::uint32_t> types(const std::vector<Bytes>& packets) {
        std::multiset<std::uint32_t> all;
        for (const Bytes& packet : packets) all.insert(typeOf(packet));
        return all;
    }
    static std::set<std::string> ids(const std::vector<Bytes>& packets) {
        std::set<std::string> all;
        for (const Bytes& packet : packets) all.insert(quoteOf(packet).id);
        return all;
    }
};

}  // namespace

TEST_F(Quotes, SingleLegLevel1IsType17) {
    setMask(0, 7, 1);
    write(card_reg::kDecodeSwitch, kLevel1);
    advanceMs(1);
    const auto packets = take(0);
    ASSERT_THAT(packets, SizeIs(5));
    for (const Bytes& packet : packets) {
        EXPECT_EQ(typeOf(packet), 17U);
        EXPECT_EQ(packet.size(), 12 + sizeof(enyx_sim::Level1Quote));
    }
}

TEST_F(Quotes, SingleLegLevel5IsType18) {
    setMask(0, 7, 1);
    write(card_reg::kDecodeSwitch, kLevel5);
    advanceMs(1);
    const auto packets = take(0);
    ASSERT_THAT(packets, SizeIs(5));
    for (const Bytes& packet : packets) {
        EXPECT_EQ(typeOf(packet), 18U);
        EXPECT_EQ(packet.size(), 12 + sizeof(enyx_sim::Level5Quote));
    }
}

TEST_F(Quotes, CombinationsAreTypes19And20) {
    setMask(1, 7, 1);
    write(card_reg::kDecodeSwitch, kLevel1);
    advanceMs(1);
    EXPECT_THAT(types(take(0)), ElementsAre(19, 19, 19, 19, 19));
    write(card_reg::kDecodeSwitch, kLevel5);
    advanceMs(1);
    EXPECT_THAT(types(take(0)), ElementsAre(20, 20, 20, 20, 20));
}

TEST_F(Quotes, WithBothLevelsOnTwoPassesShowEveryRowAtBothLevels) {
    for (const std::uint32_t rows : {1U, 2U, 3U, 4U}) {
        restart({});
        const std::pair<std::uint32_t, std::uint32_t> all[] = {{0, 7}, {0, 8}, {1, 7}, {1, 9}};
        for (std::uint32_t n = 0; n < rows; ++n) setMask(all[n].first, all[n].second, 1);
        write(card_reg::kDecodeSwitch, kLevel1 | kLevel5);
        advanceNs(200'000 * 2 * rows);
        std::map<std::string, std::multiset<int>> levels;
        for (const Bytes& packet : take(0)) levels[quoteOf(packet).id].insert(quoteOf(packet).level);
        EXPECT_THAT(levels, SizeIs(rows));
        for (const auto& entry : levels) EXPECT_THAT(entry.second, ElementsAre(1, 5)) << entry.first;
    }
}

TEST_F(Quotes, NoLevelSwitchedOnQuotesNothing) {
    setMask(0, 7, 1);
    advanceMs(1000);
    EXPECT_THAT(take(0), IsEmpty());
    write(card_reg::kDecodeSwitch, 4);  // neither level
    advanceMs(1000);
    EXPECT_THAT(take(0), IsEmpty());
}

TEST_F(Quotes, SwitchingOffStopsThem) {
    setMask(0, 7, 1);
    write(card_reg::kDecodeSwitch, kLevel1);
    advanceMs(10);
    ASSERT_THAT(take(0), Not(IsEmpty()));
    write(card_reg::kDecodeSwitch, 0);
    advanceMs(1000);
    EXPECT_THAT(take(0), IsEmpty());
}

TEST_F(Quotes, OnlyRowsWithAMaskAreQuoted) {
    setMask(0, 8, 1);
    setMask(1, 9, 1);
    write(card_reg::kDecodeSwitch, kLevel1);
    advanceMs(10);
    EXPECT_THAT(ids(take(0)), UnorderedElementsAre("SR505C6000", "IPS-SF505/SM505"));
    setMask(0, 8, 0);
    advanceMs(10);
    EXPECT_THAT(ids(take(0)), UnorderedElementsAre("IPS-SF505/SM505"));
    setMask(1, 9, 0);
    advanceMs(10);
    EXPECT_THAT(take(0), IsEmpty());
}

TEST_F(Quotes, EverySubscribedRowOfABigListIsQuotedInOnePass) {
    CardConfig config;
    config.quotesPerSecond = 1'000'000;
    config.ringBytes = 1 << 20;
    powerOn(config);
    advanceMs(500);
    card.openUp(0);
    std::set<std::string> wanted;
    for (std::uint32_t row = 0; row < 3994; row += 7) {
        setMask(0, row, 1);
        wanted.insert(card.state().parser.instruments[row].id);
    }
    write(card_reg::kDecodeSwitch, kLevel1);
    advanceNs(1000 * wanted.size());
    const auto packets = take(0);
    EXPECT_THAT(packets, SizeIs(wanted.size()));
    EXPECT_EQ(ids(packets), wanted);
}

TEST_F(Quotes, SubscribingAndUnsubscribingInAnyOrderKeepsTheRightRows) {
    CardConfig config;
    config.quotesPerSecond = 1'000'000;
    config.ringBytes = 1 << 20;
    powerOn(config);
    advanceMs(500);
    card.openUp(0);
    for (std::uint32_t row = 0; row < 1000; ++row) setMask(0, row, 1);
    for (std::uint32_t row = 0; row < 1000; row += 2) setMask(0, row, 0);
    for (std::uint32_t row = 999; row >= 501; row -= 2) setMask(0, row, 0);
    setMask(0, 2, 0x10001);
    std::set<std::string> wanted = {card.state().parser.instruments[2].id};
    for (std::uint32_t row = 1; row < 500; row += 2) wanted.insert(card.state().parser.instruments[row].id);
    write(card_reg::kDecodeSwitch, kLevel1);
    advanceMs(1);
    EXPECT_EQ(ids(take(0)), wanted);
}

TEST_F(Quotes, RowsWithAMaskButWithoutAnInstrumentAreNotQuoted) {
    setMask(0, 4000, 1);
    write(card_reg::kDecodeSwitch, kLevel1);
    advanceMs(100);
    EXPECT_THAT(take(0), IsEmpty());
}

TEST_F(Quotes, AMaskSetBeforeItsInstrumentIsLearnedCountsFromThenOn) {
    card.reset();
    setMask(0, 7, 1);
    write(card_reg::kDecodeSwitch, kLevel1);
    advanceMs(124);
    EXPECT_THAT(take(0), IsEmpty());
    advanceMs(1);  // the first of four instruments after a quarter of the learning time
    advanceMs(1);
    EXPECT_THAT(ids(take(0)), UnorderedElementsAre("SR505"));
}

TEST_F(Quotes, EachChannelOfTheMaskThatHasAReaderGetsACopy) {
    card.openUp(3);
    card.openUp(15);
    setMask(0, 7, 0x8008 | 0x10);
    write(card_reg::kDecodeSwitch, kLevel1);
    advanceMs(1);
    EXPECT_THAT(take(0), IsEmpty());
    const auto third = take(3);
    ASSERT_THAT(third, SizeIs(5));
    EXPECT_EQ(take(15), third);
    EXPECT_EQ(card.state().up[4].packets, 0U);
    EXPECT_EQ(card.state().up[4].backPressure, 0U);
    card.openUp(4);
    EXPECT_THAT(take(4), IsEmpty());
}

TEST_F(Quotes, BitsAboveTheSixteenChannelsNameNobody) {
    setMask(0, 7, 0xFFFF0000);
    setMask(0, 8, 1);
    write(card_reg::kDecodeSwitch, kLevel1);
    advanceMs(1);
    const auto packets = take(0);
    EXPECT_THAT(packets, SizeIs(5));  // the row takes no turn from the others either
    EXPECT_THAT(ids(packets), UnorderedElementsAre("SR505C6000"));
    EXPECT_EQ(readBack(0, 7, 0), 0xFFFF0000U);
}

TEST_F(Quotes, ComeAtTheConfiguredRateHoweverOftenTheCardIsLookedAt) {
    setMask(0, 7, 1);
    write(card_reg::kDecodeSwitch, kLevel1);
    std::size_t received = 0;
    for (int step = 0; step < 7000; ++step) {
        advanceNs(142'857);
        received += take(0).size();
    }
    EXPECT_EQ(received, 4999U);  // 7,000 x 142,857 ns is a trifle less than a second
}

TEST_F(Quotes, ARateOfZeroQuotesNothing) {
    CardConfig config;
    config.quotesPerSecond = 0;
    restart(config);
    setMask(0, 7, 1);
    write(card_reg::kDecodeSwitch, kLevel1);
    advanceMs(10'000);
    EXPECT_THAT(take(0), IsEmpty());
}

TEST_F(Quotes, AFullRingDropsCountsAndLeavesAGapInTheSequence) {
    CardConfig config;
    config.ringBytes = 16384;
    restart(config);
    setMask(0, 7, 1);
    write(card_reg::kDecodeSwitch, kLevel1);
    advanceMs(100);  // 500 packets of 140 bytes
    const auto before = take(0);
    const std::uint32_t dropped = card.state().up[0].backPressure;
    EXPECT_EQ(before.size() + dropped, 500U);
    EXPECT_GT(dropped, 0U);
    EXPECT_EQ(card.state().up[0].packets, before.size());
    for (std::size_t n = 0; n < before.size(); ++n) EXPECT_EQ(quoteOf(before[n]).sequence, n + 1);

    advanceMs(1);
    const auto after = take(0);
    ASSERT_THAT(after, SizeIs(5));
    EXPECT_EQ(quoteOf(after[0]).sequence, 501U);
    EXPECT_EQ(readAs<enyx_sim::PacketHead>(after[0], 0).sequence, 501U);
}

TEST_F(Quotes, ALongPauseIsNotMadeUpFor) {
    CardConfig config;
    config.quotesPerSecond = 1000;
    restart(config);
    setMask(0, 7, 1);
    write(card_reg::kDecodeSwitch, kLevel1);
    advanceMs(3'600'000);
    EXPECT_EQ(card.state().up[0].packets + card.state().up[0].backPressure, 1000U);
}

TEST_F(Quotes, OneLookAtTheCardMakesABoundedNumber) {
    CardConfig config;
    config.quotesPerSecond = 100'000'000;
    restart(config);
    setMask(0, 7, 1);
    write(card_reg::kDecodeSwitch, kLevel1);
    advanceMs(1000);
    EXPECT_EQ(card.state().up[0].packets + card.state().up[0].backPressure, 4096U);
}

TEST_F(Quotes, SwitchingOnLaterOwesNothingForTheTimeBefore) {
    setMask(0, 7, 1);
    advanceMs(900);
    write(card_reg::kDecodeSwitch, kLevel1);
    advanceMs(1);
    EXPECT_THAT(take(0), SizeIs(5));
    card.pauseFeed(true);
    advanceMs(900);
    card.pauseFeed(false);
    advanceMs(1);
    EXPECT_THAT(take(0), SizeIs(5));
}

TEST_F(Quotes, CarryIdRowTableAndLevel) {
    setMask(1, 9, 1);
    write(card_reg::kDecodeSwitch, kLevel5);
    advanceMs(1);
    const auto quote = quoteOf(take(0).at(0));
    EXPECT_STREQ(quote.id, "IPS-SF505/SM505");
    EXPECT_EQ(quote.instrumentIndex, 9);
    EXPECT_EQ(quote.table, 1);
    EXPECT_EQ(quote.level, 5);
}

TEST_F(Quotes, CarryTheExchangesTime) {
    CardConfig config;
    config.clockOffsetSeconds = 3600;
    restart(config);
    setMask(0, 7, 1);
    write(card_reg::kDecodeSwitch, kLevel1);
    now.time = 93015;
    now.date = 20250116;
    now.millis = 250;
    advanceMs(1);
    const auto quote = quoteOf(take(0).at(0));
    EXPECT_EQ(quote.exchangeDate, 20250116U);
    EXPECT_EQ(quote.exchangeTime, 103015U);
    EXPECT_EQ(quote.exchangeMillis, 250U);
}

TEST_F(Quotes, VolumeTurnoverAndOpenInterestNeverFall) {
    setMask(0, 7, 1);
    write(card_reg::kDecodeSwitch, kLevel1 | kLevel5);
    advanceMs(100);
    const auto packets = take(0);
    ASSERT_GT(packets.size(), 100U);
    enyx_sim::QuoteCommon before{};
    for (const Bytes& packet : packets) {
        const auto quote = quoteOf(packet);
        EXPECT_GT(std::uint64_t{quote.totalVolume}, std::uint64_t{before.totalVolume});
        EXPECT_GT(std::int64_t{quote.turnover}, std::int64_t{before.turnover});
        EXPECT_GE(std::uint64_t{quote.openInterest}, std::uint64_t{before.openInterest});
        before = quote;
    }
}

TEST_F(Quotes, Level1ShowsTheBestOfTheBook) {
    setMask(0, 7, 1);
    write(card_reg::kDecodeSwitch, kLevel1);
    advanceMs(100);
    for (const Bytes& packet : take(0)) {
        const auto quote = readAs<enyx_sim::Level1Quote>(packet, 12);
        const std::int64_t bid = quote.bidPrice;
        const std::int64_t ask = quote.askPrice;
        const std::int64_t last = quote.common.lastPrice;
        ASSERT_LT(bid, ask);
        ASSERT_LE(bid, last);
        ASSERT_LE(last, ask);
        ASSERT_EQ(last % 10000, 0);  // sugar moves by whole yuan
        ASSERT_EQ(bid % 10000, 0);
        ASSERT_EQ(ask % 10000, 0);
        ASSERT_GT(quote.bidVolume, 0U);
        ASSERT_GT(quote.askVolume, 0U);
    }
}

TEST_F(Quotes, Level5FallsAndRisesByTheTickInsideTheDailyLimits) {
    for (const std::uint32_t table : {0U, 1U})
        for (const std::uint32_t row : {7U, 8U, 9U}) setMask(table, row, 1);
    write(card_reg::kDecodeSwitch, kLevel5);
    for (int step = 0; step < 200; ++step) {
        advanceMs(50);
        for (const Bytes& packet : take(0)) {
            const auto quote = readAs<enyx_sim::Level5Quote>(packet, 12);
            const std::int64_t tick = quote.askPrice[1] - quote.askPrice[0];
            ASSERT_GT(tick, 0);
            for (int depth = 0; depth < 5; ++depth) {
                ASSERT_EQ(quote.bidPrice[0] - quote.bidPrice[depth], depth * tick);
                ASSERT_EQ(quote.askPrice[depth] - quote.askPrice[0], depth * tick);
                ASSERT_GT(quote.bidVolume[depth], 0U);
                ASSERT_GT(quote.askVolume[depth], 0U);
            }
            ASSERT_LT(std::int64_t{quote.bidPrice[0]}, std::int64_t{quote.askPrice[0]});
            ASSERT_GE(std::int64_t{quote.bidPrice[4]}, std::int64_t{quote.common.lowerLimit});
            ASSERT_LE(std::int64_t{quote.askPrice[4]}, std::int64_t{quote.common.upperLimit});
        }
    }
}

TEST_F(Quotes, BothLevelsOfAnInstrumentShareItsPrices) {
    setMask(0, 7, 1);
    write(card_reg::kDecodeSwitch, kLevel1 | kLevel5);
    advanceMs(10);
    const auto packets = take(0);
    ASSERT_THAT(packets, SizeIs(50));
    for (std::size_t n = 1; n < packets.size(); ++n) {
        EXPECT_NE(quoteOf(packets[n]).level, quoteOf(packets[n - 1]).level);
        EXPECT_LE(std::abs(quoteOf(packets[n]).lastPrice - quoteOf(packets[n - 1]).lastPrice), 20000);
    }
}

TEST_F(Quotes, WithoutAReaderPricesStandStill) {
    card.closeUp(0);
    setMask(0, 7, 1);
    write(card_reg::kDecodeSwitch, kLevel1);
    advanceMs(100);
    EXPECT_EQ(card.state().feed.prices[0].totalVolume, 0U);
    EXPECT_EQ(card.state().up[0].quoteSequence, 0U);
}

TEST_F(Quotes, PokingTheSwitchStartsThem) {
    setMask(0, 7, 1);
    ASSERT_TRUE(registers::poke(card.state(), card_reg::kDecodeSwitch, kLevel1));
    advanceMs(1);
    EXPECT_THAT(take(0), SizeIs(5));
}
