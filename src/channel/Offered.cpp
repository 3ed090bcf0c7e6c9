// What the channel offers and the library itself does not use.

#include "interface/CardRegisters.h"
#include "src/channel/DmaChannel.h"
#include "src/channel/TimeWindow.h"
#include "src/util/LocalTime.h"
#include "src/util/StandardStreams.h"

std::atomic<std::uint32_t>& CZceDmaChanImpl::g_uiContractSettleTm = CBrixBinFile::m_uiSettleTime;

namespace {

constexpr int kLastAfternoonHour = 14;
constexpr TimeWindow kEveningAuction = {205510, 213000};
constexpr TimeWindow kMorningAuction = {85510, 93000};

}  // namespace

int CZceDmaChanImpl::KeepRecv(DmaPacketHandler handler, bool* run, void* ctx) {
    if (handler == nullptr || run == nullptr) {
        standard_streams::print("Invalid parameter. \n");
        return -1;
    }
    m_pfnHandler = handler;
    m_pHandlerCtx = ctx;
    m_pDma->RegisterHandler(reinterpret_cast<void*>(&CZceDmaChanImpl::DmaEntrance), this);
    while (*run) {
        m_pDma->RecvOnceCb();
        rethrowCallbackError();
    }
    return 0;
}

int CZceDmaChanImpl::IsCallTimeExpired() {
    static std::atomic<bool> referenceTaken{false};
    static std::atomic<std::uint32_t> reference{0};
    std::uint32_t a = 0;
    std::uint32_t b = 0;
    m_pDrv->ReadInt32(card_reg::kExchangeTimeA, a);
    m_pDrv->ReadInt32(card_reg::kExchangeTimeB, b);
    if (!referenceTaken.exchange(true)) {
        reference = a;
        return 0;
    }
    // A feed whose stamp has not moved since the first call is dead: the other one tells the time.
    const std::uint32_t v = a == reference ? b : a;
    const TimeWindow& auction = local_time::now().tm_hour > kLastAfternoonHour ? kEveningAuction : kMorningAuction;
    if (!auction.contains(v)) return 0;
    g_uiContractSettleTm = v;
    return 1;
}
