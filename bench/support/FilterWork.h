#pragma once

#include <cstdlib>
#include <memory>
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

/// One pass of the contract filter, by the library and as the decision table reads.
class FilterWork {
public:
    FilterWork(std::size_t instruments, std::size_t channels, std::size_t ids) {
        const std::vector<Instrument> list = Market::Mixed(instruments);
        for (const Instrument& inst : list) m_map[inst.id] = inst.index;
        m_plainRules = Market::Rules(list, channels, ids, kClasses);
        SetRules(m_plainRules, m_rules);
        CheckThatBothChooseAlike();
    }

    void Prepare() {
        m_contracts.reset();
        m_chosen.clear();
        m_contracts = MakeService();
        m_chosen.resize(card_reg::kChannels);
        SettleHeap();
    }
    void Filter() { m_contracts->JudgeAndFilterSubsInst(); }
    void FilterPlainly() {
        for (std::size_t chan = 0; chan < m_chosen.size(); ++chan)
            m_chosen[chan] = test_support::plain::Choose(m_map, m_plainRules[chan]);
    }
    /// Entries of all channels' maps.
    std::size_t Chosen() const { return m_chosenCount; }

private:
    static constexpr std::size_t kClasses = 50;

    std::unique_ptr<Vexo2_U50::CContractServ> MakeService() {
        return std::make_unique<Vexo2_U50::CContractServ>(m_map, nullptr, nullptr, nullptr, 0, m_rules);
    }
    void CheckThatBothChooseAlike() {
        Prepare();
        Filter();
        FilterPlainly();
        for (std::size_t chan = 0; chan < m_chosen.size(); ++chan) {
            if (m_chosen[chan].oneLeg != m_contracts->oneLegByChannel[chan]) std::abort();
            if (m_chosen[chan].combine != m_contracts->combineByChannel[chan]) std::abort();
            m_chosenCount += m_chosen[chan].oneLeg.size() + m_chosen[chan].combine.size();
        }
    }

    Vexo2_U50::InstIdToIndex m_map;
    std::vector<test_support::plain::Rules> m_plainRules;
    Vexo2_U50::ZceSubsInfo_t m_rules[card_reg::kChannels];
    std::unique_ptr<Vexo2_U50::CContractServ> m_contracts;
    std::vector<test_support::plain::Chosen> m_chosen;
    std::size_t m_chosenCount = 0;
};

}  // namespace bench
