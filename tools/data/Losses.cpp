#include "tools/data/Losses.h"

#include <algorithm>

#include "tools/data/NumberText.h"

namespace vexo::data {
namespace {

constexpr struct {
    const char* name;
    const char* key;
} kCauses[kLossCauses] = {
    {"before the card", "before_card"}, {"by the card", "by_card"}, {"by the ring", "by_ring"},
    {"by the tap", "by_tap"},           {"by a relay", "by_relay"}, {"by the application", "by_application"},
};

std::uint64_t without(std::uint64_t all, const Count& part) { return all - std::min(all, part.value_or(0)); }

Count sum(const Count& one, const Count& other) {
    if (!one && !other) return std::nullopt;
    return sumOf(one.value_or(0), other.value_or(0));
}

}  // namespace

std::uint64_t sumOf(std::uint64_t one, std::uint64_t other) {
    std::uint64_t both = 0;
    return __builtin_add_overflow(one, other, &both) ? ~std::uint64_t{0} : both;
}

Losses lossesOf(const LossCounts& counts) {
    Losses losses;
    if (counts.lostBeforeCard) {
        losses[LossCause::kBeforeCard] = counts.lostBeforeCard;
    } else if (counts.sequenceLost && counts.backPressure) {
        // What was lost behind the card is missing in the sequence, too.
        const std::uint64_t beforeRing = without(*counts.sequenceLost, counts.backPressure);
        losses[LossCause::kBeforeCard] = without(without(beforeRing, counts.byTap), counts.byRelay);
    }
    losses[LossCause::kByCard] = sum(counts.fifoErrors, counts.errors);
    if (counts.backPressure && counts.backPressureByApplication) {
        const std::uint64_t byApplication = std::min(*counts.backPressureByApplication, *counts.backPressure);
        losses[LossCause::kByApplication] = byApplication;
        losses[LossCause::kByRing] = *counts.backPressure - byApplication;
    }
    losses[LossCause::kByTap] = counts.byTap;
    losses[LossCause::kByRelay] = counts.byRelay;
    return losses;
}

Losses operator+(const Losses& one, const Losses& other) {
    Losses both;
    for (const LossCause cause : kAllLossCauses) both[cause] = sum(one[cause], other[cause]);
    return both;
}

std::uint64_t totalOf(const Losses& losses) {
    std::uint64_t total = 0;
    for (const Count& count : losses.counts) total = sumOf(total, count.value_or(0));
    return total;
}

const char* nameOf(LossCause cause) { return kCauses[static_cast<std::size_t>(cause)].name; }
const char* keyOf(LossCause cause) { return kCauses[static_cast<std::size_t>(cause)].key; }

std::string lossText(const Count& count) { return count ? std::to_string(*count) : "-"; }
std::string groupedLossText(const Count& count) { return count ? grouped(*count) : "-"; }

std::string lossLine(const Losses& losses) {
    std::string line;
    for (const LossCause cause : kAllLossCauses) {
        line += std::string(line.empty() ? "" : ", ") + nameOf(cause) + " " + groupedLossText(losses[cause]);
    }
    return line;
}

}  // namespace vexo::data
