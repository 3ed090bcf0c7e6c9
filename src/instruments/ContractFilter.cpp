#include "src/instruments/ContractServ.h"

#include <algorithm>
#include <vector>

#include "src/instruments/InstId.h"
#include "src/log/log.h"
#include "src/util/ForkSafe.h"

namespace Vexo2_U50 {

namespace {

constexpr char kLogFile[] = "DataType";

// The same list of all channels. Keeps its last answer: neighbours in the order of their ids mostly share their class,
// and options share their future.
class ListOfAllChannels {
public:
    ListOfAllChannels(const ZceSubsInfo_t (&rules)[card_reg::kChannels], NameList ZceSubsInfo_t::*list)
        : m_rules(rules), m_list(list) {}

    // The channels whose list holds the name, bit n for channel n.
    unsigned int holding(const std::string& name) {
        if (!m_asked || name != m_name) {
            m_channels = ask(name);
            m_name = name;
            m_asked = true;
        }
        return m_channels;
    }

private:
    unsigned int ask(const std::string& name) const {
        const HashedName hashed(name);
        unsigned int channels = 0;
        for (unsigned int chan = 0; chan < card_reg::kChannels; ++chan)
            channels |= static_cast<unsigned int>((m_rules[chan].*m_list).contains(hashed)) << chan;
        return channels;
    }

    const ZceSubsInfo_t (&m_rules)[card_reg::kChannels];
    NameList ZceSubsInfo_t::*m_list;
    bool m_asked = false;
    std::string m_name;           // the last question
    unsigned int m_channels = 0;  // its answer
};

// Asks the rules of all channels in one pass.
class AllRules {
public:
    explicit AllRules(const ZceSubsInfo_t (&rules)[card_reg::kChannels])
        : m_classes(rules, &ZceSubsInfo_t::m_SubsContractClass), m_ids(rules, &ZceSubsInfo_t::m_SubsContractId) {
        for (unsigned int chan = 0; chan < card_reg::kChannels; ++chan) {
            m_all |= static_cast<unsigned int>(rules[chan].bSubAll) << chan;
            m_options |= static_cast<unsigned int>(rules[chan].bOptionsRecv) << chan;
            m_ips |= static_cast<unsigned int>(rules[chan].bIpsRecv) << chan;
            m_spd |= static_cast<unsigned int>(rules[chan].bSpdRecv) << chan;
        }
    }

    unsigned int wantedBy(const std::string& id) {
        if (isCalendarSpread(id)) return m_spd;
        if (isInterProductSpread(id)) return m_ips;
        std::string listed = id;  // of an option, its future
        const bool option = OptionExtractSecondClass(id, listed) == 0;
        const unsigned int wanted = m_all | m_classes.holding(ExtractClass(id)) | m_ids.holding(listed);
        return option ? wanted & m_options : wanted;
    }

private:
    unsigned int m_all = 0, m_options = 0, m_ips = 0, m_spd = 0;
    ListOfAllChannels m_classes;
    ListOfAllChannels m_ids;
};

struct Decided {
    unsigned short index;
    std::uint8_t table;
    unsigned int channels;  // that take it
    const std::string* id;
};

}  // namespace

std::mutex CContractServ::order_mutex;

CContractServ::CContractServ(InstIdToIndex& idToIndex, CZceConfigFile* cfg, CBrixBinFile* bin, CZceFpgaServ* fpga,
                             std::uint32_t chan, ZceSubsInfo_t (&rules)[card_reg::kChannels])
    : channel(chan), instIdToIndex(idToIndex), fpgaServ(fpga), binFile(bin), config(cfg), subsInfo(rules) {
    static const fork_safe::Guard<order_mutex> s_forkGuard(fork_safe::Rank::kInstruments);
}

CContractServ::~CContractServ() = default;

void CContractServ::FilterAndStoreToGlobMap() {
    const std::lock_guard<std::mutex> guard(order_mutex);
    DumpLackId();
    JudgeAndFilterSubsInst();
    StoreAllSubsInstToFpga();
}

void CContractServ::JudgeAndFilterSubsInst() {
    LOG_INFO("Begin match needed inst! AllInstNum:%u.", static_cast<unsigned int>(instIdToIndex.size()));
    if (instIdToIndex.empty()) return;
    AllRules rules(subsInfo);
    std::vector<Decided> insts;
    insts.reserve(instIdToIndex.size());
    for (const auto& [id, index] : instIdToIndex) insts.push_back({index, tableOf(id), rules.wantedBy(id), &id});
    // A map fills fastest in its own order. The sort is stable: when several ids share an index, the last one wins.
    std::stable_sort(insts.begin(), insts.end(), [](const Decided& a, const Decided& b) { return a.index < b.index; });
    for (std::uint32_t chan = 0; chan < card_reg::kChannels; ++chan) {
        IndexToInstId* const chosen[] = {&oneLegByChannel[chan], &combineByChannel[chan]};
        for (const Decided& inst : insts) {
            if ((inst.channels >> chan & 1) == 0) continue;
            IndexToInstId& map = *chosen[inst.table];
            map.insert_or_assign(map.end(), inst.index, *inst.id);
        }
        LOG_INFO("[channel:%d] Filter needed sgl count:%u, cmb count:%u.", static_cast<int>(chan),
                 static_cast<unsigned int>(oneLegByChannel[chan].size()),
                 static_cast<unsigned int>(combineByChannel[chan].size()));
    }
}

unsigned short CContractServ::wantedBy(const std::string& id) const {
    return static_cast<unsigned short>(AllRules(subsInfo).wantedBy(id));
}

bool CContractServ::StoreAllSubsInstToFpga() {
    for (std::uint32_t chan = 0; chan < card_reg::kChannels; ++chan)
        fpgaServ->StoreInstsToGlob(oneLegByChannel[chan], combineByChannel[chan], chan);
    return true;
}

bool CContractServ::OptionIsMeetCondition(std::string id, std::uint32_t chan) {
    const ZceSubsInfo_t& rules = subsInfo[chan];
    if (!rules.bOptionsRecv) return false;
    if (bOrderedClass(ExtractClass(id), chan)) return true;
    std::string underlying;
    if (OptionExtractSecondClass(id, underlying) == 0 && bOrderedId(underlying, chan)) return true;
    return rules.bSubAll;
}

bool CContractServ::bOrderedClass(std::string cls, std::uint32_t chan) {
    return subsInfo[chan].m_SubsContractClass.contains(HashedName(cls));
}

bool CContractServ::bOrderedId(std::string id, std::uint32_t chan) {
    return subsInfo[chan].m_SubsContractId.contains(HashedName(id));
}

}  // namespace Vexo2_U50
