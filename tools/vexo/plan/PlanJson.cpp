#include <nlohmann/json.hpp>

#include "src/instruments/InstId.h"
#include "tools/vexo/plan/PlanOutput.h"

namespace vexo::plan {

namespace {

using Json = nlohmann::ordered_json;

class Describer {
public:
    explicit Describer(const Shown& shown) : m_shown(shown), m_list(shown.instruments.list) {}

    Json everything() const {
        Json all = {{"instruments", instruments()}, {"cards", Json::array()}};
        for (const auto& [number, card] : m_shown.plan.cards) all["cards"].push_back(describe(number, card));
        if (!m_shown.against.empty()) all["against"] = differences();
        // The findings have the form that vexo check gives them.
        all.update(Json::parse(check::asJson(m_shown.plan.report)));
        return all;
    }

private:
    Json ids(const std::vector<std::size_t>& some) const {
        Json names = Json::array();
        for (const std::size_t i : some) names.push_back(m_list[i].id);
        return names;
    }

    Json instruments() const {
        std::size_t combinations = 0;
        for (const Instrument& one : m_list) combinations += tableOf(one.id);
        return {{"origin", m_shown.instruments.origin},       {"file", m_shown.instruments.file},
                {"loaded", m_shown.instruments.isLoaded},     {"count", m_list.size()},
                {"single_leg", m_list.size() - combinations}, {"combinations", combinations}};
    }

    Json describe(unsigned int number, const CardPlan& card) const {
        Json result = {{"card", number},
                       {"master", card.master},
                       {"learning_ends", card.learningEnds},
                       {"channels", Json::array()},
                       {"nobody", ids(card.forNobody)},
                       {"rows", Json::array()}};
        for (unsigned int n = 0; n < card_reg::kChannels; ++n) {
            const ChannelPlan& channel = card.channels[n];
            if (!channel.rules.empty() || !channel.program.empty()) result["channels"].push_back(describe(n, channel));
        }
        for (std::size_t table = 0; table < 2; ++table)
            for (const auto& [index, row] : card.rows[table])
                result["rows"].push_back({{"table", table}, {"row", index}, {"mask", row.mask}, {"id", row.id}});
        return result;
    }

    Json describe(unsigned int number, const ChannelPlan& channel) const {
        Json rules = Json::array();
        for (const RulePlan& rule : channel.rules)
            rules.push_back({{"key", rule.key},
                             {"value", rule.value},
                             {"line", rule.line},
                             {"instruments", ids(rule.instruments)}});
        return {{"channel", number},
                {"program", channel.program},
                {"options", channel.options},
                {"rules", rules},
                {"instruments", ids(channel.instruments)}};
    }

    Json differences() const {
        Json cards = Json::array();
        for (const CardDifference& card : m_shown.differences) {
            Json channels = Json::array();
            for (const ChannelDifference& channel : card.channels)
                channels.push_back(
                    {{"channel", channel.channel}, {"added", ids(channel.added)}, {"removed", ids(channel.removed)}});
            Json rows = Json::array();
            for (const RowDifference& row : card.rows)
                rows.push_back({{"table", row.table},
                                {"row", row.row},
                                {"before", row.before},
                                {"after", row.after},
                                {"id", row.id}});
            cards.push_back({{"card", card.card}, {"channels", channels}, {"rows", rows}});
        }
        return {{"configurations", m_shown.against}, {"cards", cards}};
    }

    const Shown& m_shown;
    const std::vector<Instrument>& m_list;
};

}  // namespace

std::string asJson(const Shown& shown) {
    // An id or a value may be any bytes: what is no UTF-8 is replaced.
    return Describer(shown).everything().dump(1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace vexo::plan
