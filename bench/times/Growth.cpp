// Figure 10: how the batch work grows, with the channels that have rules and with the instruments.

#include <map>
#include <memory>
#include <utility>

#include "bench/support/DayFileWork.h"
#include "bench/support/FilterWork.h"
#include "bench/support/MapWork.h"
#include "bench/support/Timed.h"

namespace {

using bench::DayFileWork;
using bench::FilterWork;
using bench::MapWork;

constexpr std::size_t kAllChannels = 16;
constexpr std::size_t kAllInstruments = 16384;
constexpr std::size_t kIds = 1000;

// The work of one size, made when it is first asked for.
template <typename Work, typename Make>
Work& Kept(std::pair<std::size_t, std::size_t> size, Make make) {
    static std::map<std::pair<std::size_t, std::size_t>, std::unique_ptr<Work>> all;
    auto& work = all[size];
    if (work == nullptr) work = make();
    return *work;
}

void Load(benchmark::State& state, std::size_t instruments) {
    DayFileWork& work = Kept<DayFileWork>(
        {instruments, 0}, [&] { return std::make_unique<DayFileWork>(bench::Market::Mixed(instruments)); });
    const auto prepare = [&] {
        work.Fill();
        work.Empty();
    };
    bench::Timed(state, prepare, [&] { work.Load(); });
}

void Filter(benchmark::State& state, std::size_t instruments, std::size_t channels) {
    FilterWork& work = Kept<FilterWork>({instruments, channels},
                                        [&] { return std::make_unique<FilterWork>(instruments, channels, kIds); });
    bench::Timed(
        state, [&] { work.Prepare(); }, [&] { work.Filter(); });
    state.counters["chosen"] = static_cast<double>(work.Chosen());
}

void Learn(benchmark::State& state, std::size_t instruments, std::size_t channels) {
    MapWork& work = Kept<MapWork>({instruments, channels},
                                  [&] { return std::make_unique<MapWork>(instruments, channels); });
    bench::Timed(
        state, [&] { work.PrepareLearning(); }, [&] { work.Learn(); });
    work.EndLearning();
}

template <typename Case, typename... Sizes>
void Register(const std::string& name, Case work, Sizes... sizes) {
    benchmark::RegisterBenchmark(("fig10/ours/" + name).c_str(),
                                 [=](benchmark::State& state) { work(state, sizes...); })
        ->UseManualTime()
        ->Iterations(1);
}

bool RegisterAll() {
    for (const std::size_t n : {std::size_t{1000}, std::size_t{4000}, kAllInstruments}) {
        const std::string size = "/instruments/" + std::to_string(n);
        Register("load" + size, Load, n);
        Register("filter" + size, Filter, n, kAllChannels);
        Register("map" + size, Learn, n, kAllChannels);
    }
    for (const std::size_t n : {std::size_t{1}, std::size_t{4}, kAllChannels}) {
        const std::string size = "/channels/" + std::to_string(n);
        Register("filter" + size, Filter, kAllInstruments, n);
        Register("map" + size, Learn, kAllInstruments, n);
    }
    return true;
}

const bool g_registered = RegisterAll();

}  // namespace
