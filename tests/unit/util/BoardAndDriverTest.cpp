#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "VexoZceUtil.h"
#include "tests/support/CaptureOutput.h"
#include "tests/support/StandardStreams.h"
#include "tests/unit/util/FakeHost.h"

namespace {

using test_support::AreStandardNumbersFree;
using test_support::CaptureOutput;
using test_support::InProcessWithout;
using test_support::kAllStandardStreams;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned int kNotDetected = 6;

class HostWithBoards : public testing::Test {
protected:
    HostWithBoards() { g_curEnvBrdType = kNotDetected; }
    ~HostWithBoards() override { g_curEnvBrdType = kNotDetected; }

    void PlugIn(int eBoards, int xiBoards) {
        std::vector<std::string> lines = {"00:00.0 Host bridge: Intel Corporation Device 2020"};
        for (int i = 0; i < eBoards; ++i) lines.push_back("3b:00.0 Ethernet controller: Enyx SA Device 0001");
        for (int i = 0; i < xiBoards; ++i) lines.push_back("5e:00.0 Serial controller: Xilinx Corporation U50");
        host.Install("lspci", lines);
    }

    void LoadDrivers(const std::vector<std::string>& lines) { host.Install("lsmod", lines); }

    FakeHost host;
};

// ---- which board ----

struct BoardRow {
    const char* name;
    int eBoards, xiBoards, type;
};

class BoardTable : public HostWithBoards, public testing::WithParamInterface<BoardRow> {};

TEST_P(BoardTable, GivesTheBoardType) {
    PlugIn(GetParam().eBoards, GetParam().xiBoards);

    EXPECT_EQ(CheckEnvBoard(), GetParam().type);
    EXPECT_EQ(g_curEnvBrdType, static_cast<unsigned int>(GetParam().type));
}

INSTANTIATE_TEST_SUITE_P(HostWithBoards, BoardTable,
                         testing::Values(BoardRow{"NoBoard", 0, 0, 0}, BoardRow{"OneEBoard", 1, 0, 1},
                                         BoardRow{"OneXiBoard", 0, 1, 2}, BoardRow{"TwoEBoards", 2, 0, 3},
                                         BoardRow{"NineEBoards", 9, 0, 3}, BoardRow{"TwoXiBoards", 0, 2, 4},
                                         BoardRow{"NineXiBoards", 0, 9, 4}, BoardRow{"OneOfBothKinds", 1, 1, 5},
                                         BoardRow{"TwoEBoardsAndOneXiBoard", 2, 1, 5},
                                         BoardRow{"OneEBoardAndTwoXiBoards", 1, 2, 5},
                                         BoardRow{"TwoOfBothKinds", 2, 2, 5}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(HostWithBoards, IsAskedWithTheTwoPublishedCommandsInOrder) {
    PlugIn(0, 1);

    CheckEnvBoard();

    EXPECT_THAT(host.Commands(), ElementsAre("lspci | grep Enyx", "lspci | grep Xilinx"));
    EXPECT_STREQ(g_szBrdChkCmd[0], "lspci | grep Enyx");
    EXPECT_STREQ(g_szBrdChkCmd[1], "lspci | grep Xilinx");
}

TEST_F(HostWithBoards, IsNotAskedAgainAfterType2WasFoundEvenIfTheCardIsRemoved) {
    PlugIn(0, 1);
    ASSERT_EQ(CheckEnvBoard(), 2);
    const std::vector<std::string> before = host.Commands();
    PlugIn(0, 0);

    EXPECT_EQ(CheckEnvBoard(), 2);
    EXPECT_EQ(host.Commands(), before);
}

TEST_F(HostWithBoards, IsNotAskedAgainAfterNoBoardWasFoundEither) {
    PlugIn(0, 0);
    ASSERT_EQ(CheckEnvBoard(), 0);
    PlugIn(1, 0);

    EXPECT_EQ(CheckEnvBoard(), 0);
    EXPECT_EQ(host.Commands().size(), 2u);
}

TEST_F(HostWithBoards, WithoutLspciHasNoBoard) {
    CaptureOutput shellComplaints(2);

    EXPECT_EQ(CheckEnvBoard(), 0);
}

TEST_F(HostWithBoards, ThatCannotStartACommandHasNoBoard) {
    PlugIn(1, 1);
    host.RefuseCommandsWith("");

    EXPECT_EQ(CheckEnvBoard(), 0);
}

TEST_F(HostWithBoards, ALspciLineThatFillsTheLineBufferCountsOnce) {
    host.Install("lspci", {"Enyx" + std::string(254 - 4, 'x')});  // 254 characters, line feed and terminator: 256

    EXPECT_EQ(CheckEnvBoard(), 1);
}

TEST_F(HostWithBoards, ALspciLineLongerThanTheLineBufferCountsAsSeveralBoards) {
    host.Install("lspci", {"Enyx" + std::string(255 - 4, 'x')});

    EXPECT_EQ(CheckEnvBoard(), 3);
}

TEST(BoardTypeAtLoad, IsNotDetectedYet) { EXPECT_EQ(g_curEnvBrdType, kNotDetected); }

// ---- drivers ----

TEST_F(HostWithBoards, XiDriverIsInstalledWhenLsmodListsXdma) {
    LoadDrivers({"Module                  Size  Used by", "xdma                   98304  0"});

    EXPECT_TRUE(IsXiDriverInstalled());
    EXPECT_THAT(host.Commands(), ElementsAre("lsmod | grep xdma"));
}

TEST_F(HostWithBoards, XiDriverIsInstalledWhenSeveralLinesNameXdma) {
    LoadDrivers({"xdma                   98304  0", "videobuf               16384  1 xdma"});

    EXPECT_TRUE(IsXiDriverInstalled());
}

TEST_F(HostWithBoards, XiDriverIsNotInstalledWhenLsmodListsOnlyOthers) {
    LoadDrivers({"Module                  Size  Used by", "hfp                    98304  0"});

    EXPECT_FALSE(IsXiDriverInstalled());
}

TEST_F(HostWithBoards, XiDriverIsNotInstalledWithoutLsmod) {
    CaptureOutput shellComplaints(2);

    EXPECT_FALSE(IsXiDriverInstalled());
}

TEST_F(HostWithBoards, XiDriverIsNotInstalledWhenNoCommandCanBeStarted) {
    LoadDrivers({"xdma                   98304  0"});
    host.RefuseCommandsWith("lsmod");

    EXPECT_FALSE(IsXiDriverInstalled());
}

TEST_F(HostWithBoards, EDriverIsTakenAsLoadedWhetherOrNotLsmodListsIt) {
    LoadDrivers({"hfp                    98304  0"});
    EXPECT_TRUE(IsEDriverInstalled());
    LoadDrivers({});
    EXPECT_TRUE(IsEDriverInstalled());

    EXPECT_THAT(host.Commands(), ElementsAre("lsmod | grep hfp", "lsmod | grep hfp"));
}

TEST_F(HostWithBoards, EDriverIsTakenAsLoadedWithoutLsmod) {
    CaptureOutput shellComplaints(2);

    EXPECT_TRUE(IsEDriverInstalled());
}

TEST_F(HostWithBoards, EDriverIsNotLoadedWhenNoCommandCanBeStarted) {
    host.RefuseCommandsWith("hfp");

    EXPECT_FALSE(IsEDriverInstalled());
}

// ---- may the host run ----

constexpr char kNoEDriver[] = "There exist E board, but the E driver not installed, please install first.\n";
constexpr char kNoXiDriver[] = "There exist Xi board, but the Xi driver not installed, please install first.\n";

struct RunRow {
    const char* name;
    unsigned int type;
    bool eDriver, xiDriver;
    int result;
    const char* printed;
};

class RunTable : public HostWithBoards, public testing::WithParamInterface<RunRow> {};

TEST_P(RunTable, DecidesAndPrints) {
    g_curEnvBrdType = GetParam().type;
    if (!GetParam().eDriver) host.RefuseCommandsWith("hfp");
    LoadDrivers(GetParam().xiDriver ? std::vector<std::string>{"xdma 98304 0"} : std::vector<std::string>{});
    CaptureOutput out;

    const int result = CheckBeforeRun();

    EXPECT_EQ(out.Stop(), GetParam().printed);
    EXPECT_EQ(result, GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
    HostWithBoards, RunTable,
    testing::Values(
        RunRow{"NoBoard", 0, true, true, -1,
               "Unable to recongnize fpga board! if there indeed exist fpga board, firmware maybe error.\n"},
        RunRow{"OneEBoard", 1, true, false, 0, ""}, RunRow{"OneEBoardWithoutDriver", 1, false, true, -1, kNoEDriver},
        RunRow{"OneXiBoard", 2, false, true, 0, ""}, RunRow{"OneXiBoardWithoutDriver", 2, true, false, -1, kNoXiDriver},
        RunRow{"SeveralEBoards", 3, true, false, 0, ""},
        RunRow{"SeveralEBoardsWithoutDriver", 3, false, true, -1, kNoEDriver},
        RunRow{"SeveralXiBoards", 4, false, true, 0, ""},
        RunRow{"SeveralXiBoardsWithoutDriver", 4, true, false, -1, kNoXiDriver},
        RunRow{"BothKindsWithBothDriversPrintOnlyABlank", 5, true, true, 0, " \n"},
        RunRow{"BothKindsWithoutEDriver", 5, false, true, 0, "Attention! the E driver not installed! \n"},
        RunRow{"BothKindsWithoutXiDriver", 5, true, false, 0, "Attention! the Xi driver not installed! \n"},
        RunRow{"BothKindsWithoutAnyDriver", 5, false, false, 0,
               "Attention! the E driver not installed!Attention! the Xi driver not installed! \n"},
        RunRow{"UnknownType", 7, true, true, 0, "Unsupport board type.7\n"},
        RunRow{"UnknownTypeAboveTheSignedRange", 0xFFFFFFFFu, true, true, 0, "Unsupport board type.-1\n"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(HostWithBoards, CheckBeforeRunDetectsTheBoardItself) {
    PlugIn(0, 1);
    LoadDrivers({});
    CaptureOutput out;

    const int result = CheckBeforeRun();

    EXPECT_EQ(out.Stop(), kNoXiDriver);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(g_curEnvBrdType, 2u);
}

TEST_F(HostWithBoards, CheckBeforeRunNeedsNoDriverCommandWithoutABoard) {
    g_curEnvBrdType = 0;
    CaptureOutput out;

    CheckBeforeRun();

    EXPECT_THAT(host.Commands(), IsEmpty());
}

TEST_F(HostWithBoards, CommandsAreReadAboveTheStandardStreamsWhicheverAreClosed) {
    PlugIn(1, 1);
    LoadDrivers({"xdma 98304 0"});
    for (unsigned int closed = 0; closed <= kAllStandardStreams; ++closed) {
        SCOPED_TRACE(closed);
        const auto check = [&] {
            if (CheckEnvBoard() != 5 || !IsEDriverInstalled() || !IsXiDriverInstalled()) return 1;
            if (host.LowestDescriptor() <= STDERR_FILENO) return 2;
            return closed != kAllStandardStreams || AreStandardNumbersFree() ? 0 : 3;
        };
        EXPECT_EQ(InProcessWithout(closed, check), 0);
    }
}

}  // namespace
