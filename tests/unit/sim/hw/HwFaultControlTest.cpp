// Faults and scenarios through the control header.

#include <cerrno>
#include <fstream>

#include "tests/support/TempDir.h"
#include "tests/unit/sim/hw/HwFixture.h"

using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

class FaultControl : public HwCardTest {
protected:
    FaultControl() {
        enyx_sim_instrument one{0, 7, "SR505"};
        EXPECT_EQ(enyx_sim_set_instruments(0, &one, 1), 0);
        advanceMs(500);
        EXPECT_EQ(enyx_sim_advance(0), 0);
    }
    void startQuotes() {
        setMask(core, 0, 7, 1);
        EXPECT_EQ(writeRegister(core, card_reg::kDecodeSwitch, card_reg::kSwitchLevel1), 0);
    }
    static enyx_sim_packet_fault ruleOf(std::uint32_t kind) {
        return {kind, 1, ENYX_SIM_QUOTE_PACKETS | ENYX_SIM_MAP_PACKETS, 1, 1, 0, 1000000, 0, 0};
    }
};

class ScenarioControl : public HwTest {
protected:
    int load(const std::string& content) {
        directory.Write("a.ini", content);
        return enyx_sim_load_scenario(directory.Path("a.ini").c_str(), reason, sizeof reason);
    }

    test_support::TempDir directory;
    char reason[256] = "untouched";
};

}  // namespace

TEST_F(FaultControl, PacketFaultsStrikeAndCount) {
    enyx_sim_packet_fault rule = ruleOf(ENYX_SIM_FAULT_DROP);
    rule.first = 2;
    rule.times = 3;
    EXPECT_EQ(enyx_sim_add_packet_fault(0, &rule), 0);
    EXPECT_EQ(enyx_sim_add_packet_fault(0, &rule), 1);
    const UpStream stream = openUp(accelerator, 0);
    startQuotes();
    advanceMs(2);
    EXPECT_THAT(takeAll(stream), SizeIs(7));
    std::uint64_t strikes = 0;
    EXPECT_EQ(enyx_sim_packet_fault_strikes(0, 1, &strikes), 0);
    EXPECT_EQ(strikes, 3U);
    EXPECT_EQ(enyx_sim_clear_packet_faults(0), 0);
    EXPECT_FAILS(enyx_sim_packet_fault_strikes(0, 0, &strikes), EINVAL);
}

TEST_F(FaultControl, WrongPacketFaultsAreRefused) {
    enyx_sim_packet_fault rule = ruleOf(ENYX_SIM_FAULT_MAP_INDEX + 1);
    EXPECT_FAILS(enyx_sim_add_packet_fault(0, &rule), EINVAL);
    EXPECT_FAILS(enyx_sim_add_packet_fault(0, nullptr), EINVAL);
    rule.kind = ENYX_SIM_FAULT_DROP;
    EXPECT_FAILS(enyx_sim_add_packet_fault(1, &rule), ENODEV);
    for (int n = 0; n < 32; ++n) EXPECT_EQ(enyx_sim_add_packet_fault(0, &rule), n);
    EXPECT_FAILS(enyx_sim_add_packet_fault(0, &rule), ENOSPC);
}

TEST_F(FaultControl, AHeldStreamIsBusyForEverybodyElse) {
    EXPECT_EQ(enyx_sim_hold_stream(0, 3, 1), 0);
    EXPECT_NULL(openUp(accelerator, 3), EBUSY);
    EXPECT_NE(openUp(accelerator, 2), nullptr);
    EXPECT_EQ(enyx_sim_hold_stream(0, 3, 0), 0);
    EXPECT_NE(openUp(accelerator, 3), nullptr);
    EXPECT_FAILS(enyx_sim_hold_stream(0, 16, 1), EINVAL);
}

