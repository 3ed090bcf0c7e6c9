#pragma once

#include <benchmark/benchmark.h>

#include <chrono>

namespace bench {

/// Each iteration prepares, then measures the work alone. The case is registered with UseManualTime().
template <typename Prepare, typename Work>
void Timed(benchmark::State& state, Prepare prepare, Work work) {
    for (auto _ : state) {
        prepare();
        const auto start = std::chrono::steady_clock::now();
        work();
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(took.count());
    }
}

}  // namespace bench
