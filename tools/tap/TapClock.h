#pragma once

#include <x86intrin.h>
#include <cstdint>

namespace tap {

/// The polling thread stores the processor's time-stamp counter, which takes one instruction. The writer's thread later
/// turns it into the time of day. If the processor's counter does not run at a constant rate, ticks are the time of
/// day.
namespace clock_ticks {

[[gnu::visibility("hidden")]] extern bool g_counterIsEven;  // set by choose(), before the first now()

void choose();
std::uint64_t timeOfDay();  // nanoseconds since 1970

inline std::uint64_t now() { return g_counterIsEven ? __rdtsc() : timeOfDay(); }

}  // namespace clock_ticks

/// Turns ticks into nanoseconds since 1970, by a straight line through two readings of both clocks. The line is renewed
/// every millisecond, so that it follows corrections of the system's clock. For one thread.
class WallClock {
public:
    /// Reads both clocks, if it is time.
    void sample();
    std::uint64_t at(std::uint64_t ticks) const;
    std::uint64_t duration(std::uint64_t ticks) const;

private:
    struct Moment {
        std::uint64_t ticks = 0;
        std::uint64_t ns = 0;
    };
    static Moment readBoth();
    bool isPlausible(double nsPerTick) const;

    Moment m_last;    // where the line begins
    Moment m_newest;  // where it ended when it was drawn
    double m_nsPerTick = 0;
};

}  // namespace tap
