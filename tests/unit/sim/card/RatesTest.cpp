#include "tests/unit/sim/card/CardFixture.h"

using namespace vexo_sim;
using ::testing::ElementsAre;
using ::testing::SizeIs;

namespace {

class Rates : public CardTest {
protected:
    void start(const CardConfig& config, std::uint32_t instruments = 1) {
        std::vector<Instrument> list;
        for (std::uint32_t row = 0; row < instruments; ++row)
            list.push_back(makeInstrument(0, row, "SR" + std::to_string(500 + row)));
        powerOnWith(list, config);
        card.openUp(0);
        for (std::uint32_t row = 0; row < instruments; ++row) setMask(0, row, 1);
        write(card_reg::kDecodeSwitch, card_reg::kSwitchLevel1);
    }
    std::size_t quotesOf(std::uint64_t ms) {
        std::size_t count = 0;
        for (; ms > 0; --ms) {
            advanceMs(1);
            count += take(0).size();
        }
        return count;
    }
};

CardConfig each(std::uint32_t perInstrument, std::uint32_t total) {
    CardConfig config;
    config.quotesPerInstrument = perInstrument;
    config.quotesPerSecond = total;
    return config;
}

CardConfig bursts(std::uint32_t everyMs, std::uint32_t lengthMs, std::uint32_t factor) {
    CardConfig config;
    config.quotesPerSecond = 1000;
    config.burstEveryMs = everyMs;
    config.burstMs = lengthMs;
    config.burstFactor = factor;
    return config;
}

}  // namespace

