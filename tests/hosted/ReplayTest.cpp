// A capture played again, end to end: a program with the tap in front of it, on a card that delivers what the tap of
// another run wrote.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <tuple>

#include "capture/Reader.h"
#include "tests/hosted/CardAccess.h"
#include "tests/hosted/HostProcess.h"

namespace hosted {
namespace {

using ::testing::HasSubstr;
using ::testing::SizeIs;

constexpr std::size_t kPackets = 3000;

// Name of the interface and bytes, of every packet.
using Packets = std::vector<std::pair<std::string, std::string>>;

Packets ReadCapture(const std::string& path) {
    Packets packets;
    std::ifstream in(path, std::ios::binary);
    capture::Reader reader(in);
    for (capture::Packet packet; reader.next(packet);)
        packets.emplace_back(packet.interface->info.name, std::string(packet.data, packet.data + packet.size));
    return packets;
}

struct HostedReplay : ::testing::Test {
    CardDirectory directory;

    void SetUp() override {
        setenv("VEXO_SIM_CARD", "hosted", 1);
        // The tap is loaded before the address sanitizer's own library, where the build has one.
        const char* options = std::getenv("ASAN_OPTIONS");
        setenv("ASAN_OPTIONS", ("verify_asan_link_order=0:" + std::string(options != nullptr ? options : "")).c_str(),
               1);
    }
    void TearDown() override { unsetenv("VEXO_SIM_CARD"); }

    std::string Path(const std::string& name) const { return directory.Path() + "/" + name; }

    Process Tapped(const std::string& file, const std::string& what, std::size_t count) {
        return Process({VEXO_TOOL, "tap", "--output", Path(file), "--", VEXO_CARD_USER, what, std::to_string(count)},
                       {}, Path("tap.err"));
    }

    // What card_user receives on channel 0, captured by the tap.
    Packets CaptureRun(const std::string& file, const std::string& what, std::size_t count = kPackets) {
        Process user = Tapped(file, what, count);
        EXPECT_EQ(user.Wait(), 0) << ReadFile(Path("tap.err"));
        return ReadCapture(Path(file));
    }

    Packets Original(std::size_t count = kPackets) {
        const Process host = StartHost({"--pace", "x100"});
        return CaptureRun("original.pcapng", "quotes", count);
    }

    Process HostReplay(const std::string& capture, const std::string& pace) {
        WriteFile(Path("replay.ini"), "[replay]\nfile = " + capture + "\n[pace]\npace = " + pace + "\n");
        return StartHost({Path("replay.ini")});
    }
};

struct AtPace : HostedReplay, ::testing::WithParamInterface<const char*> {};

TEST_P(AtPace, TheCaptureOfAReplayEqualsTheCapture) {
    const Packets original = Original();
    ASSERT_THAT(original, SizeIs(kPackets));
    const Process host = HostReplay("original.pcapng", GetParam());
    EXPECT_TRUE(CaptureRun("again.pcapng", "receive") == original);
}

INSTANTIATE_TEST_SUITE_P(HostedReplay, AtPace, ::testing::Values("real", "x10", "max"),
                         [](const auto& instance) { return std::string(instance.param); });

TEST_F(HostedReplay, RegistersAnswerFromTheCardsOwnModel) {
    Original();
    const Process host = HostReplay("original.pcapng", "max");
    enyx_hw_core* core = OpenRegisters(0);
    std::uint64_t version = 0;
    EXPECT_EQ(Read(core, 0x101, version), 0);
    EXPECT_EQ(version, 13U);
}

TEST_F(HostedReplay, OfATruncatedCaptureWhatPrecedesTheCutIsDeliveredAndTheByteIsTold) {
    const Packets original = Original();
    const std::string bytes = ReadFile(Path("original.pcapng"));
    WriteFile(Path("cut.pcapng"), bytes.substr(0, bytes.size() - bytes.size() / 3));
    WriteFile(Path("replay.ini"), "[replay]\nfile = cut.pcapng\n[pace]\npace = max\n");
    Process host({VEXO_SIMCARD, "--quiet", Path("replay.ini")}, {}, Path("host.err"));
    ASSERT_TRUE(Eventually([] { return !StatusJson().empty(); }));
    const Packets kept = ReadCapture(Path("cut.pcapng"));
    ASSERT_GT(kept.size(), kPackets / 2);
    EXPECT_TRUE(CaptureRun("again.pcapng", "receive", kept.size()) == kept);
    EXPECT_THAT(ReadFile(Path("host.err")), HasSubstr("cut.pcapng: at byte "));
    EXPECT_THAT(ReadFile(Path("host.err")), HasSubstr("; what precedes it is replayed\n"));
}

TEST_F(HostedReplay, AFileThatIsNoCaptureEndsTheHostWithItsName) {
    WriteFile(Path("text.pcapng"), "no capture at all");
    WriteFile(Path("replay.ini"), "[replay]\nfile = text.pcapng\n");
    Process host({VEXO_SIMCARD, Path("replay.ini")}, {}, Path("host.err"));
    EXPECT_EQ(host.Wait(), 1);
    EXPECT_THAT(ReadFile(Path("host.err")), HasSubstr("text.pcapng: at byte 0: "));
}

TEST_F(HostedReplay, AProcessHasTheCaptureOnACardOfItsOwnToo) {
    const Packets original = Original();
    WriteFile(Path("replay.ini"), "[replay]\nfile = original.pcapng\n[pace]\npace = max\n");
    unsetenv("VEXO_SIM_CARD");
    setenv("VEXO_SIM_SCENARIO", Path("replay.ini").c_str(), 1);
    EXPECT_TRUE(CaptureRun("again.pcapng", "receive") == original);
    unsetenv("VEXO_SIM_SCENARIO");
}

// A capture replayed on a card with a fault: a hosted one, and one of the process's own.
struct WithFault : HostedReplay, ::testing::WithParamInterface<const char*> {
    static constexpr std::size_t kFew = 1000;  // fit into the largest ring twice: only the fault decides which come
    std::optional<Process> host;

