// How large the rings of a hosted card are, also where there is little memory.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "sim/host/CardHost.h"
#include "tests/support/CaptureOutput.h"
#include "tests/support/TempDir.h"

using namespace vexo_sim;

namespace {

constexpr std::uint64_t kMegabyte = 1U << 20;
std::uint64_t g_room = 0;  // bytes that the card's file system still has

}  // namespace

// In the place of the C library's: reserves, but fails as a full file system does.
extern "C" int posix_fallocate(int fd, off_t offset, off_t length) {
    struct stat before {};
    if (::fstat(fd, &before) != 0) return errno;
    const std::uint64_t used = static_cast<std::uint64_t>(before.st_blocks) * 512;
    if (used + static_cast<std::uint64_t>(length) > g_room) return ENOSPC;
    return ::fallocate(fd, 0, offset, length) == 0 ? 0 : errno;
}

namespace {

class RingSize : public testing::Test {
protected:
    RingSize() { setenv("VEXO_SIM_DIR", dir.Path().c_str(), 1); }
    ~RingSize() override { unsetenv("VEXO_SIM_DIR"); }

    /// Hosts a card with these keys, where there is that much memory.
    void Host(const std::vector<std::string>& keys, std::uint64_t room) {
        g_room = room;
        const auto scenario = scenario::load("", {"--set", keys}, error);
        ASSERT_TRUE(scenario) << error;
        test_support::CaptureOutput output(STDERR_FILENO);
        host = CardHost::start({*scenario, {}, {}}, error);
        lines = output.Stop();
    }
    std::uint32_t RingBytes() const { return host->card().block().state.config.ringBytes; }

    test_support::TempDir dir;
    std::unique_ptr<CardHost> host;
    std::string error;
    std::string lines;  // on standard error
};

TEST_F(RingSize, IsTheLargestAtPaceMax) {
    Host({"pace.pace=max"}, 64 * kMegabyte);
    ASSERT_NE(host, nullptr) << error;
    EXPECT_EQ(RingBytes(), kMaxRingBytes);
    EXPECT_EQ(lines, "");
}

TEST_F(RingSize, IsTheUsualOneAtPaceMaxWhereMemoryIsShortAndALineSaysSo) {
    Host({"pace.pace=max"}, 16 * kMegabyte);
    ASSERT_NE(host, nullptr) << error;
    EXPECT_EQ(RingBytes(), 262144U);
    EXPECT_EQ(lines, "vexo-simcard: no memory for streams of 1048576 bytes in " + dir.Path() +
                         " (No space left on device): they have 262144 bytes. On a busy machine the readers get fewer "
                         "quotes a second.\n");
}

TEST_F(RingSize, IsTheUsualOneAtAnyOtherPace) {
    for (const char* pace : {"pace.pace=real", "pace.pace=x1000"}) {
        Host({pace}, 64 * kMegabyte);
        ASSERT_NE(host, nullptr) << error;
        EXPECT_EQ(RingBytes(), 262144U);
        host.reset();
    }
}

TEST_F(RingSize, IsWhatTheScenarioSays) {
    for (const char* size : {"16384", "262144"}) {
        Host({"pace.pace=max", std::string("card.ring_bytes=") + size}, 64 * kMegabyte);
        ASSERT_NE(host, nullptr) << error;
        EXPECT_EQ(std::to_string(RingBytes()), size);
        host.reset();
    }
}

TEST_F(RingSize, WithoutMemoryForAnyThereIsNoCardAndNoFile) {
    Host({"pace.pace=max"}, 4 * kMegabyte);
    EXPECT_EQ(host, nullptr);
    EXPECT_EQ(error, "cannot make a card in " + dir.Path() + ": No space left on device");
    EXPECT_TRUE(std::filesystem::is_empty(dir.Path()));
    EXPECT_EQ(lines, "");
}

}  // namespace
