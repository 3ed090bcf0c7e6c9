// A program on a remote card, as a user of the servers whose permissions are narrow.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "tests/remote/RemoteUser.h"
#include "tests/remote/ScriptedRelay.h"
#include "tests/support/NatsServer.h"
#include "tests/support/TempDir.h"

namespace remote_tests {
namespace {

using test_support::NatsServer;
using test_support::TempDir;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

class RemoteCardWithPermissions : public ::testing::Test {
protected:
    void SetUp() override { SKIP_WITHOUT_NATS_SERVER(); }

    /// The user of the card may publish and subscribe to these subjects alone.
    void StartServer(const std::string& publish, const std::string& subscribe) {
        m_server = std::make_unique<NatsServer>(
            "authorization { timeout: 300, users: [ { user: relay, password: \"change this one\" }, "
            "{ user: desk, password: \"and this one\", permissions: { publish: [" +
            publish + "], subscribe: [" + subscribe + "] } } ] }");
    }
    void StartRelay() {
        vexo_sim::remote::ConnectionSettings settings;
        settings.userFile = m_directory.Write("relay", "relay\nchange this one\n", 0600);
        m_relay = std::make_unique<ScriptedRelay>(m_server->Url(), 0xA, 3, false, settings);
    }
    std::unique_ptr<RemoteUser> User(const RemoteUser::Environment& more = {}) {
        const std::string file = m_directory.Write("desk", "desk\nand this one\n", 0600);
        RemoteUser::Environment environment = {
            {"VEXO_SIM_CARD", "remote"}, {"VEXO_SIM_REMOTE", m_server->Url()}, {"VEXO_NATS_USER_FILE", file}};
        environment.insert(more.begin(), more.end());
        return std::make_unique<RemoteUser>(environment, m_directory.Path("errors"));
    }

    TempDir m_directory;
    std::unique_ptr<NatsServer> m_server;
    std::unique_ptr<ScriptedRelay> m_relay;
};

bool Says(const RemoteUser& user, const std::string& text) {
    return hosted::Eventually([&] { return user.Errors().find(text) != std::string::npos; });
}

TEST_F(RemoteCardWithPermissions, WithoutTheOneToReceiveALineNamesTheSubject) {
    StartServer(R"(">")", R"("_INBOX.>")");
    StartRelay();
    const auto user = User();
    ASSERT_EQ(user->Ask("open 3"), "ok");
    EXPECT_TRUE(Says(*user,
                     "libenyx-hw-c: the servers refuse what the remote card at bus 0 needs: Permissions Violation for "
                     "Subscription to \"vexo.local.0.3.stream\"\n"))
        << user->Errors();
    EXPECT_EQ(user->Ask("idle 3"), "0");
}

TEST_F(RemoteCardWithPermissions, WithoutTheOneToAskItDoesNotSayThatNoRelayAnswers) {
    StartServer(R"("elsewhere.>")", R"(">")");
    StartRelay();
    const auto user = User();
    ASSERT_EQ(user->Ask("open 3"), "ok");
    EXPECT_TRUE(Says(*user, "Permissions Violation for Publish to \"vexo.local.0.3.hello\"\n")) << user->Errors();
    EXPECT_THAT(user->Errors(), HasSubstr("(site local, bus 0): no relay that its user may ask answers at nats://"));
    EXPECT_THAT(user->Errors(), Not(HasSubstr("no relay answers")));
    m_relay->Send(0, 10);
    EXPECT_EQ(user->Ask("receive 3 10"), "0-9");
}

TEST_F(RemoteCardWithPermissions, WithoutTheOneToGetAnswersItDoesNotSayThatNoRelayAnswers) {
    StartServer(R"(">")", R"("vexo.>")");
    StartRelay();
    const auto user = User();
    ASSERT_EQ(user->Ask("open 3"), "ok");
    EXPECT_TRUE(Says(*user, "Permissions Violation for Subscription to \"_INBOX.")) << user->Errors();
    EXPECT_THAT(user->Errors(), Not(HasSubstr("no relay answers")));
}

TEST_F(RemoteCardWithPermissions, ThoseOfThePageAreEnough) {
    m_server = std::make_unique<NatsServer>(test_support::AuthorizationOf(VEXO_MANY_MACHINES));
    StartRelay();
    const auto user = User({{"VEXO_SIM_REMOTE_SINCE", "1"}});
    ASSERT_EQ(user->Ask("open 3"), "ok");
    m_relay->Send(0, 10);
    EXPECT_EQ(user->Ask("receive 3 10"), "0-9");
    EXPECT_THAT(user->Errors(), HasSubstr("a remote card of alice@colo-1"));
    EXPECT_THAT(user->Errors(), HasSubstr("its relay keeps no archive"));
    EXPECT_THAT(m_server->Log(), Not(HasSubstr("Violation")));
}

/// The user of the card may ask the relays of channels 3 and 4 alone. That of channel 3 is there, and its answer comes
/// before the refusals.
class RemoteCardWithLateRefusals : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string folder = m_directory.Path("card");
        std::filesystem::create_directory(folder);
        std::filesystem::copy(VEXO_CARD_LIBRARY, folder);
        std::filesystem::copy(VEXO_LATE_REFUSALS, folder + "/libvexo-remote.so");
        user = std::make_unique<RemoteUser>(
            RemoteUser::Environment{
                {"LD_LIBRARY_PATH", folder}, {"VEXO_SIM_CARD", "remote"}, {"VEXO_SIM_REMOTE", "nats://127.0.0.1:1"}},
            m_directory.Path("errors"));
    }

    TempDir m_directory;
    std::unique_ptr<RemoteUser> user;
};

TEST_F(RemoteCardWithLateRefusals, AreSilentAboutChannelsThatNobodyHasOpened) {
    ASSERT_EQ(user->Ask("open 3"), "ok");
    EXPECT_THAT(user->Errors(), HasSubstr("a remote card of alice@colo-1"));
    EXPECT_THAT(user->Errors(), Not(HasSubstr("refuse")));
    ASSERT_EQ(user->Ask("open 5"), "ok");
    EXPECT_THAT(user->Errors(),
                EndsWith("libenyx-hw-c: the servers refuse what the remote card at bus 0 needs: Permissions Violation "
                         "for Publish to \"vexo.local.0.5.hello\"\n"));
}

TEST_F(RemoteCardWithLateRefusals, DoNotHideThatNoRelayAnswers) {
    ASSERT_EQ(user->Ask("open 4"), "ok");
    EXPECT_THAT(user->Errors(), EndsWith("no relay answers for channel 4 of site local, bus 0 within a second: the "
                                         "stream is idle until one sends.\n"));
    EXPECT_THAT(user->Errors(), Not(HasSubstr("refuse")));
}

}  // namespace
}  // namespace remote_tests
