// Figure 8: 16,384 new instruments from contract-map packets, with rules on all 16 channels, to subscribed, read back,
// logged and in the day file, of the same calls of the card, log lines and file lines issued bare.

#include "bench/support/MapWork.h"
#include "bench/support/Timed.h"

namespace {

using bench::MapWork;

MapWork& Work() {
    static MapWork work(16384, 16);
    static const bool same = work.BothDoTheSame();
    if (!same) std::abort();
    return work;
}

void Learn(benchmark::State& state) {
    MapWork& work = Work();
    bench::Timed(
        state, [&] { work.PrepareLearning(); }, [&] { work.Learn(); });
    work.EndLearning();
    state.counters["subscriptions"] = static_cast<double>(work.Subscriptions());
}

void DoBare(benchmark::State& state) {
    MapWork& work = Work();
    bench::Timed(
        state, [&] { work.PrepareBare(); }, [&] { work.DoBare(); });
    work.EndBare();
}

BENCHMARK(Learn)->Name("fig8/ours")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(DoBare)->Name("fig8/floor")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
