// Who may use a hosted card, and what its host shows.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "HostProcess.h"

namespace hosted {
namespace {

using ::testing::HasSubstr;

constexpr const char* kNobody = "65534";

struct Sharing : ::testing::Test {
    CardDirectory directory;

    void SetUp() override {
        setenv("VEXO_SIM_CARD", "hosted", 1);
        chmod(directory.Path().c_str(), 0755);
    }
    void TearDown() override { unsetenv("VEXO_SIM_CARD"); }

    // A command that another user, without any group but his own, runs.
    static std::vector<std::string> AsNobody(const std::vector<std::string>& command) {
        std::vector<std::string> all = {"/usr/bin/setpriv", "--reuid", kNobody, "--regid", kNobody, "--clear-groups"};
        all.insert(all.end(), command.begin(), command.end());
        return all;
    }

    static bool CanRunAsNobody() {
        return geteuid() == 0 && Process(AsNobody({"/usr/bin/test", "-x", VEXO_CARD_USER})).Wait() == 0;
    }
};

TEST_F(Sharing, AnotherUserDoesNotFindACardThatIsNotShared) {
    if (!CanRunAsNobody()) GTEST_SKIP() << "only root can become another user, and that one must reach the programs";
    const Process host = StartHost({});
    Process user(AsNobody({VEXO_CARD_USER, "write", "262", "20310305"}));
    EXPECT_EQ(user.Wait(), ENODEV);
}

TEST_F(Sharing, AMemberOfTheGroupUsesTheCardThatIsSharedWithIt) {
    if (!CanRunAsNobody()) GTEST_SKIP() << "only root can become another user, and that one must reach the programs";
    const Process host = StartHost({"--group", "nogroup"});
    Process user(AsNobody({VEXO_CARD_USER, "write", "262", "20310305"}));
    EXPECT_EQ(user.Wait(), 0);
    EXPECT_THAT(StatusJson(), HasSubstr("\"trading_date\": 20310305"));
}

TEST_F(Sharing, AGroupThatDoesNotExistIsAnError) {
    Process host({VEXO_SIMCARD, "--group", "no-such-group"}, {}, directory.Path() + "/err");
    EXPECT_EQ(host.Wait(), 1);
    EXPECT_EQ(ReadFile(directory.Path() + "/err"), "vexo-simcard: there is no group no-such-group\n");
}

TEST_F(Sharing, ARecordThatCannotBeMadeIsAnError) {
    Process host({VEXO_SIMCARD, "--record", directory.Path() + "/nowhere/sent.pcapng"}, {}, directory.Path() + "/err");
    EXPECT_EQ(host.Wait(), 1);
    EXPECT_THAT(ReadFile(directory.Path() + "/err"), HasSubstr("nowhere/sent.pcapng: No such file or directory"));
    EXPECT_THAT(ReadFile(directory.Path() + "/err"), HasSubstr("vexo-simcard: nothing would be recorded\n"));
}

TEST_F(Sharing, TheHostShowsItsCardOnATerminalAndLeavesWhatItLastWas) {
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(terminal, 0);
    ASSERT_EQ(grantpt(terminal), 0);
    ASSERT_EQ(unlockpt(terminal), 0);
    Process host({VEXO_SIMCARD, "--seconds", "2"}, ptsname(terminal));
    std::string shown;
    char buffer[4096];
    for (ssize_t length; (length = read(terminal, buffer, sizeof buffer)) > 0;)
        shown.append(buffer, static_cast<std::size_t>(length));
    close(terminal);
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_THAT(shown, HasSubstr("Simulated card at bus 0: every quote is made up. Ctrl-C ends it.\r\n"));
    EXPECT_THAT(shown, HasSubstr("simulated card at bus 0, process " + std::to_string(host.Id()) +
                                 " (vexo-simcard, user " + UserName() + "), pace real, up 0s\r\n"));
    EXPECT_THAT(shown, HasSubstr("(Ctrl-C ends it)"));
}

TEST_F(Sharing, WithoutAHostTheStatusSaysHowToStartOne) {
    Process status({VEXO_SIMCARD, "--json", "--bus", "3"}, {}, directory.Path() + "/err");
    EXPECT_EQ(status.Wait(), 1);
    EXPECT_EQ(ReadFile(directory.Path() + "/err"),
              "vexo-simcard: no card is hosted at bus 3. Start one: vexo-simcard --bus 3\n");
}

}  // namespace
}  // namespace hosted
