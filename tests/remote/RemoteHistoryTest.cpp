// A stream that begins in the past, with a relay and an archive whose packets the test makes up.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <time.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "tests/remote/JumpingClock.h"
#include "tests/remote/RemoteUser.h"
#include "tests/remote/ScriptedArchive.h"
#include "tests/remote/ScriptedRelay.h"
#include "tests/support/NatsServer.h"
#include "tests/support/TempDir.h"

namespace remote_tests {
namespace {

using test_support::NatsServer;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr std::uint64_t kRun = 0xA;
constexpr std::uint64_t kPast = 30'000;     // packets in the archive at the start: twice what the stream holds
constexpr std::uint64_t kWaiting = 30'000;  // live ones that may wait
constexpr std::uint64_t kAll = 360'000;     // those that follow take more than 16 MB
constexpr std::uint32_t kBatch = 1000;
constexpr std::int64_t kLong = 11 * JumpingClock::kSecond;  // an archive is given up after ten seconds

class RemoteHistory : public ::testing::Test {
protected:
    void SetUp() override {
        SKIP_WITHOUT_NATS_SERVER();
        m_server = std::make_unique<NatsServer>();
        relay = std::make_unique<ScriptedRelay>(m_server->Url(), kRun);
        archive = std::make_unique<ScriptedArchive>(m_server->Url(), kRun);
        archive->SetEnd(kPast);
    }

    /// A program that has received the first packet. It does not poll on, so the rest of the archive's answer is on its
    /// way into the stream, and has no room there.
    void StartLate() {
        ASSERT_NO_FATAL_FAILURE(Start());
        ASSERT_EQ(user->Ask("receive 3 1"), "0") << user->Errors();
    }
    void Start() {
        user = std::make_unique<RemoteUser>(
            RemoteUser::Environment{{"VEXO_SIM_CARD", "remote"},
                                    {"VEXO_SIM_REMOTE", m_server->Url()},
                                    {"VEXO_SIM_REMOTE_SINCE", std::to_string(::time(nullptr) - 60)}},
            m_directory.Path("errors"));
        ASSERT_EQ(user->Ask("open 3"), "ok") << user->Errors();
    }
    /// The program has received all of the archive and the first live packet. The others wait, and have no room in the
    /// stream.
    void GoLive() {
        relay->SendAll(kPast, kPast + kWaiting, kBatch);
        AwaitMessages();
        ASSERT_EQ(user->Ask("receive 3 " + std::to_string(kPast)), "1-" + std::to_string(kPast));
    }
    /// More live packets come than may wait. The archive has them.
    void Overrun() {
        archive->SetEnd(kAll);
        relay->SendAll(kPast + kWaiting, kAll, kBatch);
        AwaitMessages();
    }
    /// The archive is asked again, or given up.
    void AwaitRequest(std::size_t number) {
        ASSERT_TRUE(hosted::Eventually([&] {
            return archive->Requests().size() >= number ||
                   user->Errors().find("live packets follow") != std::string::npos;
        }));
    }

    /// An answer on the same connection: the live messages have come before it.
    void AwaitMessages() {
        ASSERT_EQ(user->Ask("open 5"), "ok");
        ASSERT_EQ(user->Ask("idle 5"), "0");
        ASSERT_EQ(user->Ask("close 5"), "ok");
    }

    test_support::TempDir m_directory;
    std::unique_ptr<ScriptedRelay> relay;
    std::unique_ptr<ScriptedArchive> archive;
    std::unique_ptr<RemoteUser> user;

private:
    std::unique_ptr<NatsServer> m_server;
};

TEST_F(RemoteHistory, AProgramThatDidNotPollForLongKeepsItsArchiveAfterOneMissedAnswer) {
    SKIP_WITHOUT_JUMPING_CLOCK();
    JumpingClock clock(m_directory.Path());
    ASSERT_NO_FATAL_FAILURE(StartLate());
    clock.SetSteady(kLong);
    const std::size_t asked = archive->Requests().size();
    archive->SpoilNext();
    EXPECT_EQ(user->Ask("receive 3 " + std::to_string(kPast - 1)), "1-29999");
    ASSERT_NO_FATAL_FAILURE(AwaitRequest(asked + 2));
    EXPECT_THAT(user->Errors(), Not(HasSubstr("does not answer any more")));
    archive->SetEnd(kPast + 10);
    relay->Send(kPast + 10, 5);
    EXPECT_EQ(user->Ask("numbers 3 15"), "30000-30014");
    EXPECT_EQ(user->Ask("counters 3"), "packets 30015 lost 0 fifo 0 errors 0");
}

TEST_F(RemoteHistory, TheSameAfterLiveMessagesThatHadNoRoomForLong) {
    SKIP_WITHOUT_JUMPING_CLOCK();
    JumpingClock clock(m_directory.Path());
    ASSERT_NO_FATAL_FAILURE(StartLate());
    ASSERT_NO_FATAL_FAILURE(GoLive());
    ASSERT_NO_FATAL_FAILURE(Overrun());
    clock.SetSteady(kLong);
    archive->SpoilNext();
    EXPECT_EQ(user->Ask("numbers 3 " + std::to_string(kAll - kPast - 1)), "30001-359999");
    EXPECT_EQ(user->Ask("counters 3"), "packets 360000 lost 0 fifo 0 errors 0");
    EXPECT_THAT(user->Errors(), Not(HasSubstr("does not answer any more")));
}

TEST_F(RemoteHistory, PacketsThatCameLiveAreNotCountedAsTheArchives) {
    ASSERT_NO_FATAL_FAILURE(StartLate());
    ASSERT_NO_FATAL_FAILURE(GoLive());
    ASSERT_NO_FATAL_FAILURE(Overrun());
    EXPECT_EQ(user->Ask("numbers 3 " + std::to_string(kAll - kPast - 1)), "30001-359999");
    ASSERT_TRUE(hosted::Eventually([&] { return user->Errors().find("live from here") != std::string::npos; }));
    // The archive gave the past, and what follows the live packets that had no successor.
    EXPECT_GT(archive->Requests().back().next, kPast) << "all live messages could wait, or they were asked for again";
    EXPECT_THAT(user->Errors(), HasSubstr(": " + std::to_string(archive->Given()) + " packets since "));
}

TEST_F(RemoteHistory, TheSameWhenTheArchiveWasEmptyAtFirst) {
    archive->SetEmpty(0);
    ASSERT_NO_FATAL_FAILURE(Start());
    relay->SendAll(1, kWaiting, kBatch);  // they wait for the archive, which may get packet 0
    AwaitMessages();
    archive->SetEmpty(1);
    ASSERT_EQ(user->Ask("receive 3 1"), "1") << user->Errors();
    archive->SetEnd(kAll);
    relay->SendAll(kWaiting, kAll, kBatch);
    AwaitMessages();
    EXPECT_EQ(user->Ask("numbers 3 " + std::to_string(kAll - 2)), "2-359999");
    ASSERT_TRUE(hosted::Eventually([&] { return user->Errors().find("live from here") != std::string::npos; }));
    EXPECT_GT(archive->Requests().back().next, 1U) << "all live messages could wait, or they were asked for again";
    EXPECT_THAT(user->Errors(), HasSubstr(": " + std::to_string(archive->Given()) + " packets since "));
}

}  // namespace
}  // namespace remote_tests
