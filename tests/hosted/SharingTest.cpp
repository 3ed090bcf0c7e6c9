// Who may use a hosted card, and what its host shows.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "tests/hosted/HostProcess.h"

namespace hosted {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;

constexpr const char* kNobody = "65534";

struct Sharing : ::testing::Test {
    CardDirectory directory;

    void SetUp() override {
        setenv("VEXO_SIM_CARD", "hosted", 1);
        chmod(directory.Path().c_str(), 0755);
    }
    void TearDown() override { unsetenv("VEXO_SIM_CARD"); }

    // What card_user does for another user, without any group but his own, who may not be able to reach the build.
    int WriteAsNobody(const std::string& card) const {
        for (const char* file : {VEXO_CARD_USER, VEXO_CARD_LIBRARY})
            std::filesystem::copy(file, directory.Path(), std::filesystem::copy_options::skip_existing);
        const std::string program = directory.Path() + "/" + std::filesystem::path(VEXO_CARD_USER).filename().string();
        Process user({"/usr/bin/setpriv", "--reuid", kNobody, "--regid", kNobody, "--clear-groups", "/usr/bin/env",
                      "LD_LIBRARY_PATH=" + directory.Path(), "VEXO_SIM_CARD=" + card, program, "write", "262",
                      "20310305"});
        return user.Wait();
    }
};

TEST_F(Sharing, AnotherUserDoesNotFindACardThatIsNotShared) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    const Process host = StartHost({});
    EXPECT_EQ(WriteAsNobody("hosted"), ENODEV);
    EXPECT_EQ(WriteAsNobody("hosted:" + UserName()), ENODEV);
}

TEST_F(Sharing, AMemberOfTheGroupUsesTheCardThatIsSharedWithIt) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    const Process host = StartHost({"--group", "nogroup"});
    EXPECT_EQ(WriteAsNobody("hosted:" + UserName()), 0);
    EXPECT_THAT(StatusJson(), HasSubstr("\"trading_date\": 20310305"));
}

TEST_F(Sharing, ACardOfAnotherUserIsUsedByThoseOnlyWhoAskForThatUser) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    const Process host = StartHost({"--group", "nogroup"});
    EXPECT_EQ(WriteAsNobody("hosted"), ENODEV);
    EXPECT_EQ(WriteAsNobody("auto"), 0) << "it has a card of its own";
    EXPECT_THAT(StatusJson(), HasSubstr("\"trading_date\": 0"));
}

TEST_F(Sharing, UsersInTwoContainersTakeTurnsOnTheCard) {
    const std::vector<std::string> container = {"/usr/bin/unshare", "--pid", "--fork", "--kill-child"};
    std::vector<std::string> probe = container;
    probe.push_back("/bin/true");
    if (Process(probe, "/dev/null", "/dev/null").Wait() != 0) GTEST_SKIP() << "no new pid namespace may be made here";
    const Process host = StartHost({});
    std::vector<std::string> command = container;
    command.insert(command.end(), {VEXO_CARD_USER, "take-turns", "3000"});
    Process first(command);
    Process second(command);
    EXPECT_EQ(first.Wait(), 0);
    EXPECT_EQ(second.Wait(), 0);
}

TEST_F(Sharing, AGroupThatDoesNotExistIsAnError) {
    Process host({VEXO_SIMCARD, "--group", "no-such-group"}, {}, directory.Path() + "/err");
    EXPECT_EQ(host.Wait(), 2);
    EXPECT_EQ(ReadFile(directory.Path() + "/err"), "vexo-simcard: there is no group no-such-group\n");
}

TEST_F(Sharing, ARecordThatCannotBeMadeIsAnError) {
    Process host({VEXO_SIMCARD, "--record", directory.Path() + "/nowhere/sent.pcapng"}, {}, directory.Path() + "/err");
    EXPECT_EQ(host.Wait(), 2);
    EXPECT_EQ(ReadFile(directory.Path() + "/err"), "vexo-simcard: --record " + directory.Path() +
                                                       "/nowhere/sent.pcapng: there is no directory " +
                                                       directory.Path() + "/nowhere\n");
}

TEST_F(Sharing, TheHostShowsItsCardOnATerminalAndLeavesWhatItLastWas) {
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    const bool usable = terminal >= 0 && grantpt(terminal) == 0 && unlockpt(terminal) == 0;
    const char* name = usable ? ptsname(terminal) : nullptr;
    if (name == nullptr || access(name, R_OK | W_OK) != 0) {
        close(terminal);
        GTEST_SKIP() << "there are no terminals here: /dev/pts is not mounted";
    }
    ::setenv("TERM", "xterm", 1);  // a bare environment has none, and the host then shows nothing but its first line
    Process host({VEXO_SIMCARD}, name);
    std::string shown;
    char buffer[4096];
    bool isStopped = false;
    for (ssize_t length; (length = read(terminal, buffer, sizeof buffer)) > 0;) {
        shown.append(buffer, static_cast<std::size_t>(length));
        if (isStopped || shown.find("(Ctrl-C ends it)") == std::string::npos) continue;
        host.Signal(SIGINT);
        isStopped = true;
    }
    close(terminal);
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_THAT(shown, HasSubstr("Simulated card at bus 0: every quote is made up. Ctrl-C ends it.\r\n"));
    EXPECT_THAT(shown, ContainsRegex("simulated card at bus 0, process " + std::to_string(host.Id()) +
                                     " \\(vexo-simcard, user " + UserName() + "\\), pace real, up [0-9]+s\r\n"));
    EXPECT_THAT(shown, HasSubstr("(Ctrl-C ends it)"));
}

TEST_F(Sharing, WithoutAHostTheStatusSaysHowToStartOne) {
    Process status({VEXO_SIMCARD, "--json", "--bus", "3"}, {}, directory.Path() + "/err");
    EXPECT_EQ(status.Wait(), 3);
    EXPECT_EQ(ReadFile(directory.Path() + "/err"),
              "vexo-simcard: no card is hosted at bus 3. Start one: vexo-simcard --bus 3\n");
}

}  // namespace
}  // namespace hosted
