#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "interface/CardRegisters.h"
#include "src/config/ConfigFile.h"
#include "src/log/log.h"

namespace Vexo2_U50 {

namespace {

constexpr char kLogFile[] = "DataType";

constexpr std::uint32_t kFailure = 0xFFFFFFFF;
constexpr char kSoftVersion[] = "1.1.2.13";
constexpr char kVersionSection[] = "version:";
constexpr std::size_t kValueLength = 8;  // characters of a version value that count

// The lowest hardware version that the value of a version key allows.
std::uint32_t requiredVersion(const char* value) {
    const std::string text(value, ::strnlen(value, kValueLength));
    return static_cast<std::uint32_t>(std::strtol(text.c_str(), nullptr, 10));
}

// Tells the card the software version. The next read of the verdict register is the card's answer.
void announceSoftVersion(IDrv& drv) {
    unsigned int a = 0;
    unsigned int b = 0;
    unsigned int c = 0;
    unsigned int d = 0;
    std::sscanf(kSoftVersion, "%x.%x.%x.%x", &a, &b, &c, &d);
    const std::uint32_t packed = a | b << 8 | c << 16 | d << 24;
    LOG_INFO_IN("Chk_SysVersion", "master channel addr 0x102, litte Endian  0x%08x", packed);
    const std::uint32_t swapped = __builtin_bswap32(packed);
    drv.WriteInt32(card_reg::kSoftwareVersion, swapped);
    LOG_INFO_IN("Chk_SysVersion", "master channel addr 0x102, big Endian  0x%08x", swapped);
}

std::uint32_t judgeVerdict(std::uint32_t iCheckRst) {
    switch (iCheckRst) {
        case card_reg::kVerdictWriteFailed:
            LOG_ERROR_IN("Chk_SysVersion", "soft version write is fail.");
            return kFailure;
        case card_reg::kVerdictAccepted:
            LOG_INFO_IN("Chk_SysVersion", "hardware and soft version check is success.");
            return 0;
        case card_reg::kVerdictTooOld:
            LOG_ERROR_IN("Chk_SysVersion", "you will need to update your soft version.");
            LOG_ERROR_IN("Chk_SysVersion", "iCheckRst == %d, soft  error.", static_cast<int>(iCheckRst));
            return kFailure;
        default: LOG_ERROR_IN("Chk_SysVersion", "iCheckRst is %d error.", static_cast<int>(iCheckRst)); return kFailure;
    }
}

}  // namespace

void CZceConfigFile::ShowVersion() { LOG_INFO("Current soft version %s.", kSoftVersion); }

void CZceConfigFile::AddVersionInfo() {
    m_vecVersion.emplace_back("version:1.1.2.12");
    m_vecVersion.emplace_back("version:1.1.2.13");
}

std::uint32_t CZceConfigFile::Chk_SysVersion() {
    if (!bIsMasterChannel()) return 0;

    std::map<std::string, std::uint32_t> required;
    for (const std::string& key : m_vecVersion) {
        const char* value = getString(key.c_str());
        if (value == nullptr) {
            LOG_ERROR("you get version from ini config, version is error, %s ", key.c_str());
            return kFailure;
        }
        required.emplace(key.c_str() + std::min(key.size(), std::strlen(kVersionSection)), requiredVersion(value));
    }

    announceSoftVersion(*m_pDrv);
    std::uint32_t hardware = 0;
    m_pDrv->ReadInt32(card_reg::kHardwareVersion, hardware);

    const auto ours = required.find(kSoftVersion);
    if (ours == required.end()) {
        LOG_ERROR("soft version is error.");
        return kFailure;
    }
    if (ours->second > hardware) {
        LOG_ERROR("you will need to update your hardware version.");
        LOG_ERROR("soft version %s, hwVersion is %d > fpga hwVersion is %d", kSoftVersion,
                  static_cast<int>(ours->second), static_cast<int>(hardware));
        return kFailure;
    }
    LOG_INFO("hardware version check is success.");
    std::uint32_t iCheckRst = 0;
    m_pDrv->ReadInt32(card_reg::kVerdictOrFibre, iCheckRst);
    return judgeVerdict(iCheckRst);
}

}  // namespace Vexo2_U50
