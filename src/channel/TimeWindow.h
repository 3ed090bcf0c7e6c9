#pragma once

#include <cstdint>

/// A range of times of day in decimal form HHMMSS, both ends included.
struct TimeWindow {
    std::uint32_t first;
    std::uint32_t last;

    bool contains(std::uint32_t t) const { return t >= first && t <= last; }
};
