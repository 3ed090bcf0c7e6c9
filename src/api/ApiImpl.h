#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

#include "VexoZceMdApi.h"
#include "src/api/SignalProcess.h"
#include "src/channel/DmaChannel.h"
#include "src/driver/DmaStream.h"
#include "src/driver/RegisterDriver.h"

/// The API object. Runs start-up on the caller's thread (ApiImpl.cpp) and takes each packet from the card to the
/// application's callback (ReceivePath.cpp).
class alignas(64) CVexoZceMdApiImpl : public IVexoZceMdApi, public CSignalProcess {
public:
    explicit CVexoZceMdApiImpl(CDrvEnyxReg* drv);
    int VexoRecvStart(IVexoZceMdSpi& spi, const char* cfgPath) override;
    int VexoStart(IVexoZceMdSpi& spi, const char* cfgPath) override;
    int VexoRecv() override;
    /// Ends the channel. The configuration object stays: what the services keep of it lives until the process ends.
    virtual ~CVexoZceMdApiImpl();
    CVexoZceMdApiImpl(const CVexoZceMdApiImpl&) = delete;
    CVexoZceMdApiImpl& operator=(const CVexoZceMdApiImpl&) = delete;

    /// An object begins on a cache line. Memory comes from the plain operator new, whose failure an application may
    /// have arranged to be told of; the aligned one is another function.
    static void* operator new(std::size_t size);
    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept;
    static void operator delete(void* object) noexcept;
    static void operator delete(void* object, const std::nothrow_t&) noexcept { operator delete(object); }

    int InitCfgInfo(const char* cfgPath);
    int LogInit(const char* cfgPath);

    CZceDmaChanImpl* m_pDmaChan;            ///< owned; null until VexoStart has succeeded
    IDrv* m_pDrv;                           ///< not owned
    Vexo2_U50::CZceConfigFile* m_pCfgFile;  ///< never deleted
    IVexoZceMdSpi* m_pSpi;                  ///< not owned

private:
    using Poll = int (*)(enyx_hw_a2c_stream* stream, DmaPacketHandler handler, void* ctx);

    static constexpr std::uint32_t kFirstFailure = 2;  // of a poll's results: 0 is no packet, 1 a packet
    static constexpr std::uint32_t kNeverFast = ~std::uint32_t{0};

    void openReceivePath(CDrvDMAEnyx& dma);
    static int pollNothing(enyx_hw_a2c_stream* stream, DmaPacketHandler handler, void* ctx);
    static void onPacket(const unsigned char* pkt, unsigned int len, void* ctx);
    int recvSlow(int handled);
    void onPacketSlow(const unsigned char* pkt, unsigned int len);
    void keepCallbackError();

    // What an ordinary packet touches: the rest of the object's first cache line.
    enyx_hw_a2c_stream* m_stream = nullptr;
    Poll m_poll = &pollNothing;  // the card library's, once the stream is open
    /// Poll results from this value on take the slow path. Normally 2; 0 before the start, and until the end of a poll
    /// whose packet did not reach the application.
    std::uint32_t m_slowResult = 0;
    /// Packets shorter than this take the slow path: every one until the stop signals are handled, then those without a
    /// whole head.
    std::uint32_t m_fastLength = kNeverFast;

    /// The driver is the process-wide one, which another object may have ended since this one was made.
    bool m_bSharedDrv = false;

    friend class IVexoZceMdApi;
};
