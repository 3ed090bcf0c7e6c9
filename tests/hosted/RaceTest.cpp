// Two processes that want one stream at the same instant.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sched.h>
#include <atomic>
#include <cerrno>

#include "tests/hosted/CardAccess.h"
#include "tests/hosted/HostProcess.h"

namespace hosted {
namespace {

constexpr int kRounds = 1000;

// What the two share, apart from the card.
struct Arena {
    std::atomic<int> ready[2];
    std::atomic<int> tried[2];
    std::atomic<int> wins[2];
    std::atomic<int> roundsWithOneWinner;
    std::atomic<int> winnersOfRound[kRounds];
    std::atomic<int> busy;
};

void WaitFor(std::atomic<int> (&counter)[2], int value) {
    while (counter[0] < value || counter[1] < value) sched_yield();
}

void Race(Arena& arena, int self) {
    OpenRegisters(0);  // attached, so that both are equally fast in the first round
    for (int round = 0; round < kRounds; ++round) {
        arena.ready[self] = round + 1;
        WaitFor(arena.ready, round + 1);
        errno = 0;
        enyx_hw_a2c_stream* stream = OpenStream(0, 7);
        if (stream != nullptr)
            ++arena.winnersOfRound[round];
        else if (errno == EBUSY)
            ++arena.busy;
        arena.tried[self] = round + 1;
        WaitFor(arena.tried, round + 1);
        if (stream == nullptr) continue;
        ++arena.wins[self];
        enyx_hw_a2c_stream_destroy(stream);
    }
}

TEST(StreamRace, HasExactlyOneWinnerInEveryRound) {
    const CardDirectory directory;
    setenv("VEXO_SIM_CARD", "hosted", 1);
    const Process host = StartHost({});
    void* memory = mmap(nullptr, sizeof(Arena), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    Arena& arena = *new (memory) Arena{};
    pid_t racers[2];
    for (int self = 0; self < 2; ++self) {
        racers[self] = fork();
        if (racers[self] != 0) continue;
        if (std::freopen((directory.Path() + "/err").c_str(), "a", stderr) == nullptr) _exit(1);
        Race(arena, self);
        _exit(0);
    }
    for (const pid_t racer : racers) {
        int status = -1;
        ASSERT_EQ(waitpid(racer, &status, 0), racer);
        ASSERT_EQ(status, 0);
    }
    for (int round = 0; round < kRounds; ++round) ASSERT_EQ(arena.winnersOfRound[round], 1) << "round " << round;
    EXPECT_EQ(arena.busy, kRounds);
    EXPECT_EQ(arena.wins[0] + arena.wins[1], kRounds);
    munmap(memory, sizeof(Arena));
    unsetenv("VEXO_SIM_CARD");
}

}  // namespace
}  // namespace hosted
