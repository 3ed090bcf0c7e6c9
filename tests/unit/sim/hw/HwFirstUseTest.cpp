// What a process sees that has never used a card before: each test runs in a process of its own.
#include <cstdlib>

#include "tests/unit/sim/hw/HwFixture.h"

using ::testing::ExitedWithCode;
using ::testing::StrEq;

namespace {

constexpr char kBanner[] =
    "libenyx-hw-c: SIMULATED CARD at bus 0, not the real thing: "
    "every quote is made up, none comes from an exchange.\n";

class FirstUse : public ::testing::Test {
protected:
    FirstUse() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    static ssize_t cardsFound() {
        return enyx_hw_enumerate_accelerators(Filter(enyx_hw_filter_create()).get(), nullptr, 0);
    }
};

}  // namespace

TEST_F(FirstUse, OpeningACardSaysOnceThatItIsSimulated) {
    EXPECT_EXIT(
        {
            openAccelerator();
            openAccelerator();
            enyx_sim_power_cycle(nullptr);
            std::exit(openAccelerator() != nullptr ? 0 : 1);
        },
        ExitedWithCode(0), StrEq(kBanner));
}

TEST_F(FirstUse, LookingForCardsSaysNothing) {
    EXPECT_EXIT(std::exit(static_cast<int>(cardsFound())), ExitedWithCode(1), StrEq(""));
}

TEST_F(FirstUse, TheCardIsThereWithoutAnythingBeingSetUp) {
    EXPECT_EXIT(
        {
            const Mmio mmio = openMmio(openAccelerator());
            const bool version = readRegister(registersOf(mmio), card_reg::kHardwareVersion) == 13;
            std::exit(version && openAccelerator(1) == nullptr ? 0 : 1);
        },
        ExitedWithCode(0), StrEq(kBanner));
}

TEST_F(FirstUse, AConfigurationBeforeItDecidesHowTheCardsAreMade) {
    EXPECT_EXIT(
        {
            enyx_sim_config config;
            enyx_sim_default_config(&config);
            config.cards = 3;
            enyx_sim_power_cycle(&config);
            std::exit(static_cast<int>(cardsFound()));
        },
        ExitedWithCode(3), StrEq(""));
}

TEST_F(FirstUse, ABadConfigurationBeforeItLeavesTheUsualCard) {
    EXPECT_EXIT(
        {
            enyx_sim_config config;
            enyx_sim_default_config(&config);
            config.cards = 6;
            const bool refused = enyx_sim_power_cycle(&config) == -1;
            std::exit(refused ? static_cast<int>(cardsFound()) : 99);
        },
        ExitedWithCode(1), StrEq(""));
}
