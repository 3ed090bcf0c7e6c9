#pragma once

#include <cstdlib>
#include <memory>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "bench/support/Host.h"
#include "bench/support/Market.h"
#include "src/config/ConfigFile.h"
#include "src/instruments/ContractServ.h"

namespace bench {

/// Puts plain rules into the library's records.
inline void SetRules(const std::vector<test_support::plain::Rules>& from,
                     Vexo2_U50::ZceSubsInfo_t (&to)[card_reg::kChannels]) {
    for (std::size_t chan = 0; chan < from.size(); ++chan) {
        to[chan].m_SubsContractId = {from[chan].ids.begin(), from[chan].ids.end()};
        to[chan].m_SubsContractClass = {from[chan].classes.begin(), from[chan].classes.end()};
        to[chan].bSubAll = from[chan].all;
        to[chan].bOptionsRecv = from[chan].options;
        to[chan].bIpsRecv = from[chan].ips;
        to[chan].bSpdRecv = from[chan].spd;
    }
}

/// A channel's rules as a careful hand keeps them: hash sets, looked up without a copy of the text.
struct HashedRules {
    explicit HashedRules(const test_support::plain::Rules& rules)
        : ids(rules.ids.begin(), rules.ids.end()),
          classes(rules.classes.begin(), rules.classes.end()),
          all(rules.all),
          options(rules.options),
          ips(rules.ips),
          spd(rules.spd) {}

    std::unordered_set<std::string_view> ids;
    std::unordered_set<std::string_view> classes;
    bool all, options, ips, spd;
};

/// The decision table over hash sets.
class HashedFilter {
public:
    using Decision = test_support::plain::Decision;

    static void Choose(const test_support::plain::IdToIndex& ids, const HashedRules& rules,
                       test_support::plain::Chosen& chosen) {
        for (const auto& [id, index] : ids) {
            const Decision decision = Decide(id, rules);
            if (decision == Decision::kOneLeg) chosen.oneLeg[index] = id;
            if (decision == Decision::kCombine) chosen.combine[index] = id;
        }
    }

private:
    static Decision Decide(std::string_view id, const HashedRules& rules) {
        const std::string_view prefix = id.substr(0, 4);
        if (prefix == "SPD-") return rules.spd ? Decision::kCombine : Decision::kSkip;
        if (prefix == "IPS-") return rules.ips ? Decision::kCombine : Decision::kSkip;
        const std::size_t mark = Mark(id);
        if (mark != 0 && !rules.options) return Decision::kSkip;
        const bool wanted = rules.all || rules.classes.count(ClassOf(id)) != 0 ||
                            rules.ids.count(mark != 0 ? id.substr(0, mark) : id) != 0;
        return wanted ? Decision::kOneLeg : Decision::kSkip;
    }
    static std::size_t Mark(std::string_view id) {
        using test_support::plain::IsDigit;
        for (std::size_t i = 1; i + 1 < id.size(); ++i) {
            if ((id[i] == 'C' || id[i] == 'P') && IsDigit(id[i - 1]) && IsDigit(id[i + 1])) return i;
        }
        return 0;
    }
    static std::string_view ClassOf(std::string_view id) {
        std::size_t letters = 0;
        while (letters < id.size() && test_support::plain::IsLetter(id[letters])) ++letters;
        return id.substr(0, letters);
    }
};

/// One pass of the contract filter, by the library and over hash sets.
class FilterWork {
public:
    FilterWork(std::size_t instruments, std::size_t channels, std::size_t ids) {
        const std::vector<Instrument> list = Market::Mixed(instruments);
        for (const Instrument& inst : list) m_map[inst.id] = inst.index;
        m_plainRules = Market::Rules(list, channels, ids, kClasses);
        SetRules(m_plainRules, m_rules);
        for (const test_support::plain::Rules& rules : m_plainRules) m_hashedRules.emplace_back(rules);
        CheckThatAllChooseAlike();
    }

    void Prepare() {
        m_contracts.reset();
        m_chosen.clear();
        m_contracts = MakeService();
        m_chosen.resize(card_reg::kChannels);
        SettleHeap();
    }
    void Filter() { m_contracts->JudgeAndFilterSubsInst(); }
    void FilterWithHashSets() {
        for (std::size_t chan = 0; chan < m_chosen.size(); ++chan)
            HashedFilter::Choose(m_map, m_hashedRules[chan], m_chosen[chan]);
    }

private:
    static constexpr std::size_t kClasses = 50;

    std::unique_ptr<Vexo2_U50::CContractServ> MakeService() {
        return std::make_unique<Vexo2_U50::CContractServ>(m_map, nullptr, nullptr, nullptr, 0, m_rules);
    }
    void CheckThatAllChooseAlike() {
        Prepare();
        Filter();
        FilterWithHashSets();
        for (std::size_t chan = 0; chan < m_chosen.size(); ++chan) {
            const test_support::plain::Chosen plain = test_support::plain::Choose(m_map, m_plainRules[chan]);
            if (plain.oneLeg != m_contracts->oneLegByChannel[chan] || plain.oneLeg != m_chosen[chan].oneLeg)
                std::abort();
            if (plain.combine != m_contracts->combineByChannel[chan] || plain.combine != m_chosen[chan].combine)
                std::abort();
        }
    }

    Vexo2_U50::InstIdToIndex m_map;
    std::vector<test_support::plain::Rules> m_plainRules;
    std::vector<HashedRules> m_hashedRules;  // their texts are those of the plain rules
    Vexo2_U50::ZceSubsInfo_t m_rules[card_reg::kChannels];
    std::unique_ptr<Vexo2_U50::CContractServ> m_contracts;
    std::vector<test_support::plain::Chosen> m_chosen;
};

}  // namespace bench
