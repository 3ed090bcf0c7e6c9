#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <climits>
#include <string>
#include <thread>
#include <vector>

#include "VexoZceUtil.h"
#include "tests/support/CaptureOutput.h"

namespace {

using test_support::CaptureOutput;
using testing::ElementsAre;

std::vector<int> AllowedCpus() {
    cpu_set_t set;
    CPU_ZERO(&set);
    EXPECT_EQ(::pthread_getaffinity_np(::pthread_self(), sizeof set, &set), 0);
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(static_cast<std::size_t>(cpu), &set)) cpus.push_back(cpu);
    }
    return cpus;
}

TEST(BindToCpu, PinsTheCallingThreadOnlyAndPrintsNothing) {
    const std::vector<int> before = AllowedCpus();
    const int chosen = before.back();
    CaptureOutput out;
    int result = -1;
    std::vector<int> pinned;

    std::thread([&] {
        result = bind_to_cpu(chosen);
        pinned = AllowedCpus();
    }).join();

    EXPECT_EQ(out.Stop(), "");
    EXPECT_EQ(result, 0);
    EXPECT_THAT(pinned, ElementsAre(chosen));
    EXPECT_EQ(AllowedCpus(), before);
}

struct RefusedRow {
    const char* name;
    int cpu;
    std::string printed;
};

class RefusedCpus : public testing::TestWithParam<RefusedRow> {};

TEST_P(RefusedCpus, PrintAMessageReturnItsLengthAndChangeNothing) {
    const std::vector<int> before = AllowedCpus();
    CaptureOutput out;

    const int result = bind_to_cpu(GetParam().cpu);

    EXPECT_EQ(out.Stop(), GetParam().printed);
    EXPECT_EQ(result, static_cast<int>(GetParam().printed.size()));
    EXPECT_EQ(AllowedCpus(), before);
}

INSTANTIATE_TEST_SUITE_P(BindToCpu, RefusedCpus,
                         testing::Values(RefusedRow{"FirstAboveTheSet", 1024,
                                                    "Invalid CPU 1024 > CPU_SETSIZE(1024), WE don't bind to anycore."},
                                         RefusedRow{
                                             "Largest", INT_MAX,
                                             "Invalid CPU 2147483647 > CPU_SETSIZE(1024), WE don't bind to anycore."},
                                         RefusedRow{"Negative", -1, "Failed to bind to CPU -1"},
                                         RefusedRow{"MostNegative", INT_MIN, "Failed to bind to CPU -2147483648"}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(BindToCpu, FailsForTheLastNumberOfTheSetOnAHostThatLacksThatCpu) {
    if (::sysconf(_SC_NPROCESSORS_CONF) >= CPU_SETSIZE) GTEST_SKIP() << "this host has every CPU of the set";
    CaptureOutput out;

    const int result = bind_to_cpu(1023);

    EXPECT_EQ(out.Stop(), "Failed to bind to CPU 1023");
    EXPECT_EQ(result, 26);
}

}  // namespace
