#include <gtest/gtest-spi.h>

#include <cerrno>
#include <memory>
#include <thread>

#include "enyx-hw-c/enyx_hw.h"
#include "tests/doubles/FakeDrv.h"
#include "tests/unit/driver/DrvFixture.h"

// The scripted card guards every test over it, so it is shown here to bite.
namespace {

using test_support::FakeDrv;
using test_support::FakeEnyxHw;
using testing::ElementsAre;

TEST(ScriptedCard, FailsATestThatDestroysAHandleTwice) {
    FakeEnyxHw hw;
    enyx_hw_filter* const filter = enyx_hw_filter_create();
    enyx_hw_filter_destroy(filter);

    EXPECT_NONFATAL_FAILURE(enyx_hw_filter_destroy(filter),
                            "enyx_hw_filter_destroy was given a handle that is filter1 (dead)");
}

TEST(ScriptedCard, FailsATestThatUsesADeadHandle) {
    FakeEnyxHw hw;
    enyx_hw_filter* const filter = enyx_hw_filter_create();
    enyx_hw_filter_destroy(filter);

    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(enyx_hw_filter_set_index(filter, 0), -1),
                            "enyx_hw_filter_set_index was given a handle that is filter1 (dead)");
}

TEST(ScriptedCard, FailsATestThatUsesANullHandle) {
    FakeEnyxHw hw;

    EXPECT_NONFATAL_FAILURE(enyx_hw_mmio_destroy(nullptr), "enyx_hw_mmio_destroy was given a handle that is null");
}

TEST(ScriptedCard, FailsATestThatUsesAHandleOfAnEarlierCard) {
    auto earlier = std::make_unique<FakeEnyxHw>();
    enyx_hw_filter* const filter = enyx_hw_filter_create();
    earlier.reset();
    FakeEnyxHw hw;

    EXPECT_NONFATAL_FAILURE(enyx_hw_filter_destroy(filter),
                            "enyx_hw_filter_destroy was given a handle that is unknown");
}

TEST(ScriptedCard, FailsATestThatCallsWithoutACard) {
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(enyx_hw_filter_create(), nullptr),
                            "enyx_hw_filter_create called while there is no FakeEnyxHw");
}

TEST(ScriptedCard, FailsATestWhoseScriptWasNeverMet) {
    auto hw = std::make_unique<FakeEnyxHw>();
    hw->Fail("mmio_create", EIO);

    EXPECT_NONFATAL_FAILURE(hw.reset(), "no call met the scripted failure of mmio_create");
}

class ScriptedCore : public RegisterFixture {
protected:
    const enyx_hw_register_description field{0x408, 0, 32};
    std::uint64_t value = 0;
};

TEST_F(ScriptedCore, FailsATestThatReadsWithoutTheLock) {
    EXPECT_NONFATAL_FAILURE(enyx_hw_read(drv.m_lpCore, &field, &value), "enyx_hw_read without the lock of the core");
}

TEST_F(ScriptedCore, FailsATestThatWritesUnderTheLockOfAnotherThread) {
    std::thread([this] { enyx_hw_core_lock(drv.m_lpCore); }).join();

    EXPECT_NONFATAL_FAILURE(enyx_hw_write(drv.m_lpCore, &field, 1), "enyx_hw_write without the lock of the core");
    EXPECT_NONFATAL_FAILURE(enyx_hw_core_unlock(drv.m_lpCore), "enyx_hw_core_unlock without the lock of the core");
}

TEST_F(ScriptedCore, FailsATestThatLocksTwice) {
    enyx_hw_core_lock(drv.m_lpCore);

    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(enyx_hw_core_lock(drv.m_lpCore), -1),
                            "enyx_hw_core_lock by the thread that holds the lock");
    enyx_hw_core_unlock(drv.m_lpCore);
}

TEST_F(ScriptedCore, FailsOnlyTheScriptedCalls) {
    hw.Fail("read", EIO, 2, 2);
    unsigned int word = 0;
    std::vector<int> results;

    for (int i = 0; i < 5; ++i) results.push_back(drv.ReadInt32(0x102, word));

    EXPECT_THAT(results, ElementsAre(0, -1, -1, 0, 0));
}

TEST_F(ScriptedCore, ForwardsRegistersToAModelOfTheTables) {
    FakeDrv model;
    model.SetId(0, 7, "SR505");
    hw.ForwardRegistersTo(model);
    unsigned int lastIdWord = 0;

    drv.WriteInt32(0x11002, 7 << 6 | 4);
    drv.ReadInt32(0x11003, lastIdWord);

    EXPECT_EQ(lastIdWord, model.words[0][7 << 6 | 1]) << "ids come back last word first";
    EXPECT_THAT(model.TakeCalls(), ElementsAre("W 0x11002 0x1c4", "R 0x11003"));
}

}  // namespace
