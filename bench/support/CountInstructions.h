#pragma once

#include <valgrind/callgrind.h>
#include <cstdint>
#include <cstdio>

/// Runs @p body @p times times as one section that callgrind counts by itself under @p name. Warm-up (lazy binding,
/// first-use paths) is the caller's. Costs a few instructions that do nothing when the program runs without valgrind.
template <typename Body>
[[gnu::noinline]] void CountInstructions(const char* name, std::uint64_t times, Body body) {
    char label[128];
    std::snprintf(label, sizeof label, "section %s %llu", name, static_cast<unsigned long long>(times));
    CALLGRIND_ZERO_STATS;
    CALLGRIND_TOGGLE_COLLECT;
    for (std::uint64_t n = 0; n < times; ++n) body();
    CALLGRIND_TOGGLE_COLLECT;
    CALLGRIND_DUMP_STATS_AT(label);
}
