#include "tools/tap/TapClock.h"

#include <cpuid.h>
#include <cmath>
#include <ctime>

namespace tap {
namespace clock_ticks {

bool g_counterIsEven = false;

// "Invariant TSC": the same rate in every state of the processor, on all of its cores.
void choose() {
    constexpr unsigned kPowerManagement = 0x80000007;
    constexpr unsigned kInvariantCounter = 1U << 8;
    unsigned a = 0;
    unsigned b = 0;
    unsigned c = 0;
    unsigned d = 0;
    g_counterIsEven = __get_cpuid(kPowerManagement, &a, &b, &c, &d) != 0 && (d & kInvariantCounter) != 0;
}

std::uint64_t timeOfDay() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

}  // namespace clock_ticks

namespace {

constexpr double kSampleEveryNs = 1e6;
constexpr double kMaxDeviation = 0.01;  // a greater one means that the system's clock was set

}  // namespace

// The kernel may take the CPU away between the two clock readings. So read a few pairs and use the closest one.
WallClock::Moment WallClock::readBoth() {
    Moment best;
    std::uint64_t bestGap = ~std::uint64_t{0};
    for (int attempt = 0; attempt < 3; ++attempt) {
        const std::uint64_t before = clock_ticks::now();
        const std::uint64_t ns = clock_ticks::timeOfDay();
        const std::uint64_t gap = clock_ticks::now() - before;
        if (gap >= bestGap) continue;
        bestGap = gap;
        best = {before + gap / 2, ns};
    }
    return best;
}

bool WallClock::isPlausible(double nsPerTick) const {
    if (m_nsPerTick == 0) return nsPerTick > 0;
    return std::abs(nsPerTick / m_nsPerTick - 1) < kMaxDeviation;
}

void WallClock::sample() {
    if (!clock_ticks::g_counterIsEven) return;
    if (m_newest.ticks == 0) {
        m_last = m_newest = readBoth();
        return;
    }
    const auto elapsed = static_cast<double>(clock_ticks::now() - m_newest.ticks);
    if (m_nsPerTick != 0 && elapsed * m_nsPerTick < kSampleEveryNs) return;
    const Moment moment = readBoth();
    const double nsPerTick = static_cast<double>(static_cast<std::int64_t>(moment.ns - m_newest.ns)) /
                             static_cast<double>(moment.ticks - m_newest.ticks);
    if (isPlausible(nsPerTick)) {
        m_nsPerTick = nsPerTick;
        m_last = m_newest;
    } else {
        m_last = moment;
    }
    m_newest = moment;
}

std::uint64_t WallClock::at(std::uint64_t ticks) const {
    if (!clock_ticks::g_counterIsEven) return ticks;
    const auto since = static_cast<double>(static_cast<std::int64_t>(ticks - m_last.ticks));
    return m_last.ns + static_cast<std::uint64_t>(std::llround(since * m_nsPerTick));
}

std::uint64_t WallClock::duration(std::uint64_t ticks) const {
    if (!clock_ticks::g_counterIsEven) return ticks;
    return static_cast<std::uint64_t>(static_cast<double>(ticks) * m_nsPerTick);
}

}  // namespace tap
