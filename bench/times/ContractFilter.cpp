// Figure 7: 16,384 identifiers filtered for 16 channels with 50 classes and 10, 100 or 1,000 ids each, of the decision
// table read plainly, its lists searched from front to back.

#include "bench/support/FilterWork.h"
#include "bench/support/Timed.h"

namespace {

using bench::FilterWork;

constexpr std::size_t kInstruments = 16384;
constexpr std::size_t kChannels = 16;

template <std::size_t kIds>
FilterWork& Work() {
    static FilterWork work(kInstruments, kChannels, kIds);
    return work;
}

template <std::size_t kIds>
void Filter(benchmark::State& state) {
    FilterWork& work = Work<kIds>();
    bench::Timed(
        state, [&] { work.Prepare(); }, [&] { work.Filter(); });
    state.counters["chosen"] = static_cast<double>(work.Chosen());
}

template <std::size_t kIds>
void FilterPlainly(benchmark::State& state) {
    FilterWork& work = Work<kIds>();
    bench::Timed(
        state, [&] { work.Prepare(); }, [&] { work.FilterPlainly(); });
}

BENCHMARK(Filter<10>)->Name("fig7/ours/10")->UseManualTime()->Iterations(1);
BENCHMARK(Filter<100>)->Name("fig7/ours/100")->UseManualTime()->Iterations(1);
BENCHMARK(Filter<1000>)->Name("fig7/ours/1000")->UseManualTime()->Iterations(1);
BENCHMARK(FilterPlainly<10>)->Name("fig7/floor/10")->UseManualTime()->Iterations(1);
BENCHMARK(FilterPlainly<100>)->Name("fig7/floor/100")->UseManualTime()->Iterations(1);
BENCHMARK(FilterPlainly<1000>)->Name("fig7/floor/1000")->UseManualTime()->Iterations(1);

}  // namespace
