#include <gmock/gmock.h>
#include <sched.h>

#include <cerrno>
#include <climits>
#include <thread>

#include "tests/unit/config/ConfigFixture.h"
#include "tests/unit/config/FakeAffinity.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

std::vector<int> AllowedCpus() {
    cpu_set_t set;
    CPU_ZERO(&set);
    EXPECT_EQ(::sched_getaffinity(0, sizeof set, &set), 0);
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(static_cast<std::size_t>(cpu), &set)) cpus.push_back(cpu);
    }
    return cpus;
}

class ConfigBindCpu : public ConfigTest {
protected:
    Config& LoadWithCpu(const std::string& value, int channel = 0) {
        return Load("[config]\ndevice=xilinx0:" + std::to_string(channel) + "\ncpucore=" + value + "\n");
    }
    Lines Bind() {
        return OutputOf([&] { config->BindCpu(); });
    }
};

TEST_F(ConfigBindCpu, AnAbsentKeyBindsNothing) {
    FakeAffinity affinity;
    Load("[config]\ndevice=xilinx0:3\n");

    EXPECT_THAT(Bind(), ElementsAre("INFO [channel:3] Doesn't need to bind cpu."));

    EXPECT_THAT(affinity.calls, IsEmpty());
}

// The parser keeps a section as a key without a value.
TEST_F(ConfigBindCpu, ASectionNamedAsTheKeyBindsNothing) {
    FakeAffinity affinity;
    Load("[config]\ndevice=xilinx0:3\n[config:cpucore]\n");

    EXPECT_THAT(Bind(), ElementsAre("INFO [channel:3] Doesn't need to bind cpu."));

    EXPECT_THAT(affinity.calls, IsEmpty());
}

TEST_F(ConfigBindCpu, MinusOneBindsNothing) {
    FakeAffinity affinity;
    LoadWithCpu("-1", 3);

    EXPECT_THAT(Bind(), ElementsAre("INFO [channel:3] Doesn't need to bind cpu."));

    EXPECT_THAT(affinity.calls, IsEmpty());
}

TEST_F(ConfigBindCpu, TheCallingThreadIsGivenASetOf1024Cpus) {
    FakeAffinity affinity;
    LoadWithCpu("5");

    Bind();

    ASSERT_THAT(affinity.calls, SizeIs(1));
    EXPECT_EQ(affinity.calls[0].pid, 0);
    EXPECT_EQ(affinity.calls[0].size, 128U);
}

TEST_F(ConfigBindCpu, EveryCpuOfTheSetIsPassedAlone) {
    for (int cpu = 0; cpu < 1024; ++cpu) {
        SCOPED_TRACE(cpu);
        FakeAffinity affinity;
        LoadWithCpu(std::to_string(cpu));
        Bind();
        ASSERT_THAT(affinity.calls, SizeIs(1));
        EXPECT_THAT(affinity.calls[0].cpus, ElementsAre(cpu));
    }
}

TEST_F(ConfigBindCpu, ANumberOutsideTheSetPassesAnEmptySet) {
    for (const int cpu : {-2, 1024, 1025, 5000, INT_MAX, INT_MIN}) {
        SCOPED_TRACE(cpu);
        FakeAffinity affinity;
        LoadWithCpu(std::to_string(cpu));
        Bind();
        ASSERT_THAT(affinity.calls, SizeIs(1));
        EXPECT_THAT(affinity.calls[0].cpus, IsEmpty());
    }
}

TEST_F(ConfigBindCpu, AHexadecimalNumberIsUnderstood) {
    FakeAffinity affinity;
    LoadWithCpu("0x1f");

    Bind();

    ASSERT_THAT(affinity.calls, SizeIs(1));
    EXPECT_THAT(affinity.calls[0].cpus, ElementsAre(31));
}

TEST_F(ConfigBindCpu, SuccessIsReportedWithChannelAndCpu) {
    FakeAffinity affinity;
    LoadWithCpu("7", 15);

    EXPECT_THAT(Bind(), ElementsAre("INFO [channel:15] Set CPU[7] affinity success."));
}

TEST_F(ConfigBindCpu, ARefusalByTheHostIsReportedAtInfoLevel) {
    FakeAffinity affinity(EPERM);
    LoadWithCpu("7", 15);

    EXPECT_THAT(Bind(), ElementsAre("INFO [channel:15] Set CPU[7] affinity failed."));
}

TEST_F(ConfigBindCpu, TheKernelRefusesTheFirstNumberOutsideTheSet) {
    const std::vector<int> before = AllowedCpus();
    LoadWithCpu("1024");

    EXPECT_THAT(Bind(), ElementsAre("INFO [channel:0] Set CPU[1024] affinity failed."));

    EXPECT_EQ(AllowedCpus(), before);
}

TEST_F(ConfigBindCpu, TheKernelPinsTheCallingThreadOnly) {
    const std::vector<int> before = AllowedCpus();
    const int chosen = before.back();
    LoadWithCpu(std::to_string(chosen));
    std::vector<int> pinned;

    std::thread([&] {
        config->BindCpu();
        pinned = AllowedCpus();
    }).join();

    EXPECT_THAT(pinned, ElementsAre(chosen));
    EXPECT_EQ(AllowedCpus(), before);
}

}  // namespace
