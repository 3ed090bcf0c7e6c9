#include <algorithm>
#include <iterator>
#include <set>

#include "tools/vexo/plan/Plan.h"

namespace vexo::plan {

namespace {

const CardPlan& cardOf(const Plan& plan, unsigned int number) {
    static const CardPlan none;
    const auto found = plan.cards.find(number);
    return found != plan.cards.end() ? found->second : none;
}

std::vector<std::size_t> onlyIn(const std::vector<std::size_t>& some, const std::vector<std::size_t>& others) {
    std::vector<std::size_t> result;
    std::set_difference(some.begin(), some.end(), others.begin(), others.end(), std::back_inserter(result));
    return result;
}

void addRows(const CardPlan& before, const CardPlan& after, std::size_t table, std::vector<RowDifference>& changed) {
    std::set<std::uint16_t> indexes;
    for (const CardPlan* plan : {&before, &after})
        for (const auto& [index, row] : plan->rows[table]) indexes.insert(index);
    for (const std::uint16_t index : indexes) {
        const auto was = before.rows[table].find(index);
        const auto is = after.rows[table].find(index);
        const bool existed = was != before.rows[table].end();
        const bool exists = is != after.rows[table].end();
        const std::uint16_t oldMask = existed ? was->second.mask : std::uint16_t{0};
        const std::uint16_t newMask = exists ? is->second.mask : std::uint16_t{0};
        if (oldMask != newMask)
            changed.push_back({table, index, oldMask, newMask, exists ? is->second.id : was->second.id});
    }
}

}  // namespace

std::vector<CardDifference> differences(const Plan& before, const Plan& after) {
    std::set<unsigned int> cards;
    for (const Plan* plan : {&before, &after})
        for (const auto& [number, card] : plan->cards) cards.insert(number);
    std::vector<CardDifference> all;
    for (const unsigned int number : cards) {
        const CardPlan& old = cardOf(before, number);
        const CardPlan& now = cardOf(after, number);
        CardDifference difference{number, {}, {}};
        for (unsigned int n = 0; n < card_reg::kChannels; ++n) {
            ChannelDifference channel{n, onlyIn(now.channels[n].instruments, old.channels[n].instruments),
                                      onlyIn(old.channels[n].instruments, now.channels[n].instruments)};
            if (!channel.added.empty() || !channel.removed.empty()) difference.channels.push_back(std::move(channel));
        }
        for (std::size_t table = 0; table < 2; ++table) addRows(old, now, table, difference.rows);
        if (!difference.channels.empty() || !difference.rows.empty()) all.push_back(std::move(difference));
    }
    return all;
}

}  // namespace vexo::plan
