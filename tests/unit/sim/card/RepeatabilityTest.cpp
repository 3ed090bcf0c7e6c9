#include "tests/unit/sim/card/CardFixture.h"

using namespace vexo_sim;

namespace {

class Repeatability : public CardTest {
protected:
    // Some of everything, at odd moments; returns all that came up the streams.
    std::vector<Bytes> session(std::uint64_t seed) {
        CardConfig config;
        config.seed = seed;
        powerOn(config);
        for (const std::uint32_t channel : {0U, 5U}) card.openUp(channel);
        write(card_reg::kMapTransmit, 1);
        write(card_reg::kDecodeSwitch, 3);
        std::vector<Bytes> all;
        for (std::uint32_t step = 0; step < 1500; ++step) {
            advanceNs(137'001 + step * 991);
            setMask(step % 2, step * 37 % 500, step % 3 == 0 ? 0x21 : 0x20);
            if (step == 900) card.reset();
            if (step == 901) write(card_reg::kDecodeSwitch, 2);
            for (const std::uint32_t channel : {0U, 5U})
                for (Bytes& packet : take(channel)) all.push_back(std::move(packet));
        }
        return all;
    }

    // Quotes of both levels and tables on two streams, as fast as they are taken, over the exchange's midnight.
    std::vector<Bytes> busySession() {
        CardConfig config;
        config.seed = 7;
        config.pace = kPaceOfReaders;
        config.ringBytes = 256 * 1024;  // full at each step
        config.clockOffsetSeconds = 14 * 3600 - 20;
        powerOn(config);
        advanceMs(config.learningMs);
        for (const std::uint32_t channel : {0U, 5U}) card.openUp(channel);
        for (std::uint32_t row = 0; row < 4000; ++row)
            for (const std::uint32_t table : {0U, 1U}) setMask(table, row, row % 3 == 0 ? 0x01 : 0x21);
        write(card_reg::kDecodeSwitch, 3);
        std::vector<Bytes> all;
        for (std::uint32_t step = 0; step < 60; ++step) {
            now.time = 100000 + step;
            now.millis = step * 13 % 1000;
            advanceNs(1'000'000);
            for (const std::uint32_t channel : {0U, 5U})
                for (Bytes& packet : take(channel)) all.push_back(std::move(packet));
        }
        return all;
    }
};

// FNV-1a over the packets and their sizes.
std::uint64_t digestOf(const std::vector<Bytes>& packets) {
    std::uint64_t digest = 0xCBF29CE484222325U;
    const auto add = [&digest](unsigned char byte) { digest = (digest ^ byte) * 0x100000001B3U; };
    for (const Bytes& packet : packets) {
        for (std::size_t size = packet.size(), n = 0; n < 4; ++n, size /= 256) add(static_cast<unsigned char>(size));
        for (const unsigned char byte : packet) add(byte);
    }
    return digest;
}

}  // namespace

TEST_F(Repeatability, TheSameSeedAndCallsGiveTheSameBytes) {
    const auto first = session(42);
    ASSERT_GT(first.size(), 1000U);
    EXPECT_TRUE(first == session(42));  // not EXPECT_EQ: nobody wants to read megabytes
}

TEST_F(Repeatability, PowerOnOwesNothingToWhatTheMemoryHeldBefore) {
    const auto first = session(42);
    std::memset(static_cast<void*>(memory.get()), 0xA5, sizeof(CardState));
    EXPECT_TRUE(first == session(42));
}

TEST_F(Repeatability, AnotherSeedGivesOtherPrices) { EXPECT_FALSE(session(1) == session(2)); }

// Who rehearses with a seed gets the same day from the next version too.
TEST_F(Repeatability, ASeedGivesTheSameBytesInEveryVersion) {
    const auto quiet = session(42);
    EXPECT_EQ(quiet.size(), 8818U);
    EXPECT_EQ(digestOf(quiet), 10692421563362211283U);

    const auto busy = busySession();
    EXPECT_EQ(busy.size(), 130960U);
    EXPECT_EQ(digestOf(busy), 2409435900130374429U);
}
