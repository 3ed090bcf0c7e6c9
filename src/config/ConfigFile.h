#pragma once

#include <iniparser/iniparser.h>
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "src/driver/IDrv.h"
#include "src/instruments/SubsInfo.h"

class CVexoZceMdApiImpl;

namespace Vexo2_U50 {

/// The ini file, and what it alone decides: the card and the DMA channel of this process, the CPU, the card's network
/// outputs, the version check and the 16 channels' subscription rules.
/// Implemented in ConfigFile.cpp, NetOutput.cpp, SubsRules.cpp and VersionCheck.cpp.
/// Used on the application's thread during start-up; read-only afterwards. 32-bit results are 0 or 0xFFFFFFFF.
class CZceConfigFile {
public:
    /// Keeps its arguments; reads nothing. Neither pointer is owned.
    CZceConfigFile(std::string iniPath, IDrv* drv, CVexoZceMdApiImpl* apiImpl);
    ~CZceConfigFile();
    CZceConfigFile(const CZceConfigFile&) = delete;
    CZceConfigFile& operator=(const CZceConfigFile&) = delete;

    std::uint32_t Init();           ///< loads the file and fixes card and channel
    std::uint32_t GetDmaChannel();  ///< 0 to 15, parsed from `config:device` once, in any letter case
    /// Card number. Scans `config:device` again, and case-sensitively: a device written "Xilinx0:0" works, but each
    /// call logs an error.
    std::uint32_t GetBusId();
    bool bIsMasterChannel() const { return m_uiChannelId == 0; }  ///< channel 0, the only one that programs the card
    ZceSubsInfo_t (&getArrayReference())[card_reg::kChannels] { return m_stSubsInfo; }
    void BindCpu();      ///< pins the calling thread to `config:cpucore`
    void DumpDevInfo();  ///< sets m_SwitchReg from `config:czce_level1` and `config:czce_level2`

    // ---- version check ----
    void ShowVersion();
    void AddVersionInfo();
    std::uint32_t Chk_SysVersion();

    // ---- the card's network ----
    void PrintSwitchStatus();
    void CfgNetReg();
    void CfgNetIPAndPort();

    // ---- subscription rules ----
    /// Appends to the channels' records and never clears them. A second call adds every list entry again.
    std::uint32_t ParseSubsInst();
    void ParseRawInsts(std::string value, std::uint32_t channel);

    std::uint32_t m_uiChannelId;  ///< 255 until parsed
    std::string m_strIniPath;
    IDrv* m_pDrv;
    dictionary* m_pDict;
    std::uint32_t m_uiBusId;
    std::vector<std::string> m_vecVersion;  ///< keys of the version section to look up
    CVexoZceMdApiImpl* m_pApiImpl;
    std::string m_strDmaChanName;  ///< "CUSTOM_CHAN<n>_DATA", empty until the channel is known
    ZceSubsInfo_t m_stSubsInfo[card_reg::kChannels];
    std::uint32_t m_binDelayTime;  ///< minutes

    /// Feeds that are switched on: bit 1 Level-1, bit 0 Level-5. One word for the whole process: the last DumpDevInfo
    /// wins. Another name of CZceFpgaServ::decodeSwitch, which StartDecode writes into the card.
    static std::atomic<std::uint32_t>& m_SwitchReg;
    static std::string m_ini_path;

private:
    /// Value of a key as written; null when the key is absent.
    const char* getString(const char* key) const { return iniparser_getstring(m_pDict, key, nullptr); }
    /// Number of a key. A section with the key's name has no value; it counts as an absent key.
    int getInt(const char* key, int absent) const {
        return getString(key) != nullptr ? iniparser_getint(m_pDict, key, absent) : absent;
    }
    std::uint32_t load();
    std::uint32_t refuse(const char* why);
    int scanDevice(const std::string& device, std::uint32_t& channel);
    bool isFeedDisabled(const char* key) const;
    bool parseChannelInsts(std::uint32_t channel);
    void parseCombinationRules(std::uint32_t channel);
};

}  // namespace Vexo2_U50