TEST_F(Rates, ARatePerInstrumentGrowsWithTheSubscription) {
    start(each(100, 100'000), 5);
    EXPECT_EQ(quotesOf(1000), 500U);
    setMask(0, 0, 0);
    setMask(0, 1, 0);
    EXPECT_NEAR(static_cast<double>(quotesOf(1000)), 300, 1);
}

TEST_F(Rates, ARatePerInstrumentIsCappedByTheTotal) {
    start(each(100, 350), 5);
    EXPECT_EQ(quotesOf(1000), 350U);
}

TEST_F(Rates, AGrowingSubscriptionIsNotPaidForTheTimeBefore) {
    start(each(1, 100'000), 1000);
    for (std::uint32_t row = 1; row < 1000; ++row) setMask(0, row, 0);
    take(0);
    advanceMs(900);
    for (std::uint32_t row = 1; row < 1000; ++row) setMask(0, row, 1);
    EXPECT_LE(quotesOf(1), 3U);
}

TEST_F(Rates, ABurstBeginsWithTheFirstQuoteAndFallsBackToTheUsualRate) {
    start(bursts(10'000, 1000, 11));
    std::vector<std::size_t> tenths;
    for (int n = 0; n < 12; ++n) tenths.push_back(quotesOf(100));
    // 1,000 a second, and ten times that on top at the start, falling in a straight line for a second
    EXPECT_THAT(tenths, ElementsAre(1050, 950, 850, 750, 650, 550, 450, 350, 250, 150, 100, 100));
}

TEST_F(Rates, BurstsComeRoundAndHaveTheSameWeightHoweverOftenTheCardIsLookedAt) {
    for (const std::uint64_t step : {1U, 7U, 500U}) {
        start(bursts(2000, 1000, 3));
        std::size_t count = 0;
        for (std::uint64_t ms = 0; ms < 7000; ms += step) {
            advanceMs(step);
            count += take(0).size();
        }
        EXPECT_NEAR(static_cast<double>(count), 11'000, 20) << step;  // four bursts of 1,000 more
    }
}

TEST_F(Rates, ACardOfNoBurstsKeepsItsRate) {
    start(bursts(0, 0, 1));
    EXPECT_EQ(quotesOf(3000), 3000U);
}

TEST_F(Rates, AFasterPaceIsAFasterClockOfTheCard) {
    CardConfig config;
    config.quotesPerSecond = 1000;
    config.pace = 10;
    config.learningMs = 1000;
    config.instruments = InstrumentChoice::kDefault;
    powerOn(config);
    advanceMs(100);
    EXPECT_EQ(learned(), card.state().parser.count);
    start(config);
    EXPECT_EQ(quotesOf(100), 1000U);
}

TEST_F(Rates, AtTheReadersPaceQuotesAreAlwaysThereAndNoneIsLost) {
    CardConfig config;
    config.pace = kPaceOfReaders;
    start(config);
    std::uint64_t expected = 0;
    for (int round = 0; round < 20; ++round) {
        card.advance(now);  // no time passes at all
        const auto packets = take(0);
        ASSERT_GT(packets.size(), 1000U);
        for (const Bytes& packet : packets) ASSERT_EQ(quoteOf(packet).sequence, ++expected);
    }
    EXPECT_EQ(card.state().up[0].backPressure, 0U);
}

TEST_F(Rates, AtTheReadersPaceTheSlowestReaderSetsIt) {
    CardConfig config;
    config.pace = kPaceOfReaders;
    start(config);
    card.openUp(1);
    setMask(0, 0, 3);
    for (int round = 0; round < 20; ++round) {
        card.advance(now);
        take(0);
    }
    EXPECT_EQ(card.state().up[0].packets, card.state().up[1].packets);
    EXPECT_EQ(card.state().up[1].backPressure, 0U);
}

TEST_F(Rates, ConfigurationsOutOfRangeAreNotValid) {
    EXPECT_TRUE(isValid(bursts(1000, 1000, kMaxBurstFactor)));
    EXPECT_FALSE(isValid(bursts(1000, 1001, 2)));
    EXPECT_FALSE(isValid(bursts(1000, 0, 2)));
    EXPECT_FALSE(isValid(bursts(1000, 10, 0)));
    EXPECT_FALSE(isValid(bursts(1000, 10, kMaxBurstFactor + 1)));
    EXPECT_FALSE(isValid(bursts(kMaxMilliseconds + 1, 10, 2)));
    CardConfig config;
    config.pace = kMaxPace + 1;
    EXPECT_FALSE(isValid(config));
    config = {};
    config.initialSwitch = 4;
    EXPECT_FALSE(isValid(config));
}

TEST_F(Rates, TheFastestBurstOfTheHighestRateDoesNotOverflow) {
    CardConfig config = bursts(kMaxMilliseconds, kMaxMilliseconds, kMaxBurstFactor);
    config.quotesPerSecond = kMaxQuotesPerSecond;
    start(config);
    EXPECT_GT(quotesOf(1), 500U);  // all that the ring holds
    EXPECT_GT(card.state().up[0].backPressure, 0U);
}

TEST_F(Rates, ACardMayComeUpWithADateAndSwitchedOn) {
    CardConfig config;
    config.initialDate = 20250114;
    config.initialSwitch = 3;
    powerOn(config);
    EXPECT_EQ(read(card_reg::kTradingDate), 20250114U);
    EXPECT_EQ(read(card_reg::kDecodeSwitch), 3U);
    card.reset();
    EXPECT_EQ(read(card_reg::kDecodeSwitch), 0U);
    EXPECT_EQ(read(card_reg::kTradingDate), 20250114U);
}

namespace {

struct DateCase {
    std::uint32_t date, time;
    std::int32_t offset;
    std::uint32_t exchangeDate, exchangeTime;
};

class ExchangeDate : public Rates, public ::testing::WithParamInterface<DateCase> {};

}  // namespace

TEST_P(ExchangeDate, FollowsTheClockOverMidnight) {
    const DateCase c = GetParam();
    CardConfig config;
    config.clockOffsetSeconds = c.offset;
    start(config);
    now.date = c.date;
    now.time = c.time;
    advanceMs(1);
    const auto quote = quoteOf(take(0).at(0));
    EXPECT_EQ(quote.exchangeDate, c.exchangeDate);
    EXPECT_EQ(quote.exchangeTime, c.exchangeTime);
}

INSTANTIATE_TEST_SUITE_P(
    , ExchangeDate,
    ::testing::Values(DateCase{20250115, 100000, 0, 20250115, 100000}, DateCase{20250115, 235959, 1, 20250116, 0},
                      DateCase{20250115, 0, -1, 20250114, 235959}, DateCase{20241231, 230000, 7200, 20250101, 10000},
                      DateCase{20250101, 0, -86400, 20241231, 0}, DateCase{20240228, 120000, 86400, 20240229, 120000},
                      DateCase{20240301, 120000, -86400, 20240229, 120000}, DateCase{20250228, 235959, 1, 20250301, 0},
                      DateCase{21000228, 120000, 86400, 21000301, 120000},
                      DateCase{20250115, 120000, 86400 * 365, 20260115, 120000}));
