#include <cstdlib>

#include "tests/unit/sim/hw/HwFixture.h"

using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

class TimeOfTheCard : public HwCardTest {
protected:
    std::uint32_t learned() {
        std::uint32_t count = 0;
        std::uint32_t known = 0;
        EXPECT_EQ(enyx_sim_instrument_count(0, &count, &known), 0);
        return known;
    }
    void quote() {
        advanceMs(500);
        setMask(core, 0, 0, 1);
        writeRegister(core, card_reg::kDecodeSwitch, 2);
    }
    static enyx_sim::QuoteCommon quoteOf(const std::string& packet) {
        enyx_sim::QuoteCommon quote;
        std::memcpy(&quote, packet.data() + 12, sizeof quote);
        return quote;
    }
};

}  // namespace

TEST_F(TimeOfTheCard, StandsStillWithTheHosts) {
    EXPECT_EQ(learned(), 0U);
    EXPECT_EQ(learned(), 0U);
    advanceMs(500);
    EXPECT_GT(learned(), 4000U);
}

TEST_F(TimeOfTheCard, ExchangeTimeIsTheLocalTimeOfTheMoment) {
    EXPECT_EQ(readRegister(core, 0x104), 100000U);
    time.SetLocal(2025, 1, 15, 14, 59, 59);
    EXPECT_EQ(readRegister(core, 0x104), 145959U);
    EXPECT_EQ(readRegister(core, 0x105), 145959U);
}

TEST_F(TimeOfTheCard, ALocalTimeThatCannotBeToldKeepsTheLastOne) {
    EXPECT_EQ(readRegister(core, 0x104), 100000U);
    time.FailLocaltime(true);
    time.Advance(5);
    EXPECT_EQ(readRegister(core, 0x104), 100000U);
    time.FailLocaltime(false);
    EXPECT_EQ(readRegister(core, 0x104), 100005U);
}

TEST_F(TimeOfTheCard, APollOfAnEmptyStreamLetsTheCardWork) {
    quote();
    const UpStream stream = openUp(accelerator, 0);
    EXPECT_THAT(takeAll(stream), IsEmpty());
    advanceMs(1);
    EXPECT_THAT(takeAll(stream), SizeIs(5));
}

TEST_F(TimeOfTheCard, WaitingPacketsAreDeliveredWithoutALookAtTheClock) {
    quote();
    const UpStream stream = openUp(accelerator, 0);
    advanceMs(1);
    std::vector<std::string> packets;
    ASSERT_EQ(enyx_hw_a2c_stream_poll_once(stream.get(), collect, &packets), 1);
    time.SetStepPerRead(1);
    const std::int64_t before = time.NowNs();
    for (int n = 0; n < 4; ++n) ASSERT_EQ(enyx_hw_a2c_stream_poll_once(stream.get(), collect, &packets), 1);
    EXPECT_EQ(time.NowNs(), before);
    EXPECT_EQ(enyx_hw_a2c_stream_poll_once(stream.get(), collect, &packets), 0);
    EXPECT_GT(time.NowNs(), before);
}

TEST_F(TimeOfTheCard, QuotesCarryDateTimeAndMilliseconds) {
    quote();
    const UpStream stream = openUp(accelerator, 0);
    advanceMs(1234);
    const auto packets = takeAll(stream);
    ASSERT_THAT(packets, SizeIs(::testing::Gt(0U)));
    EXPECT_EQ(quoteOf(packets[0]).exchangeDate, 20250115U);
    EXPECT_EQ(quoteOf(packets[0]).exchangeTime, 100001U);
    EXPECT_EQ(quoteOf(packets[0]).exchangeMillis, 734U);
}

TEST_F(TimeOfTheCard, AChangeOfTheTimeZoneShowsInTheNextReadAndAfterAPowerCycle) {
    const char* before = std::getenv("TZ");
    const std::string zone = before != nullptr ? before : "";
    const auto setZone = [](const char* name) {
        name != nullptr ? setenv("TZ", name, 1) : unsetenv("TZ");
        tzset();
    };
    setZone("UTC");
    time.SetEpoch(1736935200);  // 10:00 in UTC
    EXPECT_EQ(readRegister(core, 0x104), 100000U);
    setZone("CST-8");
    EXPECT_EQ(readRegister(core, 0x104), 180000U);
    setZone("UTC");
    enyx_sim_power_cycle(nullptr);
    std::uint32_t value = 0;
    EXPECT_EQ(enyx_sim_peek_register(0, 0x104, &value), 0);
    EXPECT_EQ(value, 100000U);
    setZone(before != nullptr ? zone.c_str() : nullptr);
}

TEST_F(TimeOfTheCard, MillisecondsStopAtTheEndOfASecondUntilTheNextOneBegins) {
    quote();
    const UpStream stream = openUp(accelerator, 0);
    // The clock moves between the library's looks at it: its idea of the milliseconds is now up to 10 ms ahead.
    time.SetStepPerRead(10'000'000);
    time.Advance(1);
    ASSERT_EQ(enyx_sim_advance(0), 0);
    time.SetStepPerRead(0);
    takeAll(stream);
    time.SetEpoch(time.NowNs() / 1'000'000'000, 995'000'000);
    const auto packets = takeAll(stream);
    ASSERT_THAT(packets, SizeIs(::testing::Gt(0U)));
    EXPECT_EQ(quoteOf(packets.back()).exchangeMillis, 999U);
}

TEST_F(TimeOfTheCard, ExchangeTimesOfQuotesNeverStepBack) {
    quote();
    const UpStream stream = openUp(accelerator, 0);
    std::uint64_t before = 0;
    for (int step = 0; step < 500; ++step) {
        advanceMs(7);
        for (const std::string& packet : takeAll(stream)) {
            const auto quote = quoteOf(packet);
            const std::uint64_t moment = quote.exchangeTime * std::uint64_t{1000} + quote.exchangeMillis;
            ASSERT_GE(moment, before);
            before = moment;
        }
    }
    EXPECT_EQ(before / 1000, 100004U);  // half a second to learn, 500 steps of 7 ms
}
