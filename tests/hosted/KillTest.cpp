// Users and hosts of a card that are killed at any moment.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <random>

#include "interface/CardRegisters.h"
#include "tests/hosted/CardAccess.h"
#include "tests/hosted/HostProcess.h"

namespace hosted {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int kKills = 200;
constexpr int kUsers = 4;

Process StartUser(unsigned seed, const CardDirectory& directory) {
    return Process({VEXO_CARD_USER, "abuse", std::to_string(seed)}, {}, directory.Path() + "/err");
}

void KillWhileStarting(std::mt19937& random) {
    Process host({VEXO_SIMCARD, "--quiet"});
    usleep(static_cast<useconds_t>(random() % 4000));
    host.Signal(SIGKILL);
    host.Wait();
}

// A process of its own that needs the lock and every stream: it hangs, or ends with another status, when one is stuck.
int UseEverything() {
    enyx_hw_core* core = OpenRegisters(0);
    if (core == nullptr || enyx_hw_core_lock(core) != 0) return 1;
    if (enyx_hw_core_unlock(core) != 0) return 2;
    for (std::uint32_t channel = 0; channel < 16; ++channel) {
        enyx_hw_a2c_stream* stream = nullptr;
        if (!Eventually([&] { return (stream = OpenStream(0, channel)) != nullptr; })) return 3;
        enyx_hw_a2c_stream_destroy(stream);
    }
    return 0;
}

TEST(RandomKills, LeaveNoStuckLockNoOrphanedMemoryAndNoCrash) {
    const CardDirectory directory;
    setenv("VEXO_SIM_CARD", "hosted", 1);
    std::mt19937 random(20310305);
    Process host = StartHost({"--pace", "max"});
    std::vector<Process> users;
    for (unsigned n = 0; n < kUsers; ++n) users.push_back(StartUser(n, directory));
    for (int kill = 0; kill < kKills; ++kill) {
        usleep(static_cast<useconds_t>(random() % 20'000));
        const bool killsHost = random() % 8 == 0;
        Process& victim = killsHost ? host : users[random() % kUsers];
        ASSERT_TRUE(victim.IsRunning()) << "ended by itself with " << victim.Wait() << " before kill " << kill;
        victim.Signal(SIGKILL);
        ASSERT_EQ(victim.Wait(), 128 + SIGKILL);
        if (killsHost) KillWhileStarting(random);
        victim = killsHost ? StartHost({"--pace", "max"}) : StartUser(1000 + static_cast<unsigned>(kill), directory);
    }
    for (Process& user : users) {
        EXPECT_TRUE(user.IsRunning()) << "ended by itself with " << user.Wait();
        user.Signal(SIGKILL);
        user.Wait();
    }
    EXPECT_EQ(UseEverything(), 0);
    EXPECT_TRUE(host.IsRunning());
    EXPECT_THAT(directory.Files(),
                ::testing::UnorderedElementsAre("err", "vexo-simcard-" + std::to_string(geteuid()) + "-0"));
    unsetenv("VEXO_SIM_CARD");
}

}  // namespace
}  // namespace hosted
