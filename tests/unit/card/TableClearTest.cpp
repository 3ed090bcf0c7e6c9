#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>
#include <vector>

#include "src/card/FpgaServ.h"
#include "src/config/ConfigFile.h"
#include "tests/doubles/LogLines.h"
#include "tests/support/FakeTime.h"

#include "tests/unit/card/MutexProbe.h"
#include "tests/unit/card/WriteStream.h"

namespace {

using test_support::FirstDifference;
using test_support::Steps;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Vexo2_U50::CZceConfigFile;
using Vexo2_U50::CZceFpgaServ;

// Constant-initialised, so this sees the value that the library is loaded with.
const bool g_resetAtLoad = CZceFpgaServ::m_bReseted;

class TableClear : public testing::Test {
protected:
    TableClear() : m_oldSwitch(CZceConfigFile::m_SwitchReg) {
        CZceFpgaServ::m_bReseted = false;
        master.Init(&drv);
        second.Init(&drv);
    }
    ~TableClear() override {
        CZceFpgaServ::m_bReseted = false;
        CZceConfigFile::m_SwitchReg = m_oldSwitch;
    }
    // The log capture swallows what a failed expectation prints.
    void TearDown() override {
        if (!HasFailure()) return;
        for (const std::string& line : log.Take()) std::cerr << line << '\n';
    }

    /// Looks at the lock at the first write and at every 50,000th after it.
    void WatchLock() {
        drv.onWrite = [this] {
            if (drv.steps.size() % 50000 == 0) lockHeld.push_back(test_support::IsHeld(CZceFpgaServ::subscribe_mutex));
        };
    }

