// 16,384 identifiers filtered for 16 channels with 50 classes and 1,000 ids each: by the library, and by the decision
// table over hash sets.

#include "bench/support/FilterWork.h"
#include "bench/support/Rounds.h"

namespace {

constexpr std::size_t kInstruments = 16384;
constexpr std::size_t kChannels = 16;

template <std::size_t kIds>
std::vector<bench::Role> Filtering() {
    static bench::FilterWork work(kInstruments, kChannels, kIds);
    return {{"ours", [] { work.Prepare(); }, [] { work.Filter(); }, {}},
            {"hash-sets", [] { work.Prepare(); }, [] { work.FilterWithHashSets(); }, {}}};
}

}  // namespace

std::vector<bench::Case> bench::cases() {
    return {{"filter/10", 1, Filtering<10>}, {"filter/1000", 1, Filtering<1000>}};
}
