// A start-up on the card, reset and six clearing passes included and the seconds of the reset left out; and the same
// calls of the card issued bare, one lock a call.

#include "bench/support/Rounds.h"
#include "bench/support/StartUpWork.h"

namespace {

std::vector<bench::Role> Starting() {
    static bench::StartUpWork work;
    if (!work.BothDoTheSame()) std::abort();
    return {{"ours", [] { work.Prepare(); }, [] { work.Start(); }, [] { work.End(); }},
            {"bare", [] { work.Prepare(); }, [] { work.StartBare(); }, [] { work.EndBare(); }}};
}

}  // namespace

std::vector<bench::Case> bench::cases() { return {{"start-up", 1, Starting}}; }
