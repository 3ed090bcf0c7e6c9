// The slow path of a packet: the poll through the driver, the entry that every packet can take, and what is refused.
// An ordinary market-data packet does not come here, see src/api/ReceivePath.cpp.

#include "src/channel/Packet.h"

#include <cxxabi.h>

#include <string>

#include "src/channel/DmaChannel.h"
#include "src/log/log.h"
#include "src/util/StandardStreams.h"

namespace {

constexpr char kLogFile[] = "VexoZceUpdmaImpl";

}  // namespace

std::atomic<bool> CZceDmaChanImpl::m_bSignalRegister{false};

int CZceDmaChanImpl::PollOnce() {
    m_pDma->RecvOnce(reinterpret_cast<void*>(&CZceDmaChanImpl::DmaEntrance), this);
    rethrowCallbackError();
    const std::uint32_t received = m_bRecvData;
    m_bRecvData = 0;
    return static_cast<int>(received);
}

// The C++ runtime gives a forced unwind's handler a reference to nothing, which the sanitizer would take for an error.
__attribute__((no_sanitize("null"))) void CZceDmaChanImpl::DmaEntrance(const unsigned char* pkt, unsigned int len,
                                                                       void* ctx) {
    auto* self = static_cast<CZceDmaChanImpl*>(ctx);
    try {
        if (len < packet::kTypeSize) {
            rejectShortPacket(len, "DmaEntrance");
            return;
        }
        const std::uint32_t type = packet::typeOf(pkt);
        if (packet::isMarketData(type)) {
            self->HandleUpSubsResult(pkt, len, ctx);
        } else if (type == packet::kContractMap) {
            self->HandleContMapPkt(pkt, len, ctx);
        } else {
            LOG_ERROR("Unsupported dma type 0x%x", type);
        }
    } catch (const abi::__forced_unwind&) {
        throw;  // the thread is being cancelled: stopping that would end the process
    } catch (...) {
        self->keepCallbackError();
    }
}

void CZceDmaChanImpl::keepCallbackError() { m_callbackError = std::current_exception(); }

void CZceDmaChanImpl::rethrowCallbackError() {
    if (!m_callbackError) return;
    std::exception_ptr error;
    error.swap(m_callbackError);
    std::rethrow_exception(error);
}

int CZceDmaChanImpl::rejectShortPacket(unsigned int len, const char* operation) {
    LOG_WARN_IN(operation, "Unexpect dma size, size %u", len);
    return 0;
}

int CZceDmaChanImpl::rejectUnknownPacket(const unsigned char* pkt, unsigned int len) {
    LOG_ERROR_IN("HandleUpSubsResult", "Unsupported dma type, type:%u.", packet::typeOf(pkt));
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string dump;  // written at once: other threads' lines stay out of it
    for (unsigned int i = 0; i < len; ++i) {
        dump += kDigits[pkt[i] >> 4];
        dump += kDigits[pkt[i] & 15];
    }
    standard_streams::print("%s\n", dump.c_str());
    return 0;
}