TEST_F(FaultControl, AStoppedCardIsSilentUntilItGoesOn) {
    const UpStream stream = openUp(accelerator, 0);
    startQuotes();
    EXPECT_EQ(enyx_sim_stop(0, 1), 0);
    advanceMs(10);
    EXPECT_THAT(takeAll(stream), IsEmpty());
    EXPECT_EQ(enyx_sim_stop(0, 0), 0);
    advanceMs(1);
    EXPECT_FALSE(takeAll(stream).empty());
}

TEST_F(FaultControl, ACardStopsAfterPacketsOrTime) {
    const UpStream stream = openUp(accelerator, 0);
    startQuotes();
    EXPECT_EQ(enyx_sim_stop_after(0, 4, 0), 0);
    advanceMs(10);
    EXPECT_THAT(takeAll(stream), SizeIs(4));
    EXPECT_EQ(enyx_sim_stop(0, 0), 0);
    EXPECT_EQ(enyx_sim_stop_after(0, 0, 2), 0);
    advanceMs(500);
    EXPECT_THAT(takeAll(stream), SizeIs(10));
    advanceMs(500);
    EXPECT_THAT(takeAll(stream), IsEmpty());
    EXPECT_FAILS(enyx_sim_stop_after(0, 0, 3600001), EINVAL);
}

TEST_F(FaultControl, ParserCountersStandOrRun) {
    EXPECT_EQ(enyx_sim_parser_counters(0, ENYX_SIM_COUNTERS_RUNNING), 0);
    const std::uint32_t before = readRegister(core, card_reg::kParserCounters[0]);
    advanceMs(5);
    EXPECT_EQ(readRegister(core, card_reg::kParserCounters[0]), before + 5);
    EXPECT_EQ(enyx_sim_parser_counters(0, ENYX_SIM_COUNTERS_FROZEN), 0);
    EXPECT_EQ(enyx_hw_core_reset(rootOf(mmio)), 0);
    EXPECT_EQ(readRegister(core, card_reg::kParserCounters[0]), 1U);
    EXPECT_FAILS(enyx_sim_parser_counters(0, 3), EINVAL);
}

TEST_F(FaultControl, ResetsOfTheRootCoreMayDoNothing) {
    EXPECT_EQ(enyx_sim_ignore_resets(0, 1), 0);
    startQuotes();
    EXPECT_EQ(enyx_hw_core_reset(rootOf(mmio)), 0);
    EXPECT_EQ(readRegister(core, card_reg::kDecodeSwitch), card_reg::kSwitchLevel1);
    EXPECT_EQ(enyx_hw_core_reset(rootOf(mmio)), 0);
    EXPECT_EQ(readRegister(core, card_reg::kDecodeSwitch), 0U);
}

TEST_F(FaultControl, PowerCyclesEndFaults) {
    EXPECT_EQ(enyx_sim_hold_stream(0, 3, 1), 0);
    EXPECT_EQ(enyx_sim_stop(0, 1), 0);
    EXPECT_EQ(enyx_sim_power_cycle(nullptr), 0);
    EXPECT_NE(openUp(accelerator, 3), nullptr);
    advanceMs(500);
    std::uint32_t count = 0, learned = 0;
    EXPECT_EQ(enyx_sim_instrument_count(0, &count, &learned), 0);
    EXPECT_EQ(learned, count);
}

TEST_F(FaultControl, TheNewFieldsOfTheConfigurationReachTheCard) {
    powerCycleWith([](enyx_sim_config& c) {
        c.quotes_per_instrument = 1000;
        c.burst_every_ms = 1000;
        c.burst_ms = 1000;
        c.burst_factor = 21;
        c.pace = 2;
        c.initial_date = 20250114;
        c.initial_switch = 2;
        c.quotes_per_second = 100000;
    });
    EXPECT_EQ(readRegister(core, card_reg::kTradingDate), 20250114U);
    EXPECT_EQ(readRegister(core, card_reg::kDecodeSwitch), 2U);
    advanceMs(250);
    const UpStream stream = openUp(accelerator, 0);
    setMask(core, 0, 0, 1);
    advanceMs(5);
    // ten milliseconds of the card's time at 1,000 a second and at first twenty times that on top
    EXPECT_NEAR(static_cast<double>(takeAll(stream).size()), 209, 2);
}

