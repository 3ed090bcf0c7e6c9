// The channel comes up: the card is brought into a known state, the map restored or learning begun, the stream opened.

#include "src/channel/DmaChannel.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>

#include "VexoZceUtil.h"
#include "interface/CardRegisters.h"
#include "src/channel/TimeWindow.h"
#include "src/driver/DmaStream.h"
#include "src/log/log.h"
#include "src/util/ForkSafe.h"
#include "src/util/LocalTime.h"

namespace {

constexpr char kLogFile[] = "VexoZceUpdmaImpl";

constexpr std::uint32_t kBeforeMorning = 80000;  // up to here the card still holds yesterday's instruments
constexpr TimeWindow kTradingWindows[] = {{90000, 101450}, {103000, 113000}, {133000, 160000}, {210000, 233000}};
constexpr TimeWindow kClosedWindows[] = {{160000, 201500}, {233000, 235959}};

// Channel-0 objects share the one register driver of the process; the last of them ends it.
std::mutex s_usersMutex;
const fork_safe::Guard<s_usersMutex> s_forkGuard(fork_safe::Rank::kDriverUsers);

class DriverUsers {
public:
    void add(IDrv* drv) {
        const std::lock_guard<std::mutex> guard(s_usersMutex);
        ++m_users[drv];
    }
    void remove(IDrv* drv) {
        const std::lock_guard<std::mutex> guard(s_usersMutex);
        if (--m_users[drv] > 0) return;
        m_users.erase(drv);
        delete drv;
    }

private:
    std::map<IDrv*, int> m_users;
};

DriverUsers& users() {
    static auto* users = new DriverUsers;  // never destroyed: channels may end after the library's statics
    return *users;
}

}  // namespace

CZceDmaChanImpl::CZceDmaChanImpl(IDrv* drv, CVexoZceMdApiImpl* api, Vexo2_U50::CZceConfigFile* cfg)
    : m_pCfgFile(cfg), m_pDrv(drv), m_pApi(api) {}

CZceDmaChanImpl::~CZceDmaChanImpl() {
    delete m_pDma;
    if (m_uiChannel == 0) {
        users().remove(m_pDrv);
        m_pDrv = nullptr;
    }
}

int CZceDmaChanImpl::Init(Vexo2_U50::ZceDmaInitParms_t* /*parms*/) {
    m_pCfgFile->BindCpu();
    if (!m_pCfgFile->bIsMasterChannel()) return 0;
    if (ChkBinFileAuthority() != 0) return -1;
    const bool isUser = m_uiChannel == 0;  // prepared before, and failed
    m_uiChannel = m_pCfgFile->GetDmaChannel();
    if (!isUser) users().add(m_pDrv);

    if (createServices() != 0) return -1;
    ChkAndRst();
    if (checkVersionAndConfigure() != 0) return -1;
    m_pFpgaServ->UpdateTimeStamp();
    m_pFpgaServ->UnSubsAllInsts();
    return 0;
}

int CZceDmaChanImpl::createServices() {
    m_pFpgaServ = new (std::nothrow) Vexo2_U50::CZceFpgaServ(m_mapInstIdx, m_uiChannel);
    if (m_pFpgaServ == nullptr) {
        LOG_ERROR_IN("Init", "New fpga service fail");
        return -1;
    }
    m_pFpgaServ->Init(m_pDrv);
    m_pBinFile = new (std::nothrow) CBrixBinFile(m_mapInstIdx, m_uiChannel);
    if (m_pBinFile == nullptr) {
        LOG_ERROR_IN("Init", "New bin file service fail");
        return -1;
    }
    m_pContractServ = new (std::nothrow) Vexo2_U50::CContractServ(m_mapInstIdx, m_pCfgFile, m_pBinFile, m_pFpgaServ,
                                                                  m_uiChannel, m_pCfgFile->getArrayReference());
    if (m_pContractServ == nullptr) {
        LOG_ERROR_IN("Init", "New contract service fail");
        return -1;
    }
    return 0;
}

