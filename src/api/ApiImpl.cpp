#include "src/api/ApiImpl.h"

#include <cstdlib>
#include <mutex>
#include <new>
#include <stdexcept>

#include "src/log/Logger.h"
#include "src/log/log.h"
#include "src/util/ForkSafe.h"
#include "src/util/StandardStreams.h"

std::mutex g_brixLogInit_mutex;

namespace {

constexpr char kLogFile[] = "VexoZceMdApiImpl";

const fork_safe::Guard<g_brixLogInit_mutex> s_forkGuard(fork_safe::Rank::kLogStart);

constexpr std::uint32_t kRegisterCoreId = 474;

// The process-wide register driver, made on first use; null when memory is short.
CDrvEnyxReg* sharedDriver() {
    if (CDrvEnyxReg::instance == nullptr) CDrvEnyxReg::instance = new (std::nothrow) CDrvEnyxReg;
    return CDrvEnyxReg::instance;
}

// A start-up that failed ends the process, with status 0, as the programs that start the application expect.
[[noreturn]] void endProcess() { std::exit(0); }

}  // namespace

IVexoZceMdApi* IVexoZceMdApi::CreateVexoZceMdApi() {
    CDrvEnyxReg* drv = sharedDriver();
    auto* api = drv != nullptr ? new (std::nothrow) CVexoZceMdApiImpl(drv) : nullptr;
    if (api == nullptr) {
        standard_streams::print("New vexo zce impl fail.\n");
        throw std::runtime_error("CreateVexoZceMdApi failed");
    }
    api->m_bSharedDrv = true;
    return api;
}

void IVexoZceMdApi::DestroyVexoZceMdApi(IVexoZceMdApi& api) {
    // The compiler takes a reference for never null and would drop the test: a volatile pointer makes it look.
    IVexoZceMdApi* volatile address = &api;
    IVexoZceMdApi* object = address;
    if (object == nullptr) return;
    delete dynamic_cast<CVexoZceMdApiImpl*>(object);
}

// Room for the alignment, and in front of the object the address that the memory came with.
void* CVexoZceMdApiImpl::operator new(std::size_t size, const std::nothrow_t&) noexcept {
    void* const memory = ::operator new(size + alignof(CVexoZceMdApiImpl), std::nothrow);
    if (memory == nullptr) return nullptr;
    const auto address = reinterpret_cast<std::uintptr_t>(memory) + alignof(CVexoZceMdApiImpl);
    auto* const object = reinterpret_cast<void**>(address & ~std::uintptr_t{alignof(CVexoZceMdApiImpl) - 1});
    static_assert(__STDCPP_DEFAULT_NEW_ALIGNMENT__ >= sizeof(void*), "what is left in front holds an address");
    object[-1] = memory;
    return object;
}

void* CVexoZceMdApiImpl::operator new(std::size_t size) {
    void* const object = operator new(size, std::nothrow);
    if (object == nullptr) throw std::bad_alloc();
    return object;
}

void CVexoZceMdApiImpl::operator delete(void* object) noexcept {
    if (object != nullptr) ::operator delete(static_cast<void**>(object)[-1]);
}

CVexoZceMdApiImpl::CVexoZceMdApiImpl(CDrvEnyxReg* drv)
    : m_pDmaChan(nullptr), m_pDrv(drv), m_pCfgFile(nullptr), m_pSpi(nullptr) {}

CVexoZceMdApiImpl::~CVexoZceMdApiImpl() {
    delete m_pDmaChan;
    m_pDmaChan = nullptr;
}

int CVexoZceMdApiImpl::VexoStart(IVexoZceMdSpi& spi, const char* cfgPath) {
    if (cfgPath == nullptr) {
        standard_streams::print("Error! lpConfig null pointer!\n");
        endProcess();
    }
    if (LogInit(cfgPath) != 0) {
        standard_streams::print("Log init failed\n");
        return -1;
    }
    m_pSpi = &spi;
    if (InitCfgInfo(cfgPath) != 0) {
        LOG_ERROR("Vexo inner init fail.");
        endProcess();
    }
    Vexo2_U50::ZceDmaInitParms_t parms{m_pCfgFile->GetBusId(), kRegisterCoreId, m_pCfgFile->m_strDmaChanName};
    auto* channel = new CZceDmaChanImpl(m_pDrv, this, m_pCfgFile);
    if (channel->Init(&parms) != 0) {
        LOG_ERROR("Create Brix service failed!");
        delete channel;
        endProcess();
    }
    if (channel->Work(&parms) != 0) {
        LOG_ERROR("Create Brix service failed!");
        delete channel;
        endProcess();
    }
    m_pDmaChan = channel;
    openReceivePath(static_cast<CDrvDMAEnyx&>(*channel->m_pDma));
    return 0;
}

int CVexoZceMdApiImpl::VexoRecvStart(IVexoZceMdSpi& spi, const char* cfgPath) {
    IVexoZceMdApi* self = this;
    if (self->VexoStart(spi, cfgPath) != 0) {
        LOG_ERROR("Vexo init fail.");
        return -1;
    }
    while (self->VexoRecv() != -1) {
    }
    return 0;
}

int CVexoZceMdApiImpl::InitCfgInfo(const char* cfgPath) {
    m_pCfgFile = new (std::nothrow) Vexo2_U50::CZceConfigFile(std::string(cfgPath), m_pDrv, this);
    if (m_pCfgFile == nullptr) {
        LOG_INFO("Config file init fail");
        return -1;
    }
    if (m_pCfgFile->Init() != 0) {
        LOG_ERROR("Config file init fail.");
        return -1;
    }
    if (m_pCfgFile->GetDmaChannel() != 0) return 0;

    if (m_bSharedDrv) m_pCfgFile->m_pDrv = m_pDrv = sharedDriver();
    EnyxRegInitParms_t record{static_cast<std::uint16_t>(m_pCfgFile->GetBusId()),
                              static_cast<std::uint16_t>(kRegisterCoreId)};
    if (const int r = m_pDrv != nullptr ? m_pDrv->Init(&record) : -1) {
        LOG_ERROR("Init New drive failed! ret:%d", r);
        return -1;
    }
    return 0;
}

int CVexoZceMdApiImpl::LogInit(const char* /*cfgPath*/) {
    const std::lock_guard<std::mutex> guard(g_brixLogInit_mutex);
    static ILogger* lpLog = nullptr;
    if (lpLog != nullptr) return 0;
    lpLog = new (std::nothrow) CKwLogger;
    if (lpLog == nullptr) {
        standard_streams::print("log inited fail, maybe lack memory.\n");
        return -1;
    }
    if (const int r = lpLog->Init(0, "./", "fpga")) {
        standard_streams::print("###Init log service failed! ret: %d###\n", r);
        return -1;
    }
    return 0;
}