    bool IsHosted() const { return std::string(GetParam()) == "hosted"; }
    void Replay(const std::string& fault) {
        WriteFile(Path("fault.ini"),
                  "[card]\nring_bytes = 1048576\n[replay]\nfile = original.pcapng\n"
                  "[pace]\npace = max\n[fault f]\n" +
                      fault);
        setenv("VEXO_SIM_CARD", GetParam(), 1);
        if (IsHosted())
            host = StartHost({Path("fault.ini")});
        else
            setenv("VEXO_SIM_SCENARIO", Path("fault.ini").c_str(), 1);
    }
    void TearDown() override {
        unsetenv("VEXO_SIM_SCENARIO");
        HostedReplay::TearDown();
    }
};

TEST_P(WithFault, EverySecondPacketIsDropped) {
    const Packets original = Original(kFew);
    ASSERT_THAT(original, SizeIs(kFew));
    Replay("kind = drop\nfirst = 2\nevery = 2\n");
    Packets kept;
    for (std::size_t n = 0; n < kFew; n += 2) kept.push_back(original[n]);
    EXPECT_TRUE(CaptureRun("again.pcapng", "receive", kept.size()) == kept);
}

TEST_P(WithFault, EveryPacketComesTwice) {
    const Packets original = Original(kFew);
    ASSERT_THAT(original, SizeIs(kFew));
    Replay("kind = double\n");
    Packets doubled;
    for (const auto& packet : original) doubled.insert(doubled.end(), 2, packet);
    EXPECT_TRUE(CaptureRun("again.pcapng", "receive", doubled.size()) == doubled);
}

TEST_P(WithFault, TheCardStopsAfterSoManyPacketsAndNoneFollows) {
    constexpr std::size_t kUntilStop = 400;
    const Packets original = Original(kFew);
    ASSERT_THAT(original, SizeIs(kFew));
    Replay("kind = card_stops\nafter_packets = 400\n");
    Process user = Tapped("again.pcapng", "receive", kUntilStop + 1);
    ASSERT_TRUE(Eventually([&] { return ReadCapture(Path("again.pcapng")).size() >= kUntilStop; }));
    EXPECT_TRUE(user.IsRunning()) << "the packet that the card stopped at came";
    if (IsHosted()) {
        EXPECT_THAT(StatusJson(), HasSubstr("\"packets\": 400,"));
    }
    const Packets first(original.begin(), original.begin() + kUntilStop);
    EXPECT_TRUE(ReadCapture(Path("again.pcapng")) == first);
}

INSTANTIATE_TEST_SUITE_P(HostedReplay, WithFault, ::testing::Values("hosted", "embedded"),
                         [](const auto& instance) { return std::string(instance.param); });

}  // namespace
}  // namespace hosted