int CZceDmaChanImpl::checkVersionAndConfigure() {
    m_pCfgFile->ShowVersion();
    m_pCfgFile->AddVersionInfo();
    if (m_pCfgFile->Chk_SysVersion() != 0) return -1;
    m_pCfgFile->PrintSwitchStatus();
    m_pCfgFile->CfgNetReg();
    m_pCfgFile->CfgNetIPAndPort();
    m_pCfgFile->DumpDevInfo();
    return 0;
}

int CZceDmaChanImpl::ChkBinFileAuthority() {
    // In trading hours a start-up goes on without a writable directory: the quotes matter more than the files.
    if (ZceIsInTradeTime() || ::access(".", R_OK | W_OK) == 0) return 0;
    struct stat status;
    if (::stat(".", &status) != 0) {
        LOG_INFO("Failed to get directory permissions, msg:%s", std::strerror(errno));
        return -1;
    }
    errno = 0;
    const passwd* owner = ::getpwuid(status.st_uid);
    if (owner == nullptr) {
        LOG_INFO("Failed to get user info, msg:%s", std::strerror(errno));
        return -1;
    }
    LOG_INFO("Error! Current user does not have read/write access to the current directory.");
    LOG_INFO("Please run this program as user %s or root!", owner->pw_name);
    return -1;
}

void CZceDmaChanImpl::ChkAndRst() {
    if (!isResetDue()) return;
    m_pFpgaServ->ResetFpga();
    m_pFpgaServ->ClearAllInstTable();
}

bool CZceDmaChanImpl::isResetDue() {
    std::uint32_t fpgaDate = 0;
    std::uint32_t sysDate = 0;
    const bool today = m_pFpgaServ->bDataEqual(&fpgaDate, &sysDate);
    LOG_INFO_IN("ChkAndRst", "First time read fpga date:%u, system date:%u.", fpgaDate, sysDate);
    if (!today) return true;

    const std::uint32_t t = m_pFpgaServ->GetRealTime();
    if (!m_pFpgaServ->bDataEqual(&fpgaDate, &sysDate)) return false;  // midnight passed since
    if (t <= kBeforeMorning) return true;
    for (const TimeWindow& trading : kTradingWindows) {
        if (trading.contains(t) && m_pFpgaServ->FpgaCounterEqual()) return true;
    }
    for (const TimeWindow& closed : kClosedWindows) {
        if (closed.contains(t)) return true;
    }
    return false;
}

int CZceDmaChanImpl::Work(Vexo2_U50::ZceDmaInitParms_t* parms) {
    if (m_pCfgFile->bIsMasterChannel()) {
        if (m_pContractServ->RecoverInstsFromBin() != 0) {
            m_pBinFile->InstBinFileInit();
            m_pFpgaServ->FpgaStartTrans();
            m_pFpgaServ->StartDecode();
        } else {
            m_pFpgaServ->FpgaCloseTrans();
            m_pCfgFile->ParseSubsInst();
            m_pContractServ->FilterAndStoreToGlobMap();
            m_pFpgaServ->SubsFromGlobInsts();
            m_pFpgaServ->StartDecode();
            LOG_INFO("Bin inst count:%u", static_cast<unsigned int>(m_mapInstIdx.size()));
        }
    }
    if (InitDma(parms) != 0) {
        LOG_ERROR("[channel:%d] Init dma fail! dma name %s.", static_cast<int>(m_uiChannel),
                  parms != nullptr ? parms->strChanName.c_str() : "");
        return -1;
    }
    return 0;
}

int CZceDmaChanImpl::InitDma(Vexo2_U50::ZceDmaInitParms_t* parms) {
    if (parms == nullptr) {
        LOG_ERROR("Init dma null fail");
        return -1;
    }
    EnyxDmaInitParms_t record{parms->uiBusId, parms->strChanName, 0, 64, 0};
    m_pDma = new CDrvDMAEnyx;
    if (m_pDma->Init(&record) != 0) {
        LOG_ERROR("Dma init busid:%d, chanName:%s fail!", static_cast<int>(record.uiBusId), record.strName.c_str());
        return -1;
    }
    return 0;
}

void CZceDmaChanImpl::GetConfig() {
    if (m_bCfgParsed) return;
    m_pCfgFile->ParseSubsInst();
    m_bCfgParsed = true;
}
