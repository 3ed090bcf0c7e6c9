// Software events stand in for those of the processor, which virtual machines often do not have. They are read by the
// same system call.

#include "bench/support/Counters.h"

#include <gtest/gtest.h>
#include <linux/perf_event.h>

namespace {

using bench::Counters;

constexpr Counters::Event kClock = {PERF_TYPE_SOFTWARE, PERF_COUNT_SW_TASK_CLOCK};
constexpr Counters::Event kNothing = {PERF_TYPE_SOFTWARE, PERF_COUNT_SW_DUMMY};
constexpr Counters::Event kNoSuchEvent = {PERF_TYPE_SOFTWARE, 0xFFFF};

void Work() {
    for (volatile int n = 0; n < 100000; n = n + 1) {
    }
}

TEST(Counters, EachEventCountsForItself) {
    const Counters counters(kClock, kNothing, kClock);
    const auto begin = counters.read();
    if (!begin) GTEST_SKIP() << "this system does not let the process count its own events";
    Work();
    const auto end = counters.read();
    ASSERT_TRUE(end.has_value());
    EXPECT_GT(end->cycles, begin->cycles);
    EXPECT_EQ(0U, end->instructions);
    EXPECT_GT(end->mispredicts, begin->mispredicts);
}

TEST(Counters, OneEventThatTheMachineDoesNotCountMeansNoCounters) {
    EXPECT_FALSE(Counters(kClock, kNothing, kNoSuchEvent).read().has_value());
    EXPECT_FALSE(Counters(kNoSuchEvent, kNothing, kClock).read().has_value());
}

TEST(Counters, OfTheProcessorEitherCountOrSaySo) {
    const Counters counters;
    const auto begin = counters.read();
    if (!begin) GTEST_SKIP() << "this machine does not count cycles";
    Work();
    const auto end = counters.read();
    ASSERT_TRUE(end.has_value());
    EXPECT_GT(end->instructions - begin->instructions, 100000U);
    EXPECT_GT(end->cycles, begin->cycles);
}

}  // namespace
