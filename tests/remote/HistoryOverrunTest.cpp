// A program that starts late and does not poll for a while: more live messages come than may wait until it has received
// the past. The packets are those of a ring that the test itself writes, so it says when each of them comes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <time.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tests/relay/Listener.h"
#include "tests/relay/RelayFixture.h"
#include "tests/remote/RemoteUser.h"
#include "tests/unit/sim/remote/Messages.h"
#include "tools/share/RingWriter.h"
#include "tools/tap/TapClock.h"

namespace {

namespace wire = vexo_sim::wire;

using hosted::Process;
using remote_tests::RemoteUser;
using test_support::NatsServer;
using ::testing::HasSubstr;

constexpr std::uint64_t kPast = 40'000;  // packets that are over when the program starts: more than its stream holds
constexpr std::uint64_t kAll = 440'000;
constexpr std::uint64_t kMostWaiting = (16 << 20) / 60;  // packets of 65 bytes in their messages, on the average
constexpr std::size_t kRingBytes = 64 << 20;

class HistoryOverrun : public RelayFixture {
protected:
    void SetUp() override {
        SKIP_WITHOUT_NATS_SERVER();
        m_server = std::make_unique<NatsServer>();
        std::filesystem::create_directory(dir.Path("archive"));
        m_since = std::to_string(::time(nullptr));
        tap::clock_ticks::choose();
    }
    void TearDown() override { m_ring.end(); }

    /// A relay with an archive, a listener that has heard the packets of the past, and a program that has received the
    /// first one: the rest of the past does not fit into its stream, so it is not over before the program polls on.
    void StartLate() {
        m_listener = std::make_unique<Listener>(m_server->Url(), "vexo.local.0.3.stream");
        relay = std::make_unique<Process>(
            std::vector<std::string>{VEXO_COMMAND, "relay", "--beside", "--json", "--channel", "3", "--to",
                                     m_server->Url(), "--archive", dir.Path("archive")},
            dir.Path("relay.out"), dir.Path("relay.err"));
        ASSERT_TRUE(hosted::Eventually([&] {
            return Errors().find("waiting for: vexo tap --share") != std::string::npos || !relay->IsRunning();
        }));
        ASSERT_TRUE(m_ring.make({0, 3, 2048, share::kSimulated}, kRingBytes)) << m_ring.error();
        Write(kPast);
        user = std::make_unique<RemoteUser>(
            RemoteUser::Environment{
                {"VEXO_SIM_CARD", "remote"}, {"VEXO_SIM_REMOTE", m_server->Url()}, {"VEXO_SIM_REMOTE_SINCE", m_since}},
            dir.Path("user.err"));
        ASSERT_EQ(user->Ask("open 3"), "ok") << user->Errors();
        ASSERT_EQ(user->Ask("receive 3 1"), "0") << user->Errors();
    }
    /// The packets up to the one before @p end. All are published when this returns.
    void Write(std::uint64_t end) {
        for (; m_next < end; ++m_next) {
            const wire::Packet packet = wire::PacketOf(m_next);
            m_ring.put(tap::clock_ticks::now(), packet.data(), static_cast<std::uint32_t>(packet.size()));
        }
        ASSERT_TRUE(m_listener->Until([&](const Listener::Account& account) { return account.packets >= end; }));
        ASSERT_EQ(m_listener->Now().missing, 0U);
    }

    std::unique_ptr<Process> relay;
    std::unique_ptr<RemoteUser> user;

private:
    std::unique_ptr<NatsServer> m_server;
    std::unique_ptr<Listener> m_listener;
    share::RingWriter m_ring;
    std::string m_since;
    std::uint64_t m_next = 0;
};

/// The number that stands behind the first @p mark.
std::uint64_t NumberBehind(const std::string& text, const std::string& mark) {
    const std::size_t at = text.find(mark);
    return at != std::string::npos ? std::strtoull(text.c_str() + at + mark.size(), nullptr, 10) : 0;
}

}  // namespace

TEST_F(HistoryOverrun, LiveMessagesThatCannotWaitComeFromTheArchive) {
    ASSERT_NO_FATAL_FAILURE(StartLate());
    ASSERT_NO_FATAL_FAILURE(Write(kAll));
    // An answer on the same connection: the live messages have come before it.
    EXPECT_EQ(user->Ask("open 5"), "ok");
    EXPECT_EQ(user->Ask("idle 5"), "0");
    EXPECT_EQ(user->Ask("numbers 3 " + std::to_string(kAll - 1)), "1-" + std::to_string(kAll - 1)) << user->Errors();
    EXPECT_EQ(user->Ask("counters 3"), "packets " + std::to_string(kAll) + " lost 0 fifo 0 errors 0");
    ASSERT_TRUE(hosted::Eventually([&] { return user->Errors().find("live from here") != std::string::npos; }));
    EXPECT_GE(NumberBehind(user->Errors(), "channel 3 of the remote card at bus 0: "), kAll - kMostWaiting)
        << "all live messages could wait";
    const nlohmann::json result = End(*relay);
    EXPECT_EQ(result["packets"], kAll);
    EXPECT_EQ(result["lost"]["relay"], 0);
    EXPECT_EQ(result["archive"]["lost"], 0);
}

TEST_F(HistoryOverrun, WithoutTheArchiveTheyAreAGapWithItsCount) {
    ASSERT_NO_FATAL_FAILURE(StartLate());
    ASSERT_NO_FATAL_FAILURE(Write(kAll));
    relay->Signal(SIGKILL);
    relay->Wait();
    const std::string ranges = user->Ask("numbers 3 " + std::to_string(kAll - 1));
    // "1-LAST NEXT-END"
    const std::uint64_t last = NumberBehind(ranges, "-");
    const std::uint64_t next = NumberBehind(ranges, " ");
    EXPECT_EQ(ranges, "1-" + std::to_string(last) + " " + std::to_string(next) + "-" + std::to_string(kAll - 1));
    ASSERT_GT(next, last + 1) << user->Errors();
    const std::uint64_t lost = next - last - 1;
    EXPECT_EQ(user->Ask("counters 3"),
              "packets " + std::to_string(kAll - lost) + " lost " + std::to_string(lost) + " fifo 0 errors 0");
    EXPECT_LE(kAll - next, kMostWaiting) << "more waited than may";
    EXPECT_THAT(user->Errors(), HasSubstr("the archive does not answer any more: live packets follow."));
    EXPECT_EQ(user->End(), 0);
}
