#pragma once

#include <enyx-hw-c/enyx_hw.h>
#include <atomic>
#include <cstdint>
#include <string>

#include "src/driver/IDrvDMA.h"

/// What CDrvDMAEnyx::Init takes.
struct EnyxDmaInitParms_t {
    std::uint32_t uiBusId;
    std::string strName;    ///< stream name; contains "CHAN" and the decimal channel number
    std::uint32_t uiParm1;  ///< the three numbers are kept and not used by this driver
    std::uint32_t uiParm2;
    std::uint32_t uiParm3;
};

/// The two streams of one DMA channel: card to host (a2c) and host to card (c2a), looked up by one name.
class CDrvDMAEnyx : public IDrvDMA {
public:
    CDrvDMAEnyx() = default;
    /// Reports the stream's counters, closes both streams and forgets the cached card handles of every bus.
    ~CDrvDMAEnyx() override;
    CDrvDMAEnyx(const CDrvDMAEnyx&) = delete;
    CDrvDMAEnyx& operator=(const CDrvDMAEnyx&) = delete;

    /// @param record  an EnyxDmaInitParms_t
    int Init(void* record) override;
    int Send(void* data, unsigned int size) override;
    int RecvOnce(void* handler, void* ctx) override;
    int RecvOnceCb() override;
    int RegisterHandler(void* handler, void* ctx) override;
    int PollData() override;

    /// The stream and the function that RecvOnce polls it with, for a caller that polls without a virtual call.
    enyx_hw_a2c_stream* stream() const { return m_lpA2c; }
    static constexpr auto kPoll = &enyx_hw_a2c_stream_poll_once;

    /// Opens the streams of @p name. What a failed call opened stays open until the process ends.
    int InitDma(std::string& name);

    std::uint32_t m_uiBusId = 0;
    std::string m_strCfgName;
    std::uint32_t m_uiParm1 = 0;
    std::uint32_t m_uiParm2 = 0;
    std::uint32_t m_uiParm3 = 0;
    bool m_bInited = false;  ///< both streams open, both MTUs known
    enyx_hw_c2a_stream* m_lpC2a = nullptr;
    enyx_hw_a2c_stream* m_lpA2c = nullptr;
    std::uint32_t m_uiA2cMtu = 0;
    std::uint32_t m_uiC2aMtu = 0;
    DmaPacketHandler m_pfnHandler = nullptr;
    void* m_pHandlerCtx = nullptr;
    std::string m_strDmaName;
    int m_iChannel = 0;

    /// Accelerator of the channel opened last; atomic because channels may be opened on several threads.
    static std::atomic<enyx_hw_accelerator*> m_lpAcc;

private:
    int findAndOpenStreams(enyx_hw_accelerator* acc, const std::string& name);
    int openA2c(const enyx_hw_accelerator* acc, const enyx_hw_filter* filter, const char* name);
    int openC2a(const enyx_hw_accelerator* acc, const enyx_hw_filter* filter, const char* name);
    void reportCounters() const;
};
