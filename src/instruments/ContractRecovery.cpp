
#include "src/dayfile/DayFile.h"
#include "src/instruments/ContractServ.h"
#include "src/instruments/InstId.h"
#include "src/log/log.h"
#include "src/util/LocalTime.h"
#include "src/util/Sleep.h"

namespace Vexo2_U50 {

namespace {

constexpr char kLogFile[] = "DataType";

constexpr std::uint32_t kFailure = 0xFFFFFFFF;

// A card reset in the middle of the morning learns its instruments only when the second session opens.
constexpr std::uint32_t kMorningFirst = 90001;
constexpr std::uint32_t kMorningLast = 119999;
constexpr std::uint32_t kBreakFirst = 101450;
constexpr std::uint32_t kBreakLast = 103000;
constexpr std::uint32_t kBreakWait = 20;        // minutes
constexpr std::uint32_t kUsualWait = 4;         // minutes
constexpr std::uint32_t kStep = 10;             // seconds between two countdown lines
constexpr std::uint32_t kWaitAfterReset = 120;  // seconds

}  // namespace

std::uint32_t CContractServ::RecoverInstsFromBin() {
    if (binFile->CheckOrLoadBinFile() != 0) return kFailure;
    LOG_INFO("Get inst from bin success");
    return 0;
}

std::uint32_t CContractServ::RecoverInstsFromFpga() {
    fpgaServ->FetchAllInst();
    return 1;
}

std::uint32_t CContractServ::GetExpireTime() {
    const std::uint32_t now = local_time::timeOfDay(local_time::now());
    const std::uint32_t card = fpgaServ->GetRealTime();
    const bool inBreak = now >= kMorningFirst && now <= kMorningLast && card >= kBreakFirst && card <= kBreakLast;
    std::uint32_t minutes = 0;
    if (fpgaServ->bIsReseted()) minutes = inBreak ? kBreakWait : kUsualWait;
    LOG_INFO("Expire time %u minute.", minutes);
    return minutes;
}

std::uint32_t CContractServ::RecoverAllInst() {
    LOG_INFO("Now begin recover all inst");
    if (RecoverInstsFromBin() != 0) {
        for (std::uint32_t left = GetExpireTime() * 60; left > 0; left -= kStep) {
            LOG_INFO("Left %u seconds", left);
            sleepSeconds(kStep);
        }
        RecoverInstsFromFpga();
    } else {
        if (fpgaServ->bIsReseted()) {
            LOG_INFO("We wait for fpga gather enough inst, please wait 120 second...");
            sleepSeconds(kWaitAfterReset);
        }
        LOG_INFO("Bin inst count:%u", static_cast<unsigned int>(instIdToIndex.size()));
    }
    LOG_INFO("Fetch all inst from fpga over! insts count:%u.", static_cast<unsigned int>(instIdToIndex.size()));
    return 0;
}

bool CContractServ::Id_chkPresent(std::uint32_t chan) {
    lackIds.clear();
    for (const std::string& id : subsInfo[chan].m_SubsContractId) {
        if (instIdToIndex.find(id) == instIdToIndex.end()) lackIds.push_back(id);
    }
    return lackIds.empty();
}

int CContractServ::DumpLackId() {
    if (instIdToIndex.empty()) {
        LOG_WARN("All instrument count is zero.");
        return 0;
    }
    for (std::uint32_t chan = 0; chan < card_reg::kChannels; ++chan) {
        if (Id_chkPresent(chan)) continue;
        LOG_WARN("[channel:%d] Warning!! Hasn't receive these insts:%s! The program continues to run",
                 static_cast<int>(chan), joinWithComma(lackIds).c_str());
    }
    return 1;
}

}  // namespace Vexo2_U50
