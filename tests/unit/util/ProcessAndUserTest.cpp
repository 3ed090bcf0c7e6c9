#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "VexoZceUtil.h"
#include "tests/support/CaptureOutput.h"
#include "tests/unit/util/FakeHost.h"

namespace {

using test_support::CaptureOutput;
using testing::ElementsAre;

/// Lets the process go by another name while it lives.
class ProgramName {
public:
    explicit ProgramName(std::string name) : m_name(std::move(name)), m_old(program_invocation_short_name) {
        program_invocation_short_name = m_name.data();
    }
    ~ProgramName() { program_invocation_short_name = m_old; }
    ProgramName(const ProgramName&) = delete;
    ProgramName& operator=(const ProgramName&) = delete;

private:
    std::string m_name;
    char* m_old;
};

// ---- the delivery service ----

struct SiblingRow {
    const char* name;
    const char* caller;
    int listed;
    bool running;
};

class SiblingTable : public testing::TestWithParam<SiblingRow> {
protected:
    FakeHost host;
};

TEST_P(SiblingTable, TellsWhetherTheServiceRuns) {
    const ProgramName caller(GetParam().caller);
    std::vector<std::string> lines = {"UID          PID    PPID  C STIME TTY          TIME CMD",
                                      "root           1       0  0 08:00 ?        00:00:01 /sbin/init"};
    for (int i = 0; i < GetParam().listed; ++i) {
        lines.push_back("trader   " + std::to_string(4000 + i) + "   1  0 08:30 ?  00:00:01 ./RwDeliverDmaServer");
    }
    host.Install("ps", lines);

    EXPECT_EQ(IsProdProgRunning(), GetParam().running);
}

INSTANTIATE_TEST_SUITE_P(
    DeliveryService, SiblingTable,
    testing::Values(SiblingRow{"NoneSeenByAnApplication", "trader", 0, false},
                    SiblingRow{"OneSeenByAnApplication", "trader", 1, true},
                    SiblingRow{"TwoSeenByAnApplication", "trader", 2, false},
                    SiblingRow{"ThreeSeenByAnApplication", "trader", 3, false},
                    SiblingRow{"NoneSeenByTheService", "RwDeliverDmaServer", 0, false},
                    SiblingRow{"OnlyItselfSeenByTheService", "RwDeliverDmaServer", 1, false},
                    SiblingRow{"ItselfAndAnotherSeenByTheService", "RwDeliverDmaServer", 2, true},
                    SiblingRow{"ThreeSeenByTheService", "RwDeliverDmaServer", 3, false},
                    SiblingRow{"OneSeenByAProgramWhoseNameBeginsLikeTheService", "RwDeliverDmaServer_v2", 1, false},
                    SiblingRow{"TwoSeenByAProgramWhoseNameBeginsLikeTheService", "RwDeliverDmaServer_v2", 2, true},
                    SiblingRow{"OneSeenByAProgramWithTheLastLetterMissing", "RwDeliverDmaServe", 1, true},
                    SiblingRow{"OneSeenByAProgramWhoseNameOnlyContainsIt", "myRwDeliverDmaServer", 1, true},
                    SiblingRow{"OneSeenByAProgramWithoutAName", "", 1, true}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(DeliveryService, IsAskedForWithThePublishedCommand) {
    FakeHost host;
    host.Install("ps", {});

    IsProdProgRunning();

    EXPECT_THAT(host.Commands(), ElementsAre("ps -ef | grep -w RwDeliverDmaServer | grep -v grep"));
}

TEST(DeliveryService, IsOnlyCountedAsAWholeWordAndNeverTheSearchItself) {
    FakeHost host;
    host.Install("ps", {"trader 4000 1 0 08:30 ? 00:00:01 ./RwDeliverDmaServerOld",
                        "trader 4001 1 0 08:30 ? 00:00:01 grep -w RwDeliverDmaServer"});

    EXPECT_FALSE(IsProdProgRunning());
}

TEST(DeliveryService, ACommandLineThatFillsTheLineBufferCountsOnce) {
    FakeHost host;
    host.Install("ps", {"RwDeliverDmaServer " + std::string(2046 - 19, 'x')});

    EXPECT_TRUE(IsProdProgRunning());
}

TEST(DeliveryService, ACommandLineLongerThanTheLineBufferCountsTwice) {
    FakeHost host;
    host.Install("ps", {"RwDeliverDmaServer " + std::string(2047 - 19, 'x')});

    EXPECT_FALSE(IsProdProgRunning());
}

TEST(DeliveryService, IsNotRunningWithoutPs) {
    FakeHost host;
    CaptureOutput shellComplaints(2);

    EXPECT_FALSE(IsProdProgRunning());
}

TEST(DeliveryService, IsNotRunningWhenNoCommandCanBeStarted) {
    FakeHost host;
    host.Install("ps", {"trader 4000 1 0 08:30 ? 00:00:01 ./RwDeliverDmaServer"});
    host.RefuseCommandsWith("ps");

    EXPECT_FALSE(IsProdProgRunning());
}

// ---- the user ----

TEST(CurrentUser, IsNamedAfterTheRealUserId) {
    FakeHost host;
    host.SetUser(4711, "trader");

    EXPECT_STREQ(GetCurUserName(), "trader");
}

TEST(CurrentUser, HasNoNameWithoutAnEntryInTheUserDatabase) {
    FakeHost host;
    host.SetUser(4711, nullptr);

    EXPECT_STREQ(GetCurUserName(), "");
}

struct UserRow {
    const char* name;
    const char* user;
    bool root;
};

class RootTable : public testing::TestWithParam<UserRow> {};

TEST_P(RootTable, OnlyTheWholeNameIsRoot) {
    FakeHost host;
    host.SetUser(0, GetParam().user);

    EXPECT_EQ(IsCurUserRoot(), GetParam().root);
}

INSTANTIATE_TEST_SUITE_P(CurrentUser, RootTable,
                         testing::Values(UserRow{"Root", "root", true}, UserRow{"LongerName", "root2", false},
                                         UserRow{"ShorterName", "roo", false}, UserRow{"OtherCase", "Root", false},
                                         UserRow{"EmptyName", "", false}, UserRow{"NoEntry", nullptr, false}),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