    test_support::FakeTime clock;
    test_support::LogLines log;
    test_support::WriteStream drv;
    Vexo2_U50::InstIdToIndex idToIndex;
    CZceFpgaServ master{idToIndex, 0};
    CZceFpgaServ second{idToIndex, 1};
    std::vector<bool> lockHeld;

private:
    std::uint32_t m_oldSwitch;
};

// Rows 0 to 4094 with all their 64 words, then word 0 of row 4095; single-leg before combination.
Steps ClearSequence() {
    Steps steps;
    for (const std::uint32_t base : {0x11000U, 0x12000U}) {
        for (std::uint32_t row = 0; row <= 4095; ++row) {
            for (std::uint32_t word = 0; word < (row == 4095 ? 1U : 64U); ++word) {
                steps.push_back({'W', base + 1, 0});
                steps.push_back({'W', base, row * 64 + word});
            }
        }
    }
    return steps;
}

// Word 0 of all 8192 rows of both tables, six times.
Steps UnsubscribeSequence() {
    Steps steps;
    for (int pass = 1; pass <= 6; ++pass) {
        for (const std::uint32_t base : {0x11000U, 0x12000U}) {
            for (std::uint32_t row = 0; row <= 8191; ++row) {
                steps.push_back({'W', base + 1, 0});
                steps.push_back({'W', base, row * 64});
            }
        }
    }
    return steps;
}

// ---- clear ----

TEST_F(TableClear, ClearZeroesEveryWordUpToTheFirstOfRow4095InBothTables) {
    master.ClearAllInstTable();

    EXPECT_THAT(drv.steps, SizeIs(2 * 262081 * 2));
    EXPECT_EQ(FirstDifference(drv.steps, ClearSequence()), "");
    EXPECT_THAT(drv.TakeCalls(), IsEmpty()) << "neither logged writes nor read-backs";
}

TEST_F(TableClear, ClearLogsTheChannelOnceAtTheEnd) {
    second.ClearAllInstTable();

    EXPECT_THAT(log.Take(), ElementsAre("INFO [channel:1] Clear all inst table over"));
}

TEST_F(TableClear, ClearHoldsTheLockThroughout) {
    WatchLock();

    master.ClearAllInstTable();

    EXPECT_THAT(lockHeld, SizeIs(21));
    EXPECT_THAT(lockHeld, Each(true));
    EXPECT_FALSE(test_support::IsHeld(CZceFpgaServ::subscribe_mutex)) << "free again afterwards";
}

TEST_F(TableClear, ClearGoesOnWhenEveryWriteFails) {
    drv.result = -1;

    master.ClearAllInstTable();

    EXPECT_EQ(FirstDifference(drv.steps, ClearSequence()), "");
}

// ---- unsubscribe ----

TEST_F(TableClear, UnsubscribeZeroesTheMaskOfAll8192RowsOfBothTablesSixTimes) {
    master.UnSubsAllInsts();

    EXPECT_THAT(drv.steps, SizeIs(6 * 2 * 8192 * 2));
    EXPECT_EQ(FirstDifference(drv.steps, UnsubscribeSequence()), "");
    EXPECT_THAT(drv.TakeCalls(), IsEmpty()) << "neither logged writes nor read-backs";
    EXPECT_THAT(log.Take(), ElementsAre("INFO Unsubscribe all insts now"));
}

TEST_F(TableClear, UnsubscribeTakesNoLock) {
    WatchLock();

    master.UnSubsAllInsts();

    EXPECT_THAT(lockHeld, ElementsAre(false, false, false, false));
}

TEST_F(TableClear, UnsubscribeGoesOnWhenEveryWriteFails) {
    drv.result = -1;

    master.UnSubsAllInsts();

    EXPECT_EQ(FirstDifference(drv.steps, UnsubscribeSequence()), "");
}

// ---- reset ----

TEST_F(TableClear, NothingHasBeenResetWhenTheLibraryIsLoaded) { EXPECT_FALSE(g_resetAtLoad); }

TEST_F(TableClear, ResetHoldsTheResetRegisterForASecondAndThenClearsBothTables) {
    clock.OnSleep([this](unsigned int seconds) { drv.steps.push_back({'S', 0, seconds}); });

    master.ResetFpga();

    Steps expected = {{'L', 0x10, 1}, {'S', 0, 1}, {'L', 0x10, 0}};
    const Steps clear = ClearSequence();
    expected.insert(expected.end(), clear.begin(), clear.end());
    EXPECT_EQ(FirstDifference(drv.steps, expected), "");
    EXPECT_THAT(log.Take(),
                ElementsAre("INFO [channel:0] Clear all inst table over", "INFO Reset and Clear fpga table over."));
}

TEST_F(TableClear, ResetCountsAsDoneOnlyOnceTheTablesAreClear) {
    bool doneEarly = false;
    drv.onWrite = [&doneEarly] { doneEarly = doneEarly || CZceFpgaServ::m_bReseted; };

    master.ResetFpga();

    EXPECT_FALSE(doneEarly);
    EXPECT_TRUE(CZceFpgaServ::m_bReseted);
}

TEST_F(TableClear, ResetByTheMasterIsSeenByEveryChannel) {
    EXPECT_FALSE(second.bIsReseted());

    master.ResetFpga();

    EXPECT_TRUE(master.bIsReseted());
    EXPECT_TRUE(second.bIsReseted());
}

TEST_F(TableClear, SecondResetPulsesAgain) {
    master.ResetFpga();
    drv.steps.clear();

    master.ResetFpga();

    EXPECT_EQ(test_support::Text(drv.steps, 0), "L 0x10 0x1");
    EXPECT_EQ(test_support::Text(drv.steps, 1), "L 0x10 0x0");
    EXPECT_TRUE(master.bIsReseted());
    EXPECT_THAT(clock.Sleeps(), ElementsAre(1, 1));
}

TEST_F(TableClear, ResetOnAnyOtherChannelDoesNothing) {
    for (unsigned int chan = 1; chan < 16; ++chan) {
        CZceFpgaServ service(idToIndex, chan);
        service.Init(&drv);
        service.ResetFpga();
    }

    EXPECT_THAT(drv.steps, IsEmpty());
    EXPECT_THAT(drv.TakeCalls(), IsEmpty());
    EXPECT_THAT(clock.Sleeps(), IsEmpty());
    EXPECT_THAT(log.Take(), IsEmpty());
    EXPECT_FALSE(second.bIsReseted());
}

// ---- switches ----

TEST_F(TableClear, StartDecodeWritesTheFeedsThatAreSwitchedOn) {
    const std::vector<std::string> lines = {"INFO Now Fpga start trans subscribe result! write 0x11 value:0x0.",
                                            "INFO Now Fpga start trans subscribe result! write 0x11 value:0x1.",
                                            "INFO Now Fpga start trans subscribe result! write 0x11 value:0x2.",
                                            "INFO Now Fpga start trans subscribe result! write 0x11 value:0x3."};
    for (std::uint32_t feeds = 0; feeds < lines.size(); ++feeds) {
        CZceConfigFile::m_SwitchReg = feeds;
        drv.steps.clear();

        master.StartDecode();

        EXPECT_EQ(FirstDifference(drv.steps, {{'L', 0x11, feeds}}), "");
        EXPECT_THAT(log.Take(), ElementsAre(lines[feeds]));
    }
}

TEST_F(TableClear, StartTransSwitchesTheContractMapOn) {
    master.FpgaStartTrans();

    EXPECT_EQ(FirstDifference(drv.steps, {{'L', 0x12, 1}}), "");
    EXPECT_THAT(log.Take(), ElementsAre("INFO Fpga start transmit inst map pkt."));
}

TEST_F(TableClear, CloseTransSwitchesTheContractMapOff) {
    master.FpgaCloseTrans();

    EXPECT_EQ(FirstDifference(drv.steps, {{'L', 0x12, 0}}), "");
    EXPECT_THAT(log.Take(), ElementsAre("INFO Fpga stop transmit inst map pkt."));
}

TEST_F(TableClear, SwitchesWorkOnEveryChannel) {
    CZceConfigFile::m_SwitchReg = 3;

    second.StartDecode();
    second.FpgaStartTrans();
    second.FpgaCloseTrans();

    EXPECT_EQ(FirstDifference(drv.steps, {{'L', 0x11, 3}, {'L', 0x12, 1}, {'L', 0x12, 0}}), "");
}

TEST_F(TableClear, SwitchesTakeNoLock) {
    WatchLock();

    master.StartDecode();
    drv.steps.clear();
    master.FpgaStartTrans();
    drv.steps.clear();
    master.FpgaCloseTrans();

    EXPECT_THAT(lockHeld, ElementsAre(false, false, false));
}

}  // namespace
