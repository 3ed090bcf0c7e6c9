// A program that starts late: it receives from the relay's archive what it has missed, and then what is live.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <time.h>

#include <filesystem>
#include <memory>

#include "capture/CaptureFiles.h"
#include "capture/Reader.h"
#include "tests/relay/RelayFixture.h"
#include "tests/remote/RemoteUser.h"
#include "tests/remote/ScriptedRelay.h"
#include "tests/unit/sim/remote/Messages.h"
#include "tools/data/CaptureSource.h"

namespace {

namespace fs = std::filesystem;
namespace wire = vexo_sim::wire;

using hosted::Process;
using remote_tests::RemoteUser;
using test_support::NatsServer;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class History : public RelayFixture {
protected:
    void SetUp() override {
        SKIP_WITHOUT_NATS_SERVER();
        m_server = std::make_unique<NatsServer>();
        fs::create_directory(dir.Path("archive"));
        timespec now{};
        ::clock_gettime(CLOCK_REALTIME, &now);
        m_since = std::to_string(now.tv_sec);
    }

    /// A capture of packets that say their number, for channel 3.
    void WriteNumbered(std::uint64_t packets, std::uint64_t everyNs, const std::string& name = "day") {
        capture::CaptureFiles::Settings settings;
        settings.path = dir.Path(name + ".pcapng");
        settings.report = [](const std::string&) {};
        capture::CaptureFiles files(settings);
        const std::uint32_t stream = files.addInterface({capture::kStreamLink, "channel 3", ""}, 0);
        for (std::uint64_t n = 0; n < packets; ++n) {
            const wire::Packet packet = wire::PacketOf(n);
            files.addPacket(stream, n * everyNs, packet.data(), static_cast<std::uint32_t>(packet.size()));
        }
        files.close(packets * everyNs);
        dir.Write("replay.ini", "[replay]\nfile = " + name + ".pcapng\n");
    }
    Process StartRelay(const std::string& pace, const std::string& name = "relay") {
        return Start(Replaying(pace),
                     {"--channel", "3", "--to", m_server->Url(), "--archive", dir.Path("archive"), "--rotate", "1"},
                     name);
    }
    std::unique_ptr<RemoteUser> User(const std::string& name = "user") {
        return std::make_unique<RemoteUser>(
            RemoteUser::Environment{
                {"VEXO_SIM_CARD", "remote"}, {"VEXO_SIM_REMOTE", m_server->Url()}, {"VEXO_SIM_REMOTE_SINCE", m_since}},
            dir.Path(name + ".err"));
    }
    std::uintmax_t ArchiveBytes() const {
        std::uintmax_t bytes = 0;
        for (const auto& entry : fs::directory_iterator(dir.Path("archive")))
            if (entry.path().extension() == ".zst") bytes += entry.file_size();
        return bytes;
    }
    /// In its files, also in one that was not completed.
    std::uint64_t ArchivePackets() const {
        std::uint64_t packets = 0;
        for (const auto& entry : fs::directory_iterator(dir.Path("archive"))) {
            if (entry.path().extension() != ".zst") continue;
            vexo::data::CaptureSource source(entry.path().string());
            capture::Reader reader(source.stream());
            for (capture::Packet packet; reader.next(packet); ++packets) {
            }
        }
        return packets;
    }
    const NatsServer& Server() const { return *m_server; }

private:
    std::unique_ptr<NatsServer> m_server;
    std::string m_since;
};

}  // namespace

