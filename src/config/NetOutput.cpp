#include <cstdio>

#include "interface/CardRegisters.h"
#include "src/config/ConfigFile.h"
#include "src/log/log.h"

namespace Vexo2_U50 {

namespace {

constexpr char kLogFile[] = "DataType";

constexpr unsigned int kItemsPerFeed = 6;

// One end of one feed's network output.
struct OutputEnd {
    const char* macKey;
    const char* ipKey;
    const char* portKey;
    std::uint32_t macRegister;
    std::uint32_t ipRegister;
    std::uint32_t portRegister;
    unsigned int feed;  // 0 Level-5, 1 Level-1
};

constexpr OutputEnd kOutputEnds[] = {
    {"config:L5_DSTMAC", "config:L5_DSTIP", "config:L5_DSTPORT", card_reg::kL5Output + card_reg::kOutputDstMac,
     card_reg::kL5Output + card_reg::kOutputDstIp, card_reg::kL5Output + card_reg::kOutputDstPort, 0},
    {"config:L5_SRCMAC", "config:L5_SRCIP", "config:L5_SRCPORT", card_reg::kL5Output + card_reg::kOutputSrcMac,
     card_reg::kL5Output + card_reg::kOutputSrcIp, card_reg::kL5Output + card_reg::kOutputSrcPort, 0},
    {"config:L1_DSTMAC", "config:L1_DSTIP", "config:L1_DSTPORT", card_reg::kL1Output + card_reg::kOutputDstMac,
     card_reg::kL1Output + card_reg::kOutputDstIp, card_reg::kL1Output + card_reg::kOutputDstPort, 1},
    {"config:L1_SRCMAC", "config:L1_SRCIP", "config:L1_SRCPORT", card_reg::kL1Output + card_reg::kOutputSrcMac,
     card_reg::kL1Output + card_reg::kOutputSrcIp, card_reg::kL1Output + card_reg::kOutputSrcPort, 1},
};

struct KeyedRegister {
    const char* key;
    std::uint32_t reg;
};

constexpr KeyedRegister kMulticastAddresses[] = {
    {"config:L5_IPA", card_reg::kL5MulticastA},
    {"config:L5_IPB", card_reg::kL5MulticastB},
    {"config:L1_IPA", card_reg::kL1MulticastA},
    {"config:L1_IPB", card_reg::kL1MulticastB},
};

constexpr KeyedRegister kMulticastPorts[] = {
    {"config:L5_PORT", card_reg::kL5MulticastPort},
    {"config:L1_PORT", card_reg::kL1MulticastPort},
};

// The scan buffers live through a whole operation. When a value gives too few numbers, the rest keep those of an
// earlier value, and are written too.
struct MacScan {
    unsigned char bytes[6] = {};

    void scan(const char* text) {
        std::sscanf(text, "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &bytes[0], &bytes[1], &bytes[2], &bytes[3], &bytes[4],
                    &bytes[5]);
    }
    std::uint32_t high() const { return static_cast<std::uint32_t>(bytes[0] << 8 | bytes[1]); }
    std::uint32_t low() const {
        return static_cast<std::uint32_t>(bytes[2]) << 24 | static_cast<std::uint32_t>(bytes[3]) << 16 |
               static_cast<std::uint32_t>(bytes[4]) << 8 | bytes[5];
    }
};

struct IpScan {
    int numbers[4] = {};

    void scan(const char* text) {
        std::sscanf(text, "%d.%d.%d.%d", &numbers[0], &numbers[1], &numbers[2], &numbers[3]);
    }
    // First number in the lowest byte. Only the low eight bits of each number count.
    std::uint32_t littleEndian() const {
        std::uint32_t packed = 0;
        for (unsigned int i = 0; i < 4; ++i) packed |= (static_cast<std::uint32_t>(numbers[i]) & 0xFF) << (8 * i);
        return packed;
    }
    std::uint32_t networkOrder() const { return __builtin_bswap32(littleEndian()); }
};

}  // namespace

void CZceConfigFile::PrintSwitchStatus() {
    std::uint32_t status = 0;
    m_pDrv->ReadInt32(card_reg::kVerdictOrFibre, status);
    LOG_INFO("Fiber linkstatus 0x103:0x%x.", status);
    if ((status & 1) == 0)
        LOG_ERROR("The fiber 0 is not connected, status is incorrect! Please modify or contact technical support!");
    if (status != card_reg::kAllFibres) LOG_WARN("Warning! The fiber optic cable is not fully connected.");
}

void CZceConfigFile::CfgNetReg() {
    MacScan mac;
    IpScan ip;
    unsigned int items[2] = {};
    for (const OutputEnd& end : kOutputEnds) {
        if (const char* value = getString(end.macKey)) {
            LOG_INFO("%s=%s", end.macKey, value);
            mac.scan(value);
            m_pDrv->WriteInt32(end.macRegister, mac.high());
            m_pDrv->WriteInt32(end.macRegister + 1, mac.low());
            ++items[end.feed];
        }
        if (const char* value = getString(end.ipKey)) {
            LOG_INFO("%s=%s", end.ipKey, value);
            ip.scan(value);
            m_pDrv->WriteInt32(end.ipRegister, ip.networkOrder());
            ++items[end.feed];
        }
        if (const int port = getInt(end.portKey, 0)) {
            LOG_INFO("%s=%u", end.portKey, static_cast<unsigned int>(port));
            m_pDrv->WriteInt32(end.portRegister, static_cast<unsigned int>(port));
            ++items[end.feed];
        }
    }
    if (items[0] == kItemsPerFeed) {
        m_pDrv->WriteInt32(card_reg::kL5Output + card_reg::kOutputSwitch, 1);
        LOG_INFO("0x300 write 1, L5 net version switch open!");
    }
    if (items[1] == kItemsPerFeed) {
        m_pDrv->WriteInt32(card_reg::kL1Output + card_reg::kOutputSwitch, 1);
        LOG_INFO("0x310 write 1, L1 net version switch open!");
    }
    if (items[0] != kItemsPerFeed && items[0] != 0)
        LOG_INFO("Netfunction: L5 config item count is %u. Maybe lack item! please check! ", items[0]);
    if (items[1] != kItemsPerFeed && items[1] != 0)
        LOG_INFO("Netfunction: L1 config item count is %u. Maybe lack item! please check! ", items[1]);
}

void CZceConfigFile::CfgNetIPAndPort() {
    IpScan ip;
    for (const KeyedRegister& address : kMulticastAddresses) {
        const char* value = getString(address.key);
        if (value == nullptr) {
            LOG_ERROR("multi channel ptmp is nullptr.");
            continue;
        }
        LOG_INFO("%s=%s", address.key, value);
        ip.scan(value);
        LOG_INFO("multi channel 0x%x = 0x%08x", address.reg, ip.littleEndian());
        m_pDrv->WriteInt32(address.reg, ip.networkOrder());
    }
    for (const KeyedRegister& entry : kMulticastPorts) {
        const auto port = static_cast<unsigned int>(getInt(entry.key, 0));
        if (port == 0) {
            LOG_ERROR("multi channel port is 0.");
            continue;
        }
        LOG_INFO("multi channel 0x%x, %s = %u", entry.reg, entry.key, port);
        m_pDrv->WriteInt32(entry.reg, port);
    }
}

}  // namespace Vexo2_U50
