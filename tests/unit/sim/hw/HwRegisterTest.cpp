#include "tests/unit/sim/hw/HwFixture.h"

#include <thread>

namespace {

class RegisterAccess : public HwCardTest {};

}  // namespace

TEST_F(RegisterAccess, AWriteIsReadBack) {
    EXPECT_EQ(writeRegister(core, card_reg::kTradingDate, 20250115), 0);
    EXPECT_EQ(readRegister(core, card_reg::kTradingDate), 20250115U);
}

TEST_F(RegisterAccess, BitOffsetAndWidthNameTheField) {
    writeRegister(core, card_reg::kTradingDate, 0x11223344);
    const enyx_hw_register_description field{card_reg::kTradingDate * 4, 8, 16};
    EXPECT_EQ(enyx_hw_write(core, &field, 0xAABB), 0);
    EXPECT_EQ(readRegister(core, card_reg::kTradingDate), 0x11AABB44U);
    std::uint64_t value = 0;
    EXPECT_EQ(enyx_hw_read(core, &field, &value), 0);
    EXPECT_EQ(value, 0xAABBU);
}

TEST_F(RegisterAccess, ImpossibleFieldsFail) {
    std::uint64_t value = 0;
    const enyx_hw_register_description odd{0x408, 0, 12};
    const enyx_hw_register_description outside{0x80000, 0, 32};
    for (const auto* field : {&odd, &outside}) {
        EXPECT_FAILS(enyx_hw_read(core, field, &value), EINVAL);
        EXPECT_FAILS(enyx_hw_write(core, field, 1), EINVAL);
    }
}

TEST_F(RegisterAccess, NullArgumentsFail) {
    const enyx_hw_register_description field{0x408, 0, 32};
    std::uint64_t value = 0;
    EXPECT_FAILS(enyx_hw_read(nullptr, &field, &value), EINVAL);
    EXPECT_FAILS(enyx_hw_read(core, nullptr, &value), EINVAL);
    EXPECT_FAILS(enyx_hw_read(core, &field, nullptr), EINVAL);
    EXPECT_FAILS(enyx_hw_write(nullptr, &field, 1), EINVAL);
    EXPECT_FAILS(enyx_hw_write(core, nullptr, 1), EINVAL);
    EXPECT_FAILS(enyx_hw_core_reset(nullptr), EINVAL);
    EXPECT_FAILS(enyx_hw_core_lock(nullptr), EINVAL);
    EXPECT_FAILS(enyx_hw_core_unlock(nullptr), EINVAL);
}

TEST_F(RegisterAccess, TheRootCoreHasNoRegisters) {
    const enyx_hw_register_description field{0x408, 0, 32};
    std::uint64_t value = 0;
    EXPECT_FAILS(enyx_hw_read(rootOf(mmio), &field, &value), ENXIO);
    EXPECT_FAILS(enyx_hw_write(rootOf(mmio), &field, 1), ENXIO);
}

TEST_F(RegisterAccess, AResetOfEitherCoreResetsTheCard) {
    for (enyx_hw_core* one : {rootOf(mmio), core}) {
        writeRegister(core, card_reg::kDecodeSwitch, 3);
        EXPECT_EQ(enyx_hw_core_reset(one), 0);
        EXPECT_EQ(readRegister(core, card_reg::kDecodeSwitch), 0U);
    }
}

TEST_F(RegisterAccess, AccessNeedsNoLockAndAnotherThreadsLockDoesNotStopIt) {
    ASSERT_EQ(enyx_hw_core_lock(core), 0);
    std::thread([this] { EXPECT_EQ(writeRegister(core, card_reg::kTradingDate, 7), 0); }).join();
    EXPECT_EQ(enyx_hw_core_unlock(core), 0);
    EXPECT_EQ(readRegister(core, card_reg::kTradingDate), 7U);
}

TEST_F(RegisterAccess, ASecondLockByTheSameThreadFailsInsteadOfHanging) {
    ASSERT_EQ(enyx_hw_core_lock(core), 0);
    EXPECT_FAILS(enyx_hw_core_lock(core), EDEADLK);
    EXPECT_EQ(enyx_hw_core_unlock(core), 0);
}

TEST_F(RegisterAccess, OnlyTheHolderUnlocks) {
    EXPECT_FAILS(enyx_hw_core_unlock(core), EPERM);
    ASSERT_EQ(enyx_hw_core_lock(core), 0);
    std::thread([this] { EXPECT_FAILS(enyx_hw_core_unlock(core), EPERM); }).join();
    EXPECT_EQ(enyx_hw_core_unlock(core), 0);
}

TEST_F(RegisterAccess, AThreadThatEndsWithTheLockReleasesIt) {
    std::thread([this] { EXPECT_EQ(enyx_hw_core_lock(core), 0); }).join();
    EXPECT_EQ(enyx_hw_core_lock(core), 0);
    EXPECT_EQ(enyx_hw_core_unlock(core), 0);
}

TEST_F(RegisterAccess, RootAndRegisterCoreHaveLocksOfTheirOwn) {
    ASSERT_EQ(enyx_hw_core_lock(rootOf(mmio)), 0);
    EXPECT_EQ(enyx_hw_core_lock(core), 0);
    EXPECT_EQ(enyx_hw_core_unlock(core), 0);
    EXPECT_EQ(enyx_hw_core_unlock(rootOf(mmio)), 0);
}

TEST_F(RegisterAccess, AllHandlesOfACoreShareItsLock) {
    const Mmio other = openMmio(accelerator);
    ASSERT_EQ(enyx_hw_core_lock(core), 0);
    EXPECT_FAILS(enyx_hw_core_lock(registersOf(other)), EDEADLK);
    EXPECT_EQ(enyx_hw_core_unlock(registersOf(other)), 0);
}

TEST_F(RegisterAccess, CardsHaveRegistersOfTheirOwn) {
    powerCycleWith([](enyx_sim_config& c) { c.cards = 2; });
    const Mmio second = openMmio(openAccelerator(1));
    writeRegister(core, card_reg::kTradingDate, 1);
    writeRegister(registersOf(second), card_reg::kTradingDate, 2);
    EXPECT_EQ(readRegister(core, card_reg::kTradingDate), 1U);
    EXPECT_EQ(readRegister(registersOf(second), card_reg::kTradingDate), 2U);
}
