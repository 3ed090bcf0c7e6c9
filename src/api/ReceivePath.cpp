// From VexoRecv to the application's callback: all that an ordinary packet runs through. Each step has a slow twin that
// takes what is rare.

#include <cxxabi.h>

#include "src/api/ApiImpl.h"
#include "src/channel/Packet.h"

namespace {

// The one place that tells the market-data types apart. A switch, not a table of functions: its conditional branches
// are predicted well where types alternate, an indirect call is not. The virtual table is read at each packet, because
// the object may still be in its constructor at VexoStart.
// @return false for a type that has no callback
[[gnu::always_inline]] inline bool callBack(IVexoZceMdSpi* spi, const unsigned char* pkt, int& result) {
    const unsigned char* payload = pkt + packet::kHeadSize;
    switch (packet::typeOf(pkt)) {
        case 17: result = spi->OnUpSubsResult17(payload); return true;
        case 18: result = spi->OnUpSubsResult18(payload); return true;
        case 19: result = spi->OnUpSubsResult19(payload); return true;
        case 20: result = spi->OnUpSubsResult20(payload); return true;
        default: return false;
    }
}

}  // namespace

// ---- the poll ----

int CVexoZceMdApiImpl::VexoRecv() {
    if (m_isExit.load(std::memory_order_relaxed)) return -1;
    const int handled = m_poll(m_stream, &onPacket, this);
    if (static_cast<std::uint32_t>(handled) >= m_slowResult) return recvSlow(handled);
    return handled;
}

// Before the start, after a poll that failed, and after a packet that did not reach the application.
[[gnu::cold, gnu::noinline]] int CVexoZceMdApiImpl::recvSlow(int handled) {
    if (m_pDmaChan == nullptr) return -1;
    if (m_poll == &pollNothing) return m_pDmaChan->PollOnce();
    const bool delivered = handled > 0 && m_slowResult != 0;
    m_slowResult = kFirstFailure;
    m_pDmaChan->rethrowCallbackError();
    return delivered ? 1 : 0;
}

int CVexoZceMdApiImpl::pollNothing(enyx_hw_a2c_stream*, DmaPacketHandler, void*) { return 0; }

void CVexoZceMdApiImpl::openReceivePath(CDrvDMAEnyx& dma) {
    m_stream = dma.stream();
    m_poll = CDrvDMAEnyx::kPoll;
    m_slowResult = kFirstFailure;
}

// ---- the packet ----

// The C++ runtime gives a forced unwind's handler a reference to nothing, which the sanitizer would take for an error.
__attribute__((no_sanitize("null"))) void CVexoZceMdApiImpl::onPacket(const unsigned char* pkt, unsigned int len,
                                                                      void* ctx) {
    auto& api = *static_cast<CVexoZceMdApiImpl*>(ctx);
    if (len < api.m_fastLength) return api.onPacketSlow(pkt, len);
    try {
        int unused;
        if (callBack(api.m_pSpi, pkt, unused)) return;
    } catch (const abi::__forced_unwind&) {
        throw;  // the thread is being cancelled: stopping that would end the process
    } catch (...) {
        return api.keepCallbackError();
    }
    api.onPacketSlow(pkt, len);
}

// Contract maps, packets that are too short or of no known type, and every packet until the stop signals are handled.
[[gnu::cold, gnu::noinline]] void CVexoZceMdApiImpl::onPacketSlow(const unsigned char* pkt, unsigned int len) {
    CZceDmaChanImpl& channel = *m_pDmaChan;
    CZceDmaChanImpl::DmaEntrance(pkt, len, &channel);
    if (channel.m_bRecvData == 0) m_slowResult = 0;
    channel.m_bRecvData = 0;
    if (CZceDmaChanImpl::m_bSignalRegister.load(std::memory_order_relaxed)) m_fastLength = packet::kHeadSize;
}

// Nothing may unwind through the card's C library: VexoRecv throws it again once the poll has returned.
[[gnu::cold, gnu::noinline]] void CVexoZceMdApiImpl::keepCallbackError() {
    m_pDmaChan->keepCallbackError();
    m_slowResult = 0;
}

// ---- the same packet on the slow path ----

int CZceDmaChanImpl::HandleUpSubsResult(const unsigned char* pkt, unsigned int len, void* /*ctx*/) {
    if (len < packet::kTypeSize) return rejectShortPacket(len, "HandleUpSubsResult");
    if (!packet::isMarketData(packet::typeOf(pkt))) return rejectUnknownPacket(pkt, len);
    registerSignalsOnce();
    if (len < packet::kHeadSize) return rejectShortPacket(len, "HandleUpSubsResult");
    int result = 0;
    callBack(m_pApi->m_pSpi, pkt, result);
    m_bRecvData = 1;
    return result;
}

// Caught only from here on: until market data flows, a stop signal ends a hanging start-up at once.
void CZceDmaChanImpl::registerSignalsOnce() {
    if (!m_bSignalRegister.exchange(true)) CSignalProcess::InitSignal();
}
