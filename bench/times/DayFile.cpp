// Figure 5: one learned instrument written into the day file, of write(2) of the same line; 16,384 a measurement.
// Figure 6: 16,384 lines of a day file loaded into the map, of getline and stoi into the same map. The lines come in no
// order, which is the worst that a map can get; "fig6/.../sorted" has them in the order of their ids.

#include <algorithm>

#include "bench/support/DayFileWork.h"
#include "bench/support/Timed.h"

namespace {

using bench::DayFileWork;
using bench::Instrument;
using bench::Market;
using bench::Timed;

constexpr std::size_t kInstruments = 16384;

std::vector<Instrument> Sorted() {
    std::vector<Instrument> list = Market::Mixed(kInstruments);
    std::sort(list.begin(), list.end(), [](const Instrument& a, const Instrument& b) { return a.id < b.id; });
    return list;
}

DayFileWork& Unordered() {
    static DayFileWork work(Market::Mixed(kInstruments));
    return work;
}

DayFileWork& Ordered() {
    static DayFileWork work(Sorted());
    return work;
}

void Write(benchmark::State& state) {
    Timed(
        state, [] { Unordered().StartFile(); }, [] { Unordered().Write(); });
}

void WriteBare(benchmark::State& state) {
    Timed(
        state, [] { Unordered().StartFileBare(); }, [] { Unordered().WriteBare(); });
}

void Prepare(DayFileWork& work) {
    work.Fill();
    work.Empty();
}

void Load(benchmark::State& state, DayFileWork& (*work)()) {
    Timed(
        state, [&] { Prepare(work()); }, [&] { work().Load(); });
}

void LoadBare(benchmark::State& state, DayFileWork& (*work)()) {
    Timed(
        state, [&] { Prepare(work()); }, [&] { work().LoadBare(); });
}

BENCHMARK(Write)->Name("fig5/ours")->UseManualTime()->Iterations(1);
BENCHMARK(WriteBare)->Name("fig5/floor")->UseManualTime()->Iterations(1);
BENCHMARK_CAPTURE(Load, unordered, Unordered)->Name("fig6/ours")->UseManualTime()->Iterations(1);
BENCHMARK_CAPTURE(LoadBare, unordered, Unordered)->Name("fig6/floor")->UseManualTime()->Iterations(1);
BENCHMARK_CAPTURE(Load, ordered, Ordered)->Name("fig6/ours/sorted")->UseManualTime()->Iterations(1);
BENCHMARK_CAPTURE(LoadBare, ordered, Ordered)->Name("fig6/floor/sorted")->UseManualTime()->Iterations(1);

}  // namespace