TEST_F(History, ALateProgramReceivesTheMorningAndGoesOverIntoTheLiveStream) {
    constexpr std::uint64_t kPackets = 100'000;
    WriteNumbered(kPackets, 20'000);
    Process relay = StartRelay("real");
    // It starts in the middle: some blocks are in files, some are not.
    ASSERT_TRUE(hosted::Eventually([&] { return ArchiveBytes() > 0 || !relay.IsRunning(); })) << Errors();
    const auto user = User();
    ASSERT_EQ(user->Ask("open 3"), "ok") << user->Errors();
    EXPECT_EQ(user->Ask("receive 3 " + std::to_string(kPackets)), "0-99999") << user->Errors();
    EXPECT_EQ(user->Ask("counters 3"), "packets 100000 lost 0 fifo 0 errors 0");
    ASSERT_TRUE(hosted::Eventually([&] { return user->Errors().find("live from here") != std::string::npos; }));
    EXPECT_THAT(user->Errors(), HasSubstr("channel 3 of the remote card at bus 0: "));
    EXPECT_THAT(user->Errors(), HasSubstr(" came from the archive, the first of 20"));
    EXPECT_EQ(user->Ask("signals"), "blocked");
    const nlohmann::json result = End(relay);
    EXPECT_EQ(result["packets"], kPackets);
    EXPECT_EQ(result["archive"]["packets"], kPackets);
    EXPECT_EQ(result["archive"]["lost"], 0);
    EXPECT_EQ(result["lost"]["ring"], 0);
    EXPECT_EQ(result["lost"]["relay"], 0);
}

TEST_F(History, TwoLateProgramsAtOnceReceiveAllOfIt) {
    constexpr std::uint64_t kPackets = 100'000;
    WriteNumbered(kPackets, 20'000);
    Process relay = StartRelay("real");
    ASSERT_TRUE(hosted::Eventually([&] { return ArchiveBytes() > 0 || !relay.IsRunning(); })) << Errors();
    const auto one = User("one");
    const auto other = User("other");
    ASSERT_EQ(one->Ask("open 3"), "ok") << one->Errors();
    ASSERT_EQ(other->Ask("open 3"), "ok") << other->Errors();
    // One of them does not poll before the other has everything: what it does not take waits in the archive.
    EXPECT_EQ(one->Ask("receive 3 " + std::to_string(kPackets)), "0-99999") << one->Errors();
    EXPECT_EQ(other->Ask("receive 3 " + std::to_string(kPackets)), "0-99999") << other->Errors();
    EXPECT_EQ(End(relay)["lost"]["relay"], 0);
}

TEST_F(History, ARelayThatStartedAnewInBetweenIsAGapWithACount) {
    constexpr std::uint64_t kPackets = 20'000;
    WriteNumbered(kPackets, 0);
    Process first = StartRelay("max");
    ASSERT_TRUE(hosted::Eventually([&] { return ArchivePackets() == kPackets || !first.IsRunning(); })) << Errors();
    const nlohmann::json result = End(first);
    EXPECT_EQ(result["archive"]["packets"], kPackets);
    Process second = StartRelay("max", "second");
    const auto user = User();
    ASSERT_EQ(user->Ask("open 3"), "ok") << user->Errors();
    EXPECT_EQ(user->Ask("receive 3 40000"), "0-19999 0-19999") << user->Errors();
    EXPECT_EQ(user->Ask("counters 3"), "packets 40000 lost 0 fifo 0 errors 0");
    EXPECT_THAT(user->Errors(), HasSubstr("the relay started anew; 0 packets are counted as lost"));
    End(second, "second");
}

TEST_F(History, ARelayThatWasKilledGoesOnWithItsArchive) {
    constexpr std::uint64_t kPackets = 100'000;
    WriteNumbered(kPackets, 20'000);
    Process first = StartRelay("real");
    ASSERT_TRUE(hosted::Eventually([&] { return ArchivePackets() > 20'000 || !first.IsRunning(); })) << Errors();
    first.Signal(SIGKILL);
    first.Wait();
    const std::uint64_t stored = ArchivePackets();
    EXPECT_LT(stored, kPackets);
    WriteNumbered(1000, 0, "later");
    Process second = StartRelay("max", "second");
    const auto user = User();
    ASSERT_TRUE(IsRelaying(second, "second")) << Errors("second");
    ASSERT_EQ(user->Ask("open 3"), "ok") << user->Errors();
    EXPECT_EQ(user->Ask("receive 3 " + std::to_string(stored + 1000)), "0-" + std::to_string(stored - 1) + " 0-999");
    EXPECT_THAT(user->Errors(), HasSubstr("the relay started anew"));
    EXPECT_EQ(End(second, "second")["archive"]["packets"], 1000);
}

TEST_F(History, ARelayWithoutAnArchiveBeginsWithLivePackets) {
    const auto user = User();
    remote_tests::ScriptedRelay relay(Server().Url(), 0xA);
    relay.SetNext(10);
    ASSERT_EQ(user->Ask("open 3"), "ok");
    relay.Send(10, 5);
    EXPECT_EQ(user->Ask("receive 3 5"), "10-14");
    EXPECT_EQ(user->Ask("counters 3"), "packets 5 lost 0 fifo 0 errors 0");
    EXPECT_THAT(user->Errors(), HasSubstr("its relay keeps no archive: the stream begins with live packets."));
}

TEST_F(History, ALateProgramThatEndsMeanwhileDisturbsNobody) {
    WriteNumbered(100'000, 20'000);
    Process relay = StartRelay("real");
    ASSERT_TRUE(hosted::Eventually([&] { return ArchiveBytes() > 0 || !relay.IsRunning(); })) << Errors();
    const auto user = User();
    ASSERT_EQ(user->Ask("open 3"), "ok") << user->Errors();
    EXPECT_THAT(user->Ask("receive 3 1"), StartsWith("0"));
    EXPECT_EQ(user->Ask("close 3"), "ok");
    EXPECT_EQ(user->Ask("open 3"), "ok");
    EXPECT_EQ(user->Ask("receive 3 100"), "0-99") << "a stream that is opened again begins again";
    EXPECT_EQ(user->End(), 0);
    EXPECT_TRUE(relay.IsRunning());
    const nlohmann::json result = End(relay);
    EXPECT_EQ(result["lost"]["relay"], 0);
    EXPECT_EQ(result["archive"]["lost"], 0);
}

TEST_F(History, AMomentThatIsNoneIsNoCard) {
    for (const char* moment : {"yesterday", "2100-01-01"}) {
        RemoteUser user(
            {{"VEXO_SIM_CARD", "remote"}, {"VEXO_SIM_REMOTE", Server().Url()}, {"VEXO_SIM_REMOTE_SINCE", moment}},
            dir.Path("wrong.err"));
        EXPECT_EQ(user.Ask("card 0"), "failed ENODEV");
        EXPECT_THAT(user.Errors(), HasSubstr(std::string("VEXO_SIM_REMOTE_SINCE is \"") + moment + "\": write 09:00"));
    }
}