TEST_F(ScenarioControl, ASceneIsSetByOneCall) {
    directory.Write("list.txt", "3,0,SR505\n");
    ASSERT_EQ(load("[card]\nhardware_version = 9\ndate = today\n[instruments]\nfile = list.txt\n"
                   "[fault a]\nkind = stream_held\nchannels = 2\n"
                   "[fault b]\nkind = call_fails\ncall = enyx_hw_core_lock\nerrno = EIO\n"),
              0)
        << reason;
    enyx_hw_accelerator* const accelerator = openAccelerator();
    const Mmio mmio = openMmio(accelerator);
    enyx_hw_core* const core = registersOf(mmio);
    EXPECT_EQ(readRegister(core, card_reg::kHardwareVersion), 9U);
    EXPECT_EQ(readRegister(core, card_reg::kTradingDate), 20250115U);
    EXPECT_NULL(openUp(accelerator, 2), EBUSY);
    EXPECT_FAILS(enyx_hw_core_lock(core), EIO);
    EXPECT_EQ(enyx_hw_core_lock(core), 0);
    EXPECT_EQ(enyx_hw_core_unlock(core), 0);
    enyx_sim_instrument instrument{};
    EXPECT_EQ(enyx_sim_find_instrument(0, "SR505", &instrument), 0);
    EXPECT_EQ(instrument.row, 3U);
    EXPECT_STREQ(reason, "untouched");
}

TEST_F(ScenarioControl, TheCardsAreThoseUpToTheBusOfTheScenario) {
    ASSERT_EQ(load("[card]\nbus = 2\nfibre_status = 3\n"), 0) << reason;
    const Mmio mmio = openMmio(openAccelerator(2));
    EXPECT_EQ(readRegister(registersOf(mmio), card_reg::kVerdictOrFibre), 3U);
    EXPECT_EQ(openAccelerator(3), nullptr);
}

TEST_F(ScenarioControl, ALaterScenarioOwesNothingToTheLast) {
    ASSERT_EQ(load("[fault a]\nkind = call_fails\ncall = enyx_hw_core_lock\ntimes = all\nerrno = EIO\n"), 0);
    ASSERT_EQ(load(""), 0);
    const Mmio mmio = openMmio(openAccelerator());
    enyx_hw_core* const core = registersOf(mmio);
    EXPECT_EQ(enyx_hw_core_lock(core), 0);
    EXPECT_EQ(enyx_hw_core_unlock(core), 0);
}

TEST_F(ScenarioControl, AnUnusableScenarioChangesNothingAndSaysWhy) {
    const Mmio mmio = openMmio(openAccelerator());
    enyx_hw_core* const core = registersOf(mmio);
    EXPECT_EQ(writeRegister(core, card_reg::kTradingDate, 20250115), 0);
    EXPECT_FAILS(load("[card]\nseed = x\n"), EINVAL);
    EXPECT_EQ(std::string(reason), directory.Path("a.ini") +
                                       ":2: seed: \"x\" will not do; give a number from 0 to "
                                       "18446744073709551615");
    EXPECT_EQ(readRegister(core, card_reg::kTradingDate), 20250115U);
}

TEST_F(ScenarioControl, TheReasonIsCutToItsRoomOrLeftOut) {
    char small[6] = {1, 1, 1, 1, 1, 1};
    EXPECT_FAILS(enyx_sim_load_scenario("gone.ini", small, 5), EINVAL);
    EXPECT_STREQ(small, "gone");
    EXPECT_EQ(small[5], 1);
    EXPECT_FAILS(enyx_sim_load_scenario("gone.ini", small, 0), EINVAL);
    EXPECT_FAILS(enyx_sim_load_scenario("gone.ini", nullptr, 5), EINVAL);
    EXPECT_FAILS(enyx_sim_load_scenario(nullptr, small, 5), EINVAL);
}
