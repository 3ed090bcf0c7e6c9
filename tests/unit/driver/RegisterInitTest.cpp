#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>

#include "tests/unit/driver/DrvFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RegisterInit : public DrvFixture {
protected:
    EnyxRegInitParms_t parms{0, 474};
    CDrvEnyxReg drv;
};

TEST_F(RegisterInit, ANewDriverHasNoCoreAndIsNotTheInstance) {
    EXPECT_EQ(drv.m_lpCore, nullptr);
    EXPECT_FALSE(drv.m_bInited);
    EXPECT_EQ(CDrvEnyxReg::instance, nullptr);
}

TEST_F(RegisterInit, FindsTheCoreOfTheRecordBelowTheRootOfItsBus) {
    hw.cards = 4;
    hw.cores = {{475, 1}};
    parms = {3, 475};

    EXPECT_EQ(drv.Init(&parms), 0);

    EXPECT_NE(drv.m_lpCore, nullptr);
    EXPECT_TRUE(drv.m_bInited);
    const Lines calls = hw.TakeCalls();
    EXPECT_EQ(calls[1], "filter_set_index filter1 3 -> 0");
    EXPECT_EQ(calls.back(), "core_enumerate root1 475 1 -> 1 core1");
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(RegisterInit, ResetsTheCardOnce) {
    EXPECT_EQ(drv.Init(&parms), 0);

    EXPECT_EQ(hw.Count("core_reset"), 1u);
    EXPECT_THAT(clock.Sleeps(), ElementsAre(1u));
}

TEST_F(RegisterInit, WithoutARecordFails) {
    EXPECT_EQ(drv.Init(nullptr), -1);

    EXPECT_THAT(log.Take(), ElementsAre("ERROR Init param error!"));
    EXPECT_THAT(hw.TakeCalls(), IsEmpty());
}

TEST_F(RegisterInit, WithoutARecordFailsAlsoAfterASuccess) {
    drv.Init(&parms);

    EXPECT_EQ(drv.Init(nullptr), -1);

    EXPECT_THAT(log.Take(), ElementsAre("ERROR Init param error!"));
}

TEST_F(RegisterInit, ASecondCallAfterASuccessReturnsAtOnceWhateverItsIds) {
    drv.Init(&parms);
    enyx_hw_core* const core = drv.m_lpCore;
    hw.TakeCalls();
    EnyxRegInitParms_t others{65535, 1};

    EXPECT_EQ(drv.Init(&others), 0);

    EXPECT_EQ(drv.m_lpCore, core);
    EXPECT_THAT(hw.TakeCalls(), IsEmpty());
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(RegisterInit, ABusWithoutACardFailsAndSaysSoAtEveryStep) {
    hw.AnswerCount("enumerate_accelerators", 0, false, ENODEV);

    EXPECT_EQ(drv.Init(&parms), -1);

    EXPECT_FALSE(drv.m_bInited);
    EXPECT_THAT(log.Take(),
                ElementsAre("ERROR Could not find accelerator. ernno:19, msg:No such device, get acc num:0.",
                            "ERROR Get core error. busId:0, coreId:474",
                            "ERROR enumerate core error!, get core num -1, msg:No such device, busid:0, coreId:474."));
}

TEST_F(RegisterInit, ABusThatCannotExistFails) {
    parms = {65535, 474};

    EXPECT_EQ(drv.Init(&parms), -1);

    const Lines lines = log.Take();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1], "ERROR Get core error. busId:65535, coreId:474");
    EXPECT_THAT(lines[2], testing::MatchesRegex("ERROR enumerate core error!, get core num -1, msg:.*, busid:65535, "
                                                "coreId:474\\."));
}

TEST_F(RegisterInit, ACardWithoutThatCoreFails) {
    hw.AnswerCount("core_enumerate", 0, false, ENOENT);

    EXPECT_EQ(drv.Init(&parms), -1);

    EXPECT_FALSE(drv.m_bInited);
    EXPECT_THAT(log.Take(), ElementsAre("ERROR enumerate core error!, get core num 0, msg:No such file or directory, "
                                        "busid:0, coreId:474."));
}

TEST_F(RegisterInit, ACardWithTwoCoresOfThatIdFails) {
    hw.AnswerCount("core_enumerate", 2, true, EEXIST);

    EXPECT_EQ(drv.Init(&parms), -1);

    EXPECT_FALSE(drv.m_bInited);
    EXPECT_THAT(log.Take(), ElementsAre("ERROR enumerate core error!, get core num 2, msg:File exists, busid:0, "
                                        "coreId:474."));
}

TEST_F(RegisterInit, ACountOfOneWithoutACoreFails) {
    hw.AnswerCount("core_enumerate", 1, false, EIO);

    EXPECT_EQ(drv.Init(&parms), -1);

    EXPECT_FALSE(drv.m_bInited);
    EXPECT_THAT(log.Take(), ElementsAre("ERROR enumerate core error!, get core num 1, msg:Input/output error, "
                                        "busid:0, coreId:474."));
}

TEST_F(RegisterInit, AFailedEnumerationOfCoresFails) {
    hw.Fail("core_enumerate", EIO);

    EXPECT_EQ(drv.Init(&parms), -1);

    EXPECT_THAT(log.Take(),
                ElementsAre("ERROR Could not enumerate cores, busId:0, coreId:474. errmsg:Input/output error.",
                            "ERROR enumerate core error!, get core num -1, msg:Input/output error, busid:0, "
                            "coreId:474."));
}

TEST_F(RegisterInit, CanBeTriedAgainAfterAFailure) {
    hw.Fail("core_enumerate", EIO);
    EXPECT_EQ(drv.Init(&parms), -1);

    EXPECT_EQ(drv.Init(&parms), 0);

    EXPECT_TRUE(drv.m_bInited);
}

TEST_F(RegisterInit, CallsOnSeveralThreadsOpenTheCoreOnce) {
    constexpr int kThreads = 4;
    int results[kThreads] = {-1, -1, -1, -1};
    std::atomic<int> calling{0};
    // The first thread stays inside its Init until the others have come as far as theirs.
    hw.onCall = [&](const char*) {
        while (calling < kThreads) std::this_thread::yield();
        for (int i = 0; i < 100; ++i) std::this_thread::yield();
    };
    std::vector<std::thread> threads;

    for (int& mine : results) {
        threads.emplace_back([&] {
            ++calling;
            mine = drv.Init(&parms);
        });
    }
    for (std::thread& thread : threads) thread.join();
    hw.onCall = nullptr;

    EXPECT_THAT(results, testing::Each(0));
    EXPECT_EQ(hw.Count("core_enumerate"), 1u);
}

TEST_F(RegisterInit, TheEndOfADriverReleasesNothing) {
    auto driver = std::make_unique<CDrvEnyxReg>();
    driver->Init(&parms);
    hw.TakeCalls();

    driver.reset();

    EXPECT_THAT(hw.TakeCalls(), IsEmpty());
    EXPECT_THAT(hw.Live(), ElementsAre("mmio1"));
}

TEST_F(RegisterInit, TheInstanceDoesNotDangleWhenItsDriverEnds) {
    CDrvEnyxReg::instance = new CDrvEnyxReg;

    delete CDrvEnyxReg::instance;

    EXPECT_EQ(CDrvEnyxReg::instance, nullptr);
}

TEST_F(RegisterInit, AnotherDriversEndLeavesTheInstanceAlone) {
    CDrvEnyxReg::instance = &drv;

    { const CDrvEnyxReg other; }

    EXPECT_EQ(CDrvEnyxReg::instance, &drv);
    CDrvEnyxReg::instance = nullptr;
}

}  // namespace
