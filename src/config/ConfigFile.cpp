#include "src/config/ConfigFile.h"

#include <sched.h>
#include <algorithm>
#include <cctype>
#include <cstring>
#include <new>
#include <utility>

#include "src/card/FpgaServ.h"
#include "src/config/IniFile.h"
#include "src/log/log.h"
#include "src/util/StandardStreams.h"

namespace Vexo2_U50 {

namespace {

constexpr char kLogFile[] = "DataType";

constexpr std::uint32_t kFailure = 0xFFFFFFFF;
constexpr std::uint32_t kChannelNotParsed = 255;
constexpr std::uint32_t kMaxBus = 4;
constexpr int kDefaultBinDelay = 15;  // minutes
constexpr int kNoCpu = -1;
constexpr std::size_t kChannelNameSize = sizeof "CUSTOM_CHAN15_DATA";

}  // namespace

std::atomic<std::uint32_t>& CZceConfigFile::m_SwitchReg = CZceFpgaServ::decodeSwitch;
std::string CZceConfigFile::m_ini_path;
ZceSubsInfo_t m_stSubsInfo[card_reg::kChannels];

CZceConfigFile::CZceConfigFile(std::string iniPath, IDrv* drv, CVexoZceMdApiImpl* apiImpl)
    : m_uiChannelId(kChannelNotParsed),
      m_strIniPath(std::move(iniPath)),
      m_pDrv(drv),
      m_pDict(nullptr),
      m_uiBusId(0),
      m_pApiImpl(apiImpl),
      m_binDelayTime(0) {}

CZceConfigFile::~CZceConfigFile() { iniparser_freedict(m_pDict); }

std::uint32_t CZceConfigFile::Init() {
    if (m_strIniPath.empty()) {
        LOG_ERROR("Null config name");
        return kFailure;
    }
    try {
        return load();
    } catch (const std::bad_alloc&) {
        // A configuration that lacks keys would start, and subscribe too little.
        return refuse("memory is short");
    }
}

std::uint32_t CZceConfigFile::refuse(const char* why) {
    iniparser_freedict(std::exchange(m_pDict, nullptr));
    if (why != nullptr) LOG_ERROR_IN("Init", "config file %s is not used, %s.", m_strIniPath.c_str(), why);
    LOG_ERROR_IN("Init", "Failed to load file %s", m_strIniPath.c_str());
    return kFailure;
}

std::uint32_t CZceConfigFile::load() {
    iniparser_freedict(std::exchange(m_pDict, nullptr));
    const char* why = nullptr;
    m_pDict = loadIniFile(m_strIniPath, why);
    if (m_pDict == nullptr) return refuse(why);
    if (GetDmaChannel() == kFailure) {
        LOG_ERROR_IN("Init", "Get dma chan fail!");
        return kFailure;
    }
    m_binDelayTime = static_cast<std::uint32_t>(getInt("config:BIN_DELAY_TIME", kDefaultBinDelay));
    LOG_INFO_IN("Init", "config ini, m_binDelayTime is %d", static_cast<int>(m_binDelayTime));
    LOG_INFO_IN("Init", "Successful load confie file %s", m_strIniPath.c_str());
    return 0;
}

// Scans "xilinx<bus>:<channel>" and keeps the bus. Returns how many of the two numbers it found.
int CZceConfigFile::scanDevice(const std::string& device, std::uint32_t& channel) {
    int busNumber = 0;
    int channelNumber = 0;
    const int scanned = std::sscanf(device.c_str(), "xilinx%d:%d", &busNumber, &channelNumber);
    if (scanned >= 1) m_uiBusId = static_cast<std::uint32_t>(busNumber);
    if (scanned >= 2) channel = static_cast<std::uint32_t>(channelNumber);
    return scanned;
}

std::uint32_t CZceConfigFile::GetDmaChannel() {
    if (m_uiChannelId != kChannelNotParsed) return m_uiChannelId;

    const char* value = getString("config:device");
    const std::string device = value != nullptr ? value : "";
    std::string folded = device;
    std::transform(folded.begin(), folded.end(), folded.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });

    m_strDmaChanName.reserve(kChannelNameSize);  // memory may run out here, but not behind the scan
    // What the scan stored stays, also when it is refused below: a later call then returns it unparsed.
    const int scanned = scanDevice(folded, m_uiChannelId);
    if (scanned != 2 || m_uiChannelId >= card_reg::kChannels || m_uiBusId > kMaxBus) {
        standard_streams::print("Error! Invalid parameter! Input: %s \n", device.c_str());
        return kFailure;
    }
    m_strDmaChanName.assign("CUSTOM_CHAN").append(std::to_string(m_uiChannelId)).append("_DATA");
    return m_uiChannelId;
}

std::uint32_t CZceConfigFile::GetBusId() {
    const char* value = getString("config:device");
    const std::string device = value != nullptr ? value : "";
    std::uint32_t channel = 0;
    if (scanDevice(device, channel) == 2) {
        LOG_INFO("[channel:%d] Busid:%d, ChannelId:%d.", static_cast<int>(m_uiChannelId), static_cast<int>(m_uiBusId),
                 static_cast<int>(channel));
    } else {
        LOG_ERROR("[channel:%d] Failed to parse the input string:%s", static_cast<int>(m_uiChannelId), device.c_str());
    }
    return m_uiBusId;
}

void CZceConfigFile::BindCpu() {
    const auto channel = static_cast<int>(m_uiChannelId);
    const int cpu = getInt("config:cpucore", kNoCpu);
    if (cpu == kNoCpu) {
        LOG_INFO("[channel:%d] Doesn't need to bind cpu.", channel);
        return;
    }
    // A CPU number that does not fit leaves the set empty. The system call refuses an empty set.
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    if (static_cast<unsigned int>(cpu) < CPU_SETSIZE) CPU_SET(static_cast<std::size_t>(cpu), &cpus);
    if (::sched_setaffinity(0, sizeof cpus, &cpus) == -1) {
        LOG_INFO("[channel:%d] Set CPU[%d] affinity failed.", channel, cpu);
    } else {
        LOG_INFO("[channel:%d] Set CPU[%d] affinity success.", channel, cpu);
    }
}

bool CZceConfigFile::isFeedDisabled(const char* key) const {
    const char* value = getString(key);
    if (value == nullptr) return false;
    LOG_INFO_IN("DumpDevInfo", "%s=%s.", key, value);
    return std::strcmp(value, "disabled") == 0;
}

void CZceConfigFile::DumpDevInfo() {
    std::uint32_t feeds = 3;
    if (isFeedDisabled("config:czce_level1")) feeds &= ~2U;
    if (isFeedDisabled("config:czce_level2")) feeds &= ~1U;
    switch (feeds) {
        case 3: LOG_INFO("L1 and L5 switch on."); break;
        case 2: LOG_INFO("L1 switch on and L5 switch off."); break;
        case 1: LOG_INFO("L1 switch off and L5 switch on."); break;
        default: LOG_WARN("L1 and L5 switch off! Software won't get data!"); break;
    }
    m_SwitchReg = feeds;
}

}  // namespace Vexo2_U50
