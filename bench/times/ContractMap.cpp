// 2,048 new instruments from contract-map packets, with rules on all 16 channels, to subscribed, read back, logged and
// in the day file; and the same calls of the card, log lines and file lines issued bare. A whole market would take half
// a second a turn: even a calm machine seldom has that long without a context switch.

#include "bench/support/MapWork.h"
#include "bench/support/Rounds.h"

namespace {

std::vector<bench::Role> Learning() {
    static bench::MapWork work(2048, 16);
    if (!work.BothDoTheSame()) std::abort();
    return {{"ours", [] { work.PrepareLearning(); }, [] { work.Learn(); }, [] { work.EndLearning(); }},
            {"bare", [] { work.PrepareBare(); }, [] { work.DoBare(); }, [] { work.EndBare(); }}};
}

}  // namespace

std::vector<bench::Case> bench::cases() { return {{"contract-map", 1, Learning}}; }
