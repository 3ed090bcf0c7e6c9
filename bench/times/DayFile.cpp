// day-file-line: a learned instrument written into the day file, and write(2) of the same line; 16,384 a round.
// day-file-load: 16,384 lines of a day file loaded into the map; the rival is one read, std::from_chars and an
// insertion in sorted order. The lines come in no order, which is the worst that a map can get; "sorted" has them in
// the order of their ids.

#include <algorithm>

#include "bench/support/DayFileWork.h"
#include "bench/support/Rounds.h"

namespace {

using bench::DayFileWork;
using bench::Instrument;
using bench::Market;
using bench::Role;

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

std::vector<Role> Writing() {
    return {{"ours", [] { Unordered().StartFile(); }, [] { Unordered().Write(); }, {}},
            {"write(2)", [] { Unordered().StartFileBare(); }, [] { Unordered().WriteBare(); }, {}}};
}

std::vector<Role> Loading(DayFileWork& work) {
    const auto prepare = [&work] {
        work.Fill();
        work.Empty();
    };
    return {{"ours", prepare, [&work] { work.Load(); }, {}}, {"by-hand", prepare, [&work] { work.LoadByHand(); }, {}}};
}

}  // namespace

std::vector<bench::Case> bench::cases() {
    return {{"day-file-line", kInstruments, Writing},
            {"day-file-load/unordered", kInstruments, [] { return Loading(Unordered()); }},
            {"day-file-load/sorted", kInstruments, [] { return Loading(Ordered()); }}};
}
