#include "DataType/ContractServ.h"

#include "DataType/InstId.h"
#include "log/log.h"

namespace Vexo2_U50 {

namespace {

constexpr char kLogFile[] = "DataType";

}  // namespace

std::mutex CContractServ::order_mutex;

CContractServ::CContractServ(InstIdToIndex& idToIndex, CZceConfigFile* cfg, CBrixBinFile* bin, CZceFpgaServ* fpga,
                             std::uint32_t chan, ZceSubsInfo_t (&rules)[kChannelCount])
    : channel(chan), instIdToIndex(idToIndex), fpgaServ(fpga), binFile(bin), config(cfg), subsInfo(rules) {}

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
    for (std::uint32_t chan = 0; chan < kChannelCount; ++chan) {
        for (const auto& [id, index] : instIdToIndex) {
            if (IsWanted(id, chan)) (TableOf(id) == 0 ? oneLegByChannel : combineByChannel)[chan][index] = id;
        }
        LOG_INFO("[channel:%d] Filter needed sgl count:%u, cmb count:%u.", static_cast<int>(chan),
                 static_cast<unsigned int>(oneLegByChannel[chan].size()),
                 static_cast<unsigned int>(combineByChannel[chan].size()));
    }
}

bool CContractServ::IsWanted(const std::string& id, std::uint32_t chan) {
    const ZceSubsInfo_t& rules = subsInfo[chan];
    if (IsCalendarSpread(id)) return rules.bSpdRecv;
    if (IsInterProductSpread(id)) return rules.bIpsRecv;
    if (IsOption(id)) return OptionIsMeetCondition(id, chan);
    return rules.bSubAll || bOrderedClass(ExtractClass(id), chan) || bOrderedId(id, chan);
}

bool CContractServ::StoreAllSubsInstToFpga() {
    for (std::uint32_t chan = 0; chan < kChannelCount; ++chan)
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
    return Contains(subsInfo[chan].m_SubsContractClass, cls);
}

bool CContractServ::bOrderedId(std::string id, std::uint32_t chan) {
    return Contains(subsInfo[chan].m_SubsContractId, id);
}

}  // namespace Vexo2_U50
