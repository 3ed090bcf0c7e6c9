#include "src/driver/DmaStream.h"

#include <cerrno>
#include <cstring>
#include <ctime>

#include "src/driver/CoreLookup.h"
#include "src/driver/HwHandles.h"
#include "src/log/log.h"
#include "src/util/Decimal.h"

std::atomic<enyx_hw_accelerator*> CDrvDMAEnyx::m_lpAcc{nullptr};

namespace {

constexpr char kLogFile[] = "drvDMAEnyx";
constexpr char kChannelMark[] = "CHAN";
constexpr std::time_t kMaxBusy = 2;  // seconds of a busy stream before a send is given up

std::time_t realSeconds() {
    std::timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

}  // namespace

int CDrvDMAEnyx::Init(void* record) {
    if (record == nullptr) {
        LOG_ERROR("Init DMA param is NULL!");
        return -1;
    }
    const auto* parms = static_cast<const EnyxDmaInitParms_t*>(record);
    m_uiBusId = parms->uiBusId;
    m_strCfgName = parms->strName;
    m_uiParm1 = parms->uiParm1;
    m_uiParm2 = parms->uiParm2;
    m_uiParm3 = parms->uiParm3;

    const std::size_t mark = m_strCfgName.find(kChannelMark);
    if (mark == std::string::npos) {
        LOG_INFO("Extract dma channel fail.");  // INFO, although it is a failure: operators' filters expect this level
        return -1;
    }
    const char* number = m_strCfgName.c_str() + mark + std::strlen(kChannelMark);
    m_iChannel = static_cast<int>(leadingDecimal<unsigned int>(number));
    if (InitDma(m_strCfgName) != 0) {
        LOG_ERROR("Init DMA error!");
        return -1;
    }
    return 0;
}

int CDrvDMAEnyx::InitDma(std::string& name) {
    m_strDmaName = name;
    m_bInited = false;  // until the streams of this name are open
    enyx_hw_accelerator* acc = DrvEnyxCoreGetAcc(static_cast<unsigned short>(m_uiBusId));
    m_lpAcc = acc;
    if (acc == nullptr) {
        LOG_ERROR("Init Accelerator error!");
        return -1;
    }
    if (findAndOpenStreams(acc, m_strDmaName) != 0) return -1;

    if (enyx_hw_a2c_stream_get_mtu(m_lpA2c, &m_uiA2cMtu) != 0 ||
        enyx_hw_c2a_stream_get_mtu(m_lpC2a, &m_uiC2aMtu) != 0) {
        LOG_ERROR("Could not get mtu.dmaName:%s, err:%s", m_strDmaName.c_str(), std::strerror(errno));
        return -1;
    }
    LOG_INFO("Init dma channel :%s success.", m_strDmaName.c_str());
    m_bInited = true;
    return 0;
}

int CDrvDMAEnyx::findAndOpenStreams(enyx_hw_accelerator* acc, const std::string& name) {
    const hw::Filter filter(enyx_hw_filter_create());
    if (!filter) {
        LOG_ERROR_IN("InitDma", "Could not create dma filter. err:%s", std::strerror(errno));
        return -1;
    }
    if (enyx_hw_filter_set_name(filter.get(), name.c_str()) != 0) {
        LOG_ERROR_IN("InitDma", "Could not set dma filter name: %s. err:%s", name.c_str(), std::strerror(errno));
        return -1;
    }
    if (openA2c(acc, filter.get(), name.c_str()) != 0) return -1;
    return openC2a(acc, filter.get(), name.c_str());
}

int CDrvDMAEnyx::openA2c(const enyx_hw_accelerator* acc, const enyx_hw_filter* filter, const char* name) {
    hw::A2cDescriptor descriptor;
    if (enyx_hw_accelerator_enumerate_a2c_streams(acc, filter, descriptor.room(), 1) != 1) {
        LOG_ERROR_IN("InitDma", "Could not find a2c stream. dmaName:%s, err:%s", name, std::strerror(errno));
        return -1;
    }
    m_lpA2c = enyx_hw_a2c_stream_create(descriptor.get(), nullptr);
    if (m_lpA2c == nullptr) {
        LOG_ERROR_IN("InitDma", "Could not create a2c stream.dmaName:%s,  err:%s", name, std::strerror(errno));
        LOG_ERROR_IN("InitDma", "Note !! A software program can only have one instance running at a time!");
        return -1;
    }
    return 0;
}

int CDrvDMAEnyx::openC2a(const enyx_hw_accelerator* acc, const enyx_hw_filter* filter, const char* name) {
    hw::C2aDescriptor descriptor;
    if (enyx_hw_accelerator_enumerate_c2a_streams(acc, filter, descriptor.room(), 1) != 1) {
        LOG_ERROR_IN("InitDma", "Could not find c2a stream. dmaName:%s, err:%s", name, std::strerror(errno));
        return -1;
    }
    m_lpC2a = enyx_hw_c2a_stream_create(descriptor.get(), nullptr);
    if (m_lpC2a == nullptr) {
        LOG_ERROR_IN("InitDma", "Could not create c2a stream. dmaName:%s, err:%s", name, std::strerror(errno));
        return -1;
    }
    return 0;
}

int CDrvDMAEnyx::Send(void* data, unsigned int size) {
    if (m_lpC2a == nullptr) {
        LOG_ERROR("DMA(%s) Send failed. err:%s", m_strCfgName.c_str(), std::strerror(EBADF));
        return -1;
    }
    int result = enyx_hw_c2a_stream_send(m_lpC2a, data, size);
    const std::time_t start = realSeconds();
    while (result == EAGAIN) {
        result = enyx_hw_c2a_stream_send(m_lpC2a, data, size);
        if (realSeconds() - start > kMaxBusy) {
            LOG_ERROR("DMA(%s) Send failed. err:%s", m_strCfgName.c_str(), std::strerror(errno));
            return -1;
        }
    }
    if (result == 0) return 0;
    LOG_ERROR("DMA(%s) Send failed. err:%s", m_strCfgName.c_str(), std::strerror(errno));
    return -1;
}

int CDrvDMAEnyx::RecvOnce(void* handler, void* ctx) {
    if (m_lpA2c == nullptr || handler == nullptr) return 0;
    return enyx_hw_a2c_stream_poll_once(m_lpA2c, reinterpret_cast<DmaPacketHandler>(handler), ctx);
}

int CDrvDMAEnyx::RecvOnceCb() {
    if (m_lpA2c == nullptr || m_pfnHandler == nullptr) return -1;
    return enyx_hw_a2c_stream_poll_once(m_lpA2c, m_pfnHandler, m_pHandlerCtx) == 1 ? 0 : -1;
}

int CDrvDMAEnyx::RegisterHandler(void* handler, void* ctx) {
    m_pfnHandler = reinterpret_cast<DmaPacketHandler>(handler);
    m_pHandlerCtx = ctx;
    return 0;
}

int CDrvDMAEnyx::PollData() { return RecvOnceCb(); }

void CDrvDMAEnyx::reportCounters() const {
    std::uint32_t backpress = 0;
    std::uint32_t packets = 0;
    std::uint32_t fifo = 0;
    std::uint32_t error = 0;
    if (enyx_hw_a2c_stream_stats_get_backpressure(m_lpA2c, &backpress) != 0)
        LOG_INFO_IN("~CDrvDMAEnyx", "get a2c stream backpress num fail.");
    if (enyx_hw_a2c_stream_stats_get_packet_count(m_lpA2c, &packets) != 0)
        LOG_INFO_IN("~CDrvDMAEnyx", "get a2c stream packet count fail.");
    if (enyx_hw_a2c_stream_stats_get_fifo_errors(m_lpA2c, &fifo) != 0)
        LOG_INFO_IN("~CDrvDMAEnyx", "get a2c stream fifo count fail.");
    // Same text as for the FIFO counter: operators know it so.
    if (enyx_hw_a2c_stream_stats_get_errors(m_lpA2c, &error) != 0)
        LOG_INFO_IN("~CDrvDMAEnyx", "get a2c stream fifo count fail.");
    LOG_INFO_IN("~CDrvDMAEnyx", "[channel:%d] DMA count info: backpress:%u, dma2soft:%u, fifo:%u, error:%u.",
                m_iChannel, backpress, packets, fifo, error);
    if (backpress != 0) LOG_WARN_IN("~CDrvDMAEnyx", "Back pressure happens! may loss some data !");
}

CDrvDMAEnyx::~CDrvDMAEnyx() {
    if (m_bInited) {
        reportCounters();
        enyx_hw_a2c_stream_destroy(m_lpA2c);
        m_lpA2c = nullptr;
        enyx_hw_c2a_stream_destroy(m_lpC2a);
        m_lpC2a = nullptr;
        m_lpAcc = nullptr;
    }
    DrvEnyxVarClear();
    LOG_INFO("dma channel %s has released.", m_strDmaName.c_str());
}
