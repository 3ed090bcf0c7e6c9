#include "sim/card/PriceModel.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/card/InstrumentList.h"
#include "tests/unit/sim/card/CardFixture.h"

using namespace vexo_sim;

namespace {

PriceWalk opening(const char* id) { return openingPrices(id, 1); }

void expectSoundBook(const PriceWalk& prices, const BookEdge& edge, const std::string& id) {
    ASSERT_LT(edge.bid, edge.ask) << id;
    ASSERT_LE(edge.bid, prices.last) << id;
    ASSERT_GE(edge.ask, prices.last) << id;
    ASSERT_GE(edge.bid - 4 * prices.tick, prices.lowerLimit) << id;
    ASSERT_LE(edge.ask + 4 * prices.tick, prices.upperLimit) << id;
    ASSERT_EQ(prices.last % prices.tick, 0) << id;
    ASSERT_EQ(edge.bid % prices.tick, 0) << id;
}

}  // namespace

TEST(Prices, OfEveryBuiltInInstrumentLeaveRoomForFiveLevelsOnBothSides) {
    std::vector<Instrument> list(kMaxInstruments);
    list.resize(makeInstrumentList(InstrumentChoice::kFull, 20250115, list.data()));
    for (const Instrument& instrument : list) {
        const PriceWalk prices = opening(instrument.id);
        ASSERT_GT(prices.tick, 0) << instrument.id;
        ASSERT_GE(prices.upperLimit - prices.lowerLimit, 12 * prices.tick) << instrument.id;
        ASSERT_EQ(prices.upperLimit % prices.tick, 0) << instrument.id;
        ASSERT_EQ(prices.lowerLimit % prices.tick, 0) << instrument.id;
        ASSERT_TRUE(prices.lowerLimit > 0 || instrument.table == 1) << instrument.id;
        ASSERT_GT(prices.lotSize, 0U) << instrument.id;
    }
}

TEST(Prices, WalkOnTheTickInsideTheLimits) {
    for (const char* id :
         {"SR505", "ZC505", "CF505", "SR505C6000", "SR505P7000", "SA505C1200", "SPD-SR505/SR509", "IPS-SF505/SM505",
          "SOMETHING", "SPD-", "SPD-X", "12345", "SR505C", "AP505C999999999999999999"}) {
        PriceWalk prices = opening(id);
        std::uint64_t random = 99;
        for (int step = 0; step < 20000; ++step) expectSoundBook(prices, walk(prices, random), id);
    }
}

TEST(Prices, MoveByTwoTicksAtMostAndInBothDirections) {
    PriceWalk prices = opening("SR505");
    std::uint64_t random = 5;
    int up = 0;
    int down = 0;
    for (int step = 0; step < 1000; ++step) {
        const std::int64_t before = prices.last;
        walk(prices, random);
        ASSERT_LE(std::abs(prices.last - before), 2 * prices.tick);
        up += prices.last > before;
        down += prices.last < before;
    }
    EXPECT_GT(up, 100);
    EXPECT_GT(down, 100);
}

TEST(Prices, AFutureTradesAroundItsProductsUsualPrice) {
    const PriceWalk sugar = opening("SR505");
    EXPECT_NEAR(static_cast<double>(sugar.last), 6000e4, 121e4);
    EXPECT_EQ(sugar.tick, 10000);
    EXPECT_EQ(opening("ZC505").tick, 2000);
    EXPECT_EQ(opening("CF505").tick, 50000);
}

TEST(Prices, AnOptionDeepInTheMoneyIsWorthAtLeastItsIntrinsicValue) {
    const std::int64_t future = opening("SR505").last;
    EXPECT_GE(opening("SR505C5000").last, future - 5000 * 10000 - 5000);
    EXPECT_GE(opening("SR505P7000").last, 7000 * 10000 - future - 5000);
    EXPECT_LT(opening("SR505C7000").last, opening("SR505C5000").last);
    EXPECT_LT(opening("SR505P5000").last, opening("SR505P7000").last);
    EXPECT_EQ(opening("SR505C6000").tick, 5000);
}

TEST(Prices, ASpreadIsTheDifferenceOfItsLegs) {
    EXPECT_EQ(opening("SPD-SR505/SR509").last, opening("SR505").last - opening("SR509").last);
    EXPECT_EQ(opening("SPD-SR505").last, opening("SR505").last);
}

TEST(Prices, DependOnIdAndSeedOnly) {
    EXPECT_EQ(opening("SR505").last, opening("SR505").last);
    bool differs = false;
    for (std::uint64_t seed = 2; seed < 10; ++seed)
        differs |= openingPrices("SR505", seed).last != opening("SR505").last;
    EXPECT_TRUE(differs);
}

TEST(Prices, OfADayStartWithoutVolume) {
    EXPECT_EQ(opening("SR505").totalVolume, 0U);
    EXPECT_EQ(opening("SR505").turnover, 0);
    EXPECT_GE(opening("SR505").openInterest, 1000U);
}

TEST(Prices, TurnoverOfASpreadBelowZeroGrowsToo) {
    for (const char* id : {"SPD-SR505/TA505", "SPD-TA505/SR505"}) {
        PriceWalk prices = opening(id);
        std::uint64_t random = 1;
        walk(prices, random);
        EXPECT_GT(prices.turnover, 0) << id;
    }
}

TEST(Prices, TurnoverStopsFarBelowAnOverflow) {
    PriceWalk prices = opening("SR505");
    prices.turnover = INT64_MAX / 2 - 1;
    std::uint64_t random = 1;
    walk(prices, random);
    const std::int64_t most = prices.turnover;
    EXPECT_GT(most, INT64_MAX / 2 - 1);
    walk(prices, random);
    EXPECT_EQ(prices.turnover, most);
}

TEST(Prices, TurnoverIsPriceTimesLotsTimesLotSize) {
    PriceWalk prices = opening("SR505");
    std::uint64_t random = 1;
    walk(prices, random);
    EXPECT_EQ(prices.turnover, prices.last * static_cast<std::int64_t>(prices.totalVolume) * 10);
}

TEST(Prices, ThatAnotherProcessHasSpoiledStayInsideTheRangeOfTheArithmetic) {
    constexpr std::int64_t kFar = 2'000'000'000'000'000;
    for (const std::int64_t far : {INT64_MAX, INT64_MIN, std::int64_t{0}}) {
        PriceWalk prices{};
        prices.last = prices.lowerLimit = prices.tick = far;
        prices.upperLimit = prices.turnover = -(far + 1);
        prices.lotSize = UINT32_MAX;
        std::uint64_t random = 1;
        const BookEdge edge = walk(prices, random);
        EXPECT_GT(prices.tick, 0) << far;
        EXPECT_LT(prices.tick, kFar) << far;
        EXPECT_GE(prices.last, prices.lowerLimit) << far;
        EXPECT_LE(prices.last, prices.upperLimit) << far;
        EXPECT_LT(std::abs(prices.last), kFar) << far;
        EXPECT_GT(edge.ask, edge.bid) << far;
    }
}
