#include <cstring>
#include <string>

#include "src/config/ConfigFile.h"
#include "src/instruments/InstId.h"
#include "src/log/log.h"

namespace Vexo2_U50 {

namespace {

constexpr char kLogFile[] = "DataType";

constexpr std::uint32_t kFailure = 0xFFFFFFFF;
constexpr char kReceive[] = "recv";  // case-sensitive: "RECV" means norecv

std::string channelKey(std::uint32_t channel, const char* name) {
    return "channel" + std::to_string(channel) + ":" + name;
}

// Appends a token to its list and to the list's joined text.
void addToken(const std::string& token, NameList& list, std::string& joined) {
    if (!joined.empty()) joined += ',';
    joined += token;
    list.push_back(token);
}

void logInsts(const ZceSubsInfo_t& info, std::uint32_t channel) {
    const auto number = static_cast<int>(channel);
    LOG_INFO("[channel:%d] --------Channel %u subscribed information is as below:--------", number, channel);
    for (const std::string& id : info.m_SubsContractId) LOG_INFO("[channel:%d] subId:%s", number, id.c_str());
    if (info.bSubAll) LOG_INFO("[channel:%d] You subscribe all subId !", number);
    for (const std::string& cls : info.m_SubsContractClass) LOG_INFO("[channel:%d] subClass:%s,", number, cls.c_str());
}

// Whether a channel's key for a kind of contract says that it receives them.
bool receives(std::uint32_t channel, const char* key, const std::string& value) {
    const bool isReceived = value == kReceive;
    LOG_INFO("[channel:%d] %s=%s", static_cast<int>(channel), key, isReceived ? "recv" : "norecv");
    return isReceived;
}

}  // namespace

std::uint32_t CZceConfigFile::ParseSubsInst() {
    for (std::uint32_t channel = 0; channel < card_reg::kChannels; ++channel) {
        if (!parseChannelInsts(channel)) return kFailure;
        parseCombinationRules(channel);
    }
    return 0;
}

// Reads the channel's `insts` and `options`. False when `options` is missing: that ends the whole parse.
bool CZceConfigFile::parseChannelInsts(std::uint32_t channel) {
    const char* value = getString(channelKey(channel, "insts").c_str());
    if (value == nullptr) return true;

    ZceSubsInfo_t& info = m_stSubsInfo[channel];
    const auto number = static_cast<int>(channel);
    std::string raw = value;
    std::string insts = RemoveSpace(raw);
    info.bSubAll = FindAllTag(insts);
    ParseRawInsts(insts, channel);
    logInsts(info, channel);

    const char* options = getString(channelKey(channel, "options").c_str());
    if (options == nullptr) {
        LOG_ERROR("[channel:%d] Error! In subscribe labek ,Lack item: options=xxx , please check !", number);
        return false;
    }
    info.strOptions = options;
    if (receives(channel, "options", info.strOptions)) info.bOptionsRecv = true;
    return true;
}

void CZceConfigFile::parseCombinationRules(std::uint32_t channel) {
    ZceSubsInfo_t& info = m_stSubsInfo[channel];
    if (const char* ips = getString(channelKey(channel, "ips").c_str())) {
        info.strIps = ips;
        if (receives(channel, "ips", info.strIps)) info.bIpsRecv = true;
    }
    if (const char* spd = getString(channelKey(channel, "spd").c_str())) {
        info.strSpd = spd;
        if (receives(channel, "spd", info.strSpd)) info.bSpdRecv = true;
        LOG_INFO("--------------------------------------------------------");
    }
}

void CZceConfigFile::ParseRawInsts(std::string value, std::uint32_t channel) {
    if (channel >= card_reg::kChannels) return;
    ZceSubsInfo_t& info = m_stSubsInfo[channel];
    char* rest = nullptr;
    for (char* token = ::strtok_r(value.data(), ",", &rest); token != nullptr;
         token = ::strtok_r(nullptr, ",", &rest)) {
        if (contains_digit(token)) {
            addToken(token, info.m_SubsContractId, info.strIds);
        } else {
            addToken(token, info.m_SubsContractClass, info.strClasses);
        }
    }
}

}  // namespace Vexo2_U50
