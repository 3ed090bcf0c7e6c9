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
};

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
