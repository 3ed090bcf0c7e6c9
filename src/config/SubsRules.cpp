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
    LOG_INFO_IN("ParseSubsInst", "[channel:%d] --------Channel %u subscribed information is as below:--------", number,
                channel);
    for (const std::string& id : info.m_SubsContractId)
        LOG_INFO_IN("ParseSubsInst", "[channel:%d] subId:%s", number, id.c_str());
    if (info.bSubAll) LOG_INFO_IN("ParseSubsInst", "[channel:%d] You subscribe all subId !", number);
    for (const std::string& cls : info.m_SubsContractClass)
        LOG_INFO_IN("ParseSubsInst", "[channel:%d] subClass:%s,", number, cls.c_str());
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
        LOG_ERROR_IN("ParseSubsInst", "[channel:%d] Error! In subscribe labek ,Lack item: options=xxx , please check !",
                     number);
        return false;
    }
    info.strOptions = options;
    if (info.strOptions == kReceive) {
        info.bOptionsRecv = true;
        LOG_INFO_IN("ParseSubsInst", "[channel:%d] options=recv", number);
    } else {
        LOG_INFO_IN("ParseSubsInst", "[channel:%d] options=norecv", number);
    }
    return true;
}

void CZceConfigFile::parseCombinationRules(std::uint32_t channel) {
    ZceSubsInfo_t& info = m_stSubsInfo[channel];
    const auto number = static_cast<int>(channel);
    if (const char* ips = getString(channelKey(channel, "ips").c_str())) {
        info.strIps = ips;
        if (info.strIps == kReceive) {
            info.bIpsRecv = true;
            LOG_INFO_IN("ParseSubsInst", "[channel:%d] ips=recv", number);
        } else {
            LOG_INFO_IN("ParseSubsInst", "[channel:%d] ips=norecv", number);
        }
    }
    if (const char* spd = getString(channelKey(channel, "spd").c_str())) {
        info.strSpd = spd;
        if (info.strSpd == kReceive) {
            info.bSpdRecv = true;
            LOG_INFO_IN("ParseSubsInst", "[channel:%d] spd=recv", number);
        } else {
            LOG_INFO_IN("ParseSubsInst", "[channel:%d] spd=norecv", number);
        }
        LOG_INFO_IN("ParseSubsInst", "--------------------------------------------------------");
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
