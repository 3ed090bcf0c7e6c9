// Figure 9: a start-up on the card, reset and six clearing passes included and the seconds of the reset left out, of
// the same calls of the card issued bare, one lock a call.

#include "bench/support/StartUpWork.h"
#include "bench/support/Timed.h"

namespace {

using bench::StartUpWork;

StartUpWork& Work() {
    static StartUpWork work;
    static const bool same = work.BothDoTheSame();
    if (!same) std::abort();
    return work;
}

void Start(benchmark::State& state) {
    StartUpWork& work = Work();
    bench::Timed(
        state, [&] { work.Prepare(); }, [&] { work.Start(); });
    work.End();
}

void StartBare(benchmark::State& state) {
    StartUpWork& work = Work();
    bench::Timed(
        state, [&] { work.Prepare(); }, [&] { work.StartBare(); });
    work.EndBare();
}

BENCHMARK(Start)->Name("fig9/ours")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(StartBare)->Name("fig9/floor")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
