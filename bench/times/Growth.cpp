// How the batch work grows with the instruments, and with the channels that have rules. The roles of a case are sizes.

#include <functional>
#include <memory>

#include "bench/support/DayFileWork.h"
#include "bench/support/FilterWork.h"
#include "bench/support/MapWork.h"
#include "bench/support/Rounds.h"

namespace {

using bench::DayFileWork;
using bench::FilterWork;
using bench::MapWork;
using bench::Role;

constexpr std::size_t kAllChannels = 16;
constexpr std::size_t kAllInstruments = 16384;
constexpr std::size_t kIds = 1000;

Role Load(std::size_t instruments) {
    const auto work = std::make_shared<DayFileWork>(bench::Market::Mixed(instruments));
    const auto prepare = [=] {
        work->Fill();
        work->Empty();
    };
    return {std::to_string(instruments), prepare, [=] { work->Load(); }, {}};
}

Role Filter(std::size_t size, std::size_t instruments, std::size_t channels) {
    const auto work = std::make_shared<FilterWork>(instruments, channels, kIds);
    return {std::to_string(size), [=] { work->Prepare(); }, [=] { work->Filter(); }, {}};
}

Role Learn(std::size_t size, std::size_t instruments, std::size_t channels) {
    const auto work = std::make_shared<MapWork>(instruments, channels);
    return {std::to_string(size), [=] { work->PrepareLearning(); }, [=] { work->Learn(); },
            [=] { work->EndLearning(); }};
}

bench::Case BySize(const std::string& name, const std::vector<std::size_t>& sizes,
                   const std::function<Role(std::size_t)>& make) {
    return {"growth/" + name, 1, [=] {
                std::vector<Role> roles;
                for (const std::size_t size : sizes) roles.push_back(make(size));
                return roles;
            }};
}

}  // namespace

std::vector<bench::Case> bench::cases() {
    const std::vector<std::size_t> instruments = {1000, 4000, kAllInstruments};
    const std::vector<std::size_t> channels = {1, 4, kAllChannels};
    return {
        BySize("load/instruments", instruments, Load),
        BySize("filter/instruments", instruments, [](std::size_t n) { return Filter(n, n, kAllChannels); }),
        BySize("map/instruments", instruments, [](std::size_t n) { return Learn(n, n, kAllChannels); }),
        BySize("filter/channels", channels, [](std::size_t n) { return Filter(n, kAllInstruments, n); }),
        BySize("map/channels", channels, [](std::size_t n) { return Learn(n, kAllInstruments, n); }),
    };
}
