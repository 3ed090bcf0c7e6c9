#pragma once

#include "VexoZceMdApi.h"
#include "src/api/PacketPath.h"
#include "src/api/SignalProcess.h"
#include "src/channel/DmaChannel.h"
#include "src/driver/RegisterDriver.h"

/// The API object: runs start-up on the caller's thread and hands control to the receive path.
class CVexoZceMdApiImpl : public IVexoZceMdApi, public CSignalProcess {
public:
    explicit CVexoZceMdApiImpl(CDrvEnyxReg* drv);
    int VexoRecvStart(IVexoZceMdSpi& spi, const char* cfgPath) override;
    int VexoStart(IVexoZceMdSpi& spi, const char* cfgPath) override;
    int VexoRecv() override;
    /// Ends the channel. The configuration object stays: what the services keep of it lives until the process ends.
    virtual ~CVexoZceMdApiImpl();
    CVexoZceMdApiImpl(const CVexoZceMdApiImpl&) = delete;
    CVexoZceMdApiImpl& operator=(const CVexoZceMdApiImpl&) = delete;

    int InitCfgInfo(const char* cfgPath);
    int LogInit(const char* cfgPath);

    CZceDmaChanImpl* m_pDmaChan;            ///< owned; null until VexoStart has succeeded
    IDrv* m_pDrv;                           ///< not owned
    Vexo2_U50::CZceConfigFile* m_pCfgFile;  ///< never deleted
    IVexoZceMdSpi* m_pSpi;                  ///< not owned
    /// The driver is the process-wide one, which another object may have ended since this one was made.
    bool m_bSharedDrv = false;

private:
    /// A path with the object it belongs to.
    struct OwnPath : PacketPath {
        CVexoZceMdApiImpl* api;
    };
    static int recvTheFullWay(OwnPath& path, int handled);

    OwnPath m_closedPath{PacketPath::closed(), this};
    OwnPath m_openPath = m_closedPath;
    OwnPath* m_paths[2] = {&m_closedPath, &m_closedPath};  ///< by the exit flag; the first one opens with VexoStart
};
