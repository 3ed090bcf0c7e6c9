// What a packet and an idle poll never do once data flows: take memory, write, or call the system at all.

#include <enyx-sim/enyx_sim.h>
#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <csignal>
#include <cstddef>
#include <iterator>

#include "tests/integration/Scenario.h"
#include "tests/support/Sanitizers.h"

namespace {

using namespace scenario;

thread_local unsigned long t_allocations = 0;

constexpr std::uint32_t kChannel = 5;
constexpr int kRounds = 100;
constexpr int kPolls = 100;  // of each kind in a round

}  // namespace

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(VEXO_WITH_ADDRESS_SANITIZER) && \
    !defined(VEXO_WITH_THREAD_SANITIZER)
extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) { return ++t_allocations, __libc_malloc(size); }
void* calloc(std::size_t count, std::size_t size) { return ++t_allocations, __libc_calloc(count, size); }
void* realloc(void* memory, std::size_t size) { return ++t_allocations, __libc_realloc(memory, size); }
void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return ++t_allocations, __libc_memalign(alignment, size);
}

}  // extern "C"
#endif

namespace {

// ---- a process that may not call the system ----

enum Status { kDone = 0, kMissedPackets = 1, kAllocated = 2, kNotAllowed = 3, kCalledTheSystem = 4 };

// Makes the one call that is still allowed.
void OnSystemCall(int) { ::_exit(kCalledTheSystem); }

/// From now on any system call but the end of the process raises SIGSYS. @return false where this is not allowed
bool ForbidSystemCalls() {
    std::signal(SIGSYS, OnSystemCall);
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
    };
    const sock_fprog program{static_cast<unsigned short>(std::size(code)), code};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

enum class Callback { kCounts, kCallsTheSystem, kTakesMemory };

class Counter : public QuoteCallbacks {
public:
    explicit Counter(Callback what) : m_what(what) {}

private:
    int OnQuote(int, const unsigned char*) override {
        if (m_what == Callback::kCallsTheSystem) ::syscall(SYS_getppid);
        if (m_what == Callback::kTakesMemory) ::operator delete(::operator new(1));
        return 0;
    }
    const Callback m_what;
};

// Pushes and receives a packet of each type in turn, or only polls.
Status Poll(IVexoZceMdApi& api, bool withPackets, const std::string (&packets)[4]) {
    for (int n = 0; n < kPolls && withPackets; ++n) {
        const std::string& packet = packets[n % 4];
        if (enyx_sim_push(0, kChannel, packet.data(), static_cast<std::uint32_t>(packet.size()), 0) != 0)
            return kMissedPackets;
    }
    for (int n = 0; n < kPolls && withPackets; ++n)
        if (api.VexoRecv() != 1) return kMissedPackets;
    for (int n = 0; n < kPolls; ++n)
        if (api.VexoRecv() != 0) return kMissedPackets;
    return kDone;
}

/// Starts a channel in a child, takes the system calls from it, and polls. @return the status of its end
int PollInChild(bool withPackets, Callback what = Callback::kCounts) {
    const Outcome outcome = RunInChild([=]() -> int {
        const test_support::FakeTime clock(2066, 1, 13, 9, 30, 0);
        SmallCard({}, {});
        const std::string ini = WriteIni("cpucore = -1\n", "xilinx0:" + std::to_string(kChannel));
        Counter spi(what);
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        EXPECT_EQ(api->VexoStart(spi, ini.c_str()), 0);
        const std::string packets[] = {MarketDataPacket(17, "payload!"), MarketDataPacket(18, "payload!"),
                                       MarketDataPacket(19, "payload!"), MarketDataPacket(20, "payload!")};
        Push(kChannel, packets[0]);  // the first packet of a process installs the handlers of signals
        EXPECT_EQ(api->VexoRecv(), 1);
        if (testing::Test::HasFailure()) return kMissedPackets;

        if (!ForbidSystemCalls()) return kNotAllowed;
        Status status = kDone;
        const unsigned long before = t_allocations;
        for (int round = 0; round < kRounds && status == kDone; ++round) status = Poll(*api, withPackets, packets);
        if (status == kDone && t_allocations != before) status = kAllocated;
        ::_exit(status);
    });
    return outcome.signal != 0 ? -outcome.signal : outcome.exitStatus;
}

class Steady : public testing::Test {
protected:
    void SetUp() override {
        if (kWithAddressSanitizer || kWithThreadSanitizer) GTEST_SKIP() << "a sanitizer itself takes memory and calls";
        if (PollInChild(false) == kNotAllowed) GTEST_SKIP() << "this system does not let a process give up its calls";
    }
};

TEST_F(Steady, APacketTakesNoMemoryAndCallsNoSystem) { EXPECT_EQ(PollInChild(true), kDone); }

TEST_F(Steady, AnIdlePollTakesNoMemoryAndCallsNoSystem) { EXPECT_EQ(PollInChild(false), kDone); }

TEST_F(Steady, ACallbackThatCallsTheSystemIsFound) {
    EXPECT_EQ(PollInChild(true, Callback::kCallsTheSystem), kCalledTheSystem);
}

TEST_F(Steady, ACallbackThatTakesMemoryIsFound) { EXPECT_EQ(PollInChild(true, Callback::kTakesMemory), kAllocated); }

}  // namespace
