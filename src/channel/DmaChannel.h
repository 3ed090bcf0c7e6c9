#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <map>
#include <string>
#include <vector>

#include "src/card/FpgaServ.h"
#include "src/config/ConfigFile.h"
#include "src/dayfile/DayFile.h"
#include "src/driver/IDrv.h"
#include "src/driver/IDrvDMA.h"
#include "src/instruments/ContractServ.h"

class CVexoZceMdApiImpl;

namespace Vexo2_U50 {

/// What a DMA channel is opened with.
struct ZceDmaInitParms_t {
    std::uint32_t uiBusId;
    std::uint32_t uiCoreId;   ///< hardware id of the card's register core
    std::string strChanName;  ///< name of the DMA stream
};

}  // namespace Vexo2_U50

/// One DMA channel of the card: brings the card into a known state at start-up (channel 0 only), restores or learns the
/// instrument map, and hands every packet of the stream on. Everything runs on the caller's thread.
/// Results are 0 or -1 after logging why.
/// Implemented in StartUp.cpp, ContractMap.cpp, Packets.cpp, Offered.cpp and src/api/ReceivePath.cpp.
class CZceDmaChanImpl {
public:
    /// @param drv  owned by the objects of channel 0, the last of which deletes it
    CZceDmaChanImpl(IDrv* drv, CVexoZceMdApiImpl* api, Vexo2_U50::CZceConfigFile* cfg);
    /// The card, contract and index-file services stay until the process ends.
    virtual ~CZceDmaChanImpl();
    CZceDmaChanImpl(const CZceDmaChanImpl&) = delete;
    CZceDmaChanImpl& operator=(const CZceDmaChanImpl&) = delete;

    // ---- set-up and loop ----
    int Init(Vexo2_U50::ZceDmaInitParms_t* parms);
    int Work(Vexo2_U50::ZceDmaInitParms_t* parms);
    int InitDma(Vexo2_U50::ZceDmaInitParms_t* parms);
    /// Polls once. @return 1 when a market-data packet reached the application, else 0. What a callback threw leaves
    /// here.
    int PollOnce();
    /// Keeps the exception that a callback has just thrown, until the card's library has returned.
    void keepCallbackError();
    /// Throws the exception that was kept, if there is one.
    void rethrowCallbackError();
    void ChkAndRst();
    int ChkBinFileAuthority();
    void GetConfig();

    // ---- packets ----
    static void DmaEntrance(const unsigned char* pkt, unsigned int len, void* ctx);
    int HandleContMapPkt(const unsigned char* pkt, unsigned int len, void* ctx);
    int HandleUpSubsResult(const unsigned char* pkt, unsigned int len, void* ctx);
    int CheckConfigInst();
    void LoadtoMapFromMac(const unsigned char* pkt, unsigned int len);
    /// @param room  bytes from @p msg to the end of the packet
    /// @return 0 with the message's length in @p msgLen, -1 when the message is shorter than its header or does not
    ///         fit into @p room
    int LoadtoMapFromEachMsg(const unsigned char* msg, unsigned int room, unsigned int msgNo, unsigned int& msgLen);
    void LoadtomapFrmParsedMsg(const std::string& instId, unsigned char flag, unsigned short index, unsigned int msgNo);
    void IncreQuoteSub(const std::string& instId, unsigned short index);

    // ---- what the library offers and does not use itself ----
    /// Polls until @p run is false. The given handler is kept, not called: packets go the usual way.
    int KeepRecv(DmaPacketHandler handler, bool* run, void* ctx);
    /// Whether the exchange's time has entered the window of a call auction; the first call only takes a reference.
    int IsCallTimeExpired();

    bool m_bCfgParsed = false;
    bool m_bCfgInsSuccess = false;  ///< every configured class and instrument has been announced
    std::chrono::system_clock::time_point m_tCfgSuccTime;
    std::uint32_t m_bRecvData = 0;    ///< 1 when market data reached the application on the slow path since the last
                                      ///< PollOnce
    std::uint64_t m_ulParsedCnt = 0;  ///< instrument entries in contract-map packets so far, repeats included
    DmaPacketHandler m_pfnHandler = nullptr;
    void* m_pHandlerCtx = nullptr;
    IDrvDMA* m_pDma = nullptr;                ///< owned
    Vexo2_U50::InstIdToIndex m_mapInstIdx;    ///< shared by reference with the services below
    std::vector<std::string> m_vecRecvClass;  ///< first two characters of every announced id
    Vexo2_U50::CZceFpgaServ* m_pFpgaServ = nullptr;
    Vexo2_U50::CContractServ* m_pContractServ = nullptr;
    CBrixBinFile* m_pBinFile = nullptr;
    Vexo2_U50::CZceConfigFile* m_pCfgFile;  ///< not owned
    IDrv* m_pDrv;
    CVexoZceMdApiImpl* m_pApi;
    std::uint32_t m_uiChannel = 255;  ///< until Init has set it

    static std::atomic<bool> m_bSignalRegister;               ///< the stop signals are handled
    static std::atomic<std::uint32_t>& g_uiContractSettleTm;  ///< CBrixBinFile::m_uiSettleTime

private:
    bool isResetDue();
    int createServices();
    int checkVersionAndConfigure();
    int checkConfigOfChannel(std::uint32_t chan, bool& allReceived);
    Vexo2_U50::StoredRow storeQuoteSub(const std::string& instId, unsigned short index);
    static void registerSignalsOnce();
    static int rejectShortPacket(unsigned int len, const char* operation);
    static int rejectUnknownPacket(const unsigned char* pkt, unsigned int len);
    void ignoreContractMap();

    std::exception_ptr m_callbackError;  ///< what a callback threw inside the poll that is under way
    bool m_bMapIgnoredLogged = false;
};
