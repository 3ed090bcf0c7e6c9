#include <algorithm>
#include <cstdio>
#include <map>

#include "src/instruments/InstId.h"
#include "tools/vexo/plan/PlanOutput.h"
#include "tools/vexo/show/Harmless.h"

namespace vexo::plan {

namespace {

constexpr std::size_t kFirstNames = 5;

std::string maskText(std::uint16_t mask) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%04x", mask);
    return text;
}

std::string counted(std::size_t count, const char* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

class Writer {
public:
    Writer(const Shown& shown, bool all) : m_shown(shown), m_list(shown.instruments.list), m_all(all) {}

    std::string text() {
        std::vector<std::size_t> everything(m_list.size());
        for (std::size_t i = 0; i < everything.size(); ++i) everything[i] = i;
        m_text = "instruments: " + split(everything) + "; " + harmless(m_shown.instruments.origin) + "\n";
        for (const auto& [number, card] : m_shown.plan.cards) writeCard(number, card);
        if (!m_shown.against.empty()) writeDifferences();
        return m_text;
    }

private:
    void line(std::size_t depth, const std::string& text) { m_text += std::string(2 * depth, ' ') + text + "\n"; }

    std::size_t combinations(const std::vector<std::size_t>& some) const {
        return static_cast<std::size_t>(std::count_if(some.begin(), some.end(), [this](std::size_t i) {
            return tableOf(m_list[i].id) == card_reg::kCombinationTable;
        }));
    }

    // "12 (10 single-leg, 2 combinations)"
    std::string split(const std::vector<std::size_t>& some) const {
        const std::size_t combined = combinations(some);
        return std::to_string(some.size()) + " (" + std::to_string(some.size() - combined) + " single-leg, " +
               counted(combined, "combination") + ")";
    }

    std::string names(const std::vector<std::size_t>& some) const {
        std::string text;
        for (std::size_t n = 0; n < some.size(); ++n) {
            if (!m_all && n == kFirstNames) return text + " ...";
            text += (n == 0 ? "" : " ") + harmless(m_list[some[n]].id);
        }
        return text;
    }

    void writeCard(unsigned int number, const CardPlan& card) {
        line(0,
             "card " + std::to_string(number) +
                 (card.master.empty() ? ", without the configuration of a master" : ", by " + harmless(card.master)) +
                 ":");
        if (!card.master.empty()) line(1, learning(card));
        for (unsigned int n = 0; n < card_reg::kChannels; ++n) {
            const ChannelPlan& channel = card.channels[n];
            if (channel.rules.empty() && channel.program.empty()) continue;
            writeChannel(n, channel);
        }
        writeNobody(card);
        writeRows(card);
    }

    std::string learning(const CardPlan& card) const {
        if (m_shown.instruments.isLoaded) return "the master loads the map from the day file";
        if (!card.learningEnds) return "the master learns the map, without end";
        return "the master learns the map until everything that is configured has been announced, and " +
               counted(card.minutesOfDelay, "minute") + " more";
    }

    void writeChannel(unsigned int number, const ChannelPlan& channel) {
        line(1, "channel " + std::to_string(number) +
                    (channel.program.empty() ? "" : ", the program of " + harmless(channel.program)) + ": " +
                    (channel.instruments.empty() ? "nothing" : split(channel.instruments)));
        std::size_t width = 0;
        for (const RulePlan& rule : channel.rules) width = std::max(width, ruleName(rule).size());
        for (const RulePlan& rule : channel.rules) {
            const std::string name = ruleName(rule);
            line(2, name + std::string(width - name.size(), ' ') + "  " + ruleResult(rule, channel.options));
        }
    }

    static std::string ruleName(const RulePlan& rule) { return rule.key + " = " + harmless(rule.value); }

    std::string ruleResult(const RulePlan& rule, bool options) const {
        if (rule.instruments.empty()) return "matches nothing";
        std::string text = std::to_string(rule.instruments.size());
        if (rule.key == "insts" && options) {
            const auto count = static_cast<std::size_t>(
                std::count_if(rule.instruments.begin(), rule.instruments.end(),
                              [this](std::size_t i) { return IsOption(m_list[i].id); }));
            text += " (" + counted(count, "option") + ")";
        }
        return text + ": " + names(rule.instruments);
    }

    void writeNobody(const CardPlan& card) {
        if (card.forNobody.empty())
            line(1, "for nobody: none");
        else
            line(1, "for nobody: " + split(card.forNobody) + ": " + names(card.forNobody));
    }

    void writeRows(const CardPlan& card) {
        std::map<std::uint16_t, std::size_t> byMask[2];
        for (std::size_t table = 0; table < 2; ++table)
            for (const auto& [index, row] : card.rows[table]) ++byMask[table][row.mask];
        const std::size_t count = card.rows[0].size() + card.rows[1].size();
        line(1, count == 0 ? "rows to write: none" : "rows to write: " + std::to_string(count));
        for (std::size_t table = 0; table < 2; ++table)
            for (const auto& [mask, rows] : byMask[table])
                line(2, "table " + std::to_string(table) + ", mask " + maskText(mask) + ": " + counted(rows, "row"));
        if (!m_all) return;
        for (std::size_t table = 0; table < 2; ++table)
            for (const auto& [index, row] : card.rows[table])
                line(2, "table " + std::to_string(table) + " row " + std::to_string(index) + " mask " +
                            maskText(row.mask) + " " + harmless(row.id));
    }

    void writeDifferences() {
        std::string files;
        for (const std::string& file : m_shown.against) files += (files.empty() ? "" : ", ") + harmless(file);
        if (m_shown.differences.empty()) return line(0, "against " + files + ": no difference");
        line(0, "against " + files + ":");
        for (const CardDifference& card : m_shown.differences) {
            for (const ChannelDifference& channel : card.channels) writeChange(card.card, channel);
            writeRowChanges(card);
        }
    }

    void writeChange(unsigned int card, const ChannelDifference& channel) {
        line(1, "card " + std::to_string(card) + ", channel " + std::to_string(channel.channel) + ": " +
                    std::to_string(channel.added.size()) + " more, " + std::to_string(channel.removed.size()) +
                    " less");
        if (!channel.added.empty()) line(2, "+ " + names(channel.added));
        if (!channel.removed.empty()) line(2, "- " + names(channel.removed));
    }

    void writeRowChanges(const CardDifference& card) {
        line(1, "card " + std::to_string(card.card) + ": " + counted(card.rows.size(), "row") + " with another mask");
        for (std::size_t n = 0; n < card.rows.size(); ++n) {
            if (!m_all && n == kFirstNames) return line(2, "...");
            const RowDifference& row = card.rows[n];
            line(2, "table " + std::to_string(row.table) + " row " + std::to_string(row.row) + " mask " +
                        maskText(row.before) + " -> " + maskText(row.after) + " " + harmless(row.id));
        }
    }

    const Shown& m_shown;
    const std::vector<Instrument>& m_list;
    const bool m_all;
    std::string m_text;
};

}  // namespace

std::string asText(const Shown& shown, bool all, bool colored) {
    return Writer(shown, all).text() + check::asText(shown.plan.report, colored);
}

}  // namespace vexo::plan
