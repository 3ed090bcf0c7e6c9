#include "tests/support/Child.h"
#include "tests/support/HostCalls.h"
#include "tests/unit/channel/ChannelFixture.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class WorkDirectory : public ChannelTest {
protected:
    WorkDirectory() {
        MakeChannel();
        SetClock(8, 30, 0);
    }
    void SetClock(int hour, int minute, int second) {
        time.SetLocal(day.year, day.month, day.day, hour, minute, second);
    }
};

TEST_F(WorkDirectory, WritableOneServesAtAnyHour) {
    HostCalls host;

    EXPECT_EQ(channel->ChkBinFileAuthority(), 0);

    ExpectTimeline({});
    EXPECT_THAT(host.accessModes, ElementsAre(R_OK | W_OK));
}

TEST_F(WorkDirectory, UnwritableOneIsExplainedWithItsOwner) {
    HostCalls host;
    host.accessError = EACCES;
    host.owner = 1007;
    host.users = {{0, "root"}, {1007, "trader"}};

    EXPECT_EQ(channel->ChkBinFileAuthority(), -1);

    ExpectTimeline({"INFO Error! Current user does not have read/write access to the current directory.",
                    "INFO Please run this program as user trader or root!"});
}

TEST_F(WorkDirectory, StatusThatCannotBeReadIsExplained) {
    HostCalls host;
    host.accessError = EACCES;
    host.statError = ENOENT;

    EXPECT_EQ(channel->ChkBinFileAuthority(), -1);

    ExpectTimeline({"INFO Failed to get directory permissions, msg:No such file or directory"});
}

TEST_F(WorkDirectory, OwnerWhoseLookUpFailsIsExplained) {
    HostCalls host;
    host.accessError = EACCES;
    host.userError = EIO;

    EXPECT_EQ(channel->ChkBinFileAuthority(), -1);

    ExpectTimeline({"INFO Failed to get user info, msg:Input/output error"});
}

// A look-up that only finds nobody sets no errno; the refused access must not show through as its reason.
TEST_F(WorkDirectory, OwnerThatTheUserDatabaseDoesNotKnowIsExplained) {
    HostCalls host;
    host.accessError = EACCES;

    EXPECT_EQ(channel->ChkBinFileAuthority(), -1);

    ExpectTimeline({"INFO Failed to get user info, msg:Success"});
}

struct HourRow {
    int hour, minute, second;
    bool trading;
};

class HourTable : public WorkDirectory, public testing::WithParamInterface<HourRow> {};

TEST_P(HourTable, UnwritableOneStopsAStartOnlyOutsideTradingHours) {
    HostCalls host;
    host.accessError = EACCES;
    host.users[0] = "root";
    SetClock(GetParam().hour, GetParam().minute, GetParam().second);

    EXPECT_EQ(channel->ChkBinFileAuthority(), GetParam().trading ? 0 : -1);
    EXPECT_EQ(Timeline().empty(), GetParam().trading);
}

INSTANTIATE_TEST_SUITE_P(WorkDirectory, HourTable,
                         testing::Values(HourRow{9, 0, 0, false}, HourRow{9, 0, 1, true}, HourRow{14, 59, 59, true},
                                         HourRow{15, 0, 0, false}, HourRow{21, 0, 0, false}, HourRow{21, 0, 1, true},
                                         HourRow{23, 29, 59, true}, HourRow{23, 30, 0, false}),
                         [](const auto& test) {
                             const HourRow& row = test.param;
                             return "At" + std::to_string(row.hour * 10000 + row.minute * 100 + row.second);
                         });

TEST_F(WorkDirectory, InTradingHoursItIsNotEvenLookedAt) {
    HostCalls host;
    SetClock(10, 0, 0);

    EXPECT_EQ(channel->ChkBinFileAuthority(), 0);
    EXPECT_THAT(host.accessModes, IsEmpty());
}

// The same against the system itself: an ordinary user in a directory that lacks one of the two rights.
class DirectoryMode : public WorkDirectory, public testing::WithParamInterface<mode_t> {};

TEST_P(DirectoryMode, OrdinaryUserNeedsBothRights) {
    const passwd* owner = ::getpwuid(::geteuid());
    ASSERT_NE(owner, nullptr);
    const std::string name = owner->pw_name;
    ASSERT_EQ(::chmod(dir.Path().c_str(), GetParam()), 0);

    const ChildResult child = RunInChild([&] {
        constexpr uid_t kNobody = 65534;
        if (::geteuid() == 0) {
            ASSERT_EQ(::setuid(kNobody), 0);
        }
        EXPECT_EQ(channel->ChkBinFileAuthority(), -1);
    });
    EXPECT_EQ(::chmod(dir.Path().c_str(), 0700), 0);

    EXPECT_TRUE(child.returned) << child.out << child.err;
    EXPECT_THAT(child.Lines(),
                ElementsAre("INFO Error! Current user does not have read/write access to the current directory.",
                            "INFO Please run this program as user " + name + " or root!"));
}

INSTANTIATE_TEST_SUITE_P(WorkDirectory, DirectoryMode, testing::Values(0555, 0333), [](const auto& test) {
    return std::string(test.param == 0555 ? "ReadableOnly" : "WritableOnly");
});

}  // namespace
