#include "tools/vexo/check/KeyTable.h"

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>

#include "tools/cli/Spelling.h"

namespace vexo::check {

namespace {

constexpr unsigned int kChannels = 16;
constexpr long kDay = 1440;  // minutes
constexpr long kLargestPort = 65535;

constexpr char kMulticastRange[] = "224.0.0.0 to 239.255.255.255";
constexpr char kAddressRange[] = "four numbers from 0 to 255";
constexpr char kMacRange[] = "six bytes in hexadecimal";
constexpr char kPortRange[] = "1 to 65535";
constexpr char kReceiveRange[] = "recv or norecv";
constexpr char kMulticastMissing[] = "none: the card keeps what it had";
constexpr char kOutputMissing[] = "no output";
constexpr char kIncomplete[] = "value; an incomplete feed with the number of its items";

constexpr Key multicast(const char* name, const char* example, const char* meaning) {
    return {"config",
            name,
            Type::kMulticast,
            0,
            0,
            kMulticastRange,
            kMulticastMissing,
            example,
            meaning,
            "value and register; an error when missing"};
}
constexpr Key multicastPort(const char* name, const char* example, const char* meaning) {
    return {"config",          name,
            Type::kPort,       1,
            kLargestPort,      kPortRange,
            kMulticastMissing, example,
            meaning,           "value and register; an error when missing or 0"};
}
constexpr Key mac(const char* name, const char* example, const char* meaning) {
    return {"config", name, Type::kMac, 0, 0, kMacRange, kOutputMissing, example, meaning, kIncomplete};
}
constexpr Key address(const char* name, const char* example, const char* meaning) {
    return {"config", name, Type::kAddress, 0, 0, kAddressRange, kOutputMissing, example, meaning, kIncomplete};
}
constexpr Key port(const char* name, const char* example, const char* meaning) {
    return {"config", name, Type::kPort, 1, kLargestPort, kPortRange, kOutputMissing, example, meaning, kIncomplete};
}

constexpr Key kKeys[] = {
    {"config", "device", Type::kDevice, 0, 0, "xilinx0:0 to xilinx4:15", "none: the start-up ends", "xilinx0:0",
     "card and DMA channel of this process; channel 0 is the master", "card and channel"},
    {"config", "cpucore", Type::kCpu, -1, 1023, "-1 to 1023", "-1", "-1",
     "CPU that the calling thread is pinned to; -1 pins it to none", "whether the thread is pinned"},
    {"config", "BIN_DELAY_TIME", Type::kNumber, 0, kDay, "0 to 1440", "15", "15",
     "minutes that the master goes on learning the contract map after every configured instrument has been announced",
     "value"},
    {"config", "czce_level1", Type::kSwitch, 0, 0, "enabled or disabled", "enabled", "enabled",
     "disabled switches Level-1 off; anything else leaves it on", "value, and which feeds are on"},
    {"config", "czce_level2", Type::kSwitch, 0, 0, "enabled or disabled", "enabled", "enabled",
     "disabled switches Level-5 off; anything else leaves it on", "value, and which feeds are on"},
    multicast("L5_IPA", "239.3.50.1", "multicast channel A of Level-5 that the card receives"),
    multicast("L5_IPB", "239.3.51.1", "multicast channel B of Level-5 that the card receives"),
    multicastPort("L5_PORT", "18501", "UDP port of both multicast channels of Level-5"),
    multicast("L1_IPA", "239.3.10.1", "multicast channel A of Level-1 that the card receives"),
    multicast("L1_IPB", "239.3.11.1", "multicast channel B of Level-1 that the card receives"),
    multicastPort("L1_PORT", "18101", "UDP port of both multicast channels of Level-1"),
    mac("L5_DSTMAC", "01:00:5e:03:32:01", "destination of the card's own Level-5 output"),
    address("L5_DSTIP", "239.3.50.101", "destination of the card's own Level-5 output"),
    port("L5_DSTPORT", "28501", "destination of the card's own Level-5 output"),
    mac("L5_SRCMAC", "02:00:00:00:00:05", "source of the card's own Level-5 output"),
    address("L5_SRCIP", "192.168.50.5", "source of the card's own Level-5 output"),
    port("L5_SRCPORT", "28500", "source of the card's own Level-5 output"),
    mac("L1_DSTMAC", "01:00:5e:03:0a:01", "destination of the card's own Level-1 output"),
    address("L1_DSTIP", "239.3.10.101", "destination of the card's own Level-1 output"),
    port("L1_DSTPORT", "28101", "destination of the card's own Level-1 output"),
    mac("L1_SRCMAC", "02:00:00:00:00:01", "source of the card's own Level-1 output"),
    address("L1_SRCIP", "192.168.50.1", "source of the card's own Level-1 output"),
    port("L1_SRCPORT", "28100", "source of the card's own Level-1 output"),
    {"version", "1.1.2.12", Type::kVersion, 0, 99999999, "0 to 99999999", "none: the start-up of a master ends", "11",
     "lowest hardware version of the card that library version 1.1.2.12 works with", "an error when missing"},
    {"version", "1.1.2.13", Type::kVersion, 0, 99999999, "0 to 99999999", "none: the start-up of a master ends", "12",
     "lowest hardware version of the card that library version 1.1.2.13 works with",
     "an error when missing, or when the card is older"},
    {"channelN", "insts", Type::kInsts, 0, 0, "ids, product codes or all, with commas", "no futures and no options",
     "SR, CF, TA", "what the channel receives: a token with a digit is an instrument, one without is a product",
     "each token"},
    {"channelN", "options", Type::kReceive, 0, 0, kReceiveRange, "none: required with insts", "norecv",
     "whether the channel receives the options of its products and futures", "value; an error when missing"},
    {"channelN", "ips", Type::kReceive, 0, 0, kReceiveRange, "norecv", "norecv",
     "whether the channel receives all inter-product spreads", "value"},
    {"channelN", "spd", Type::kReceive, 0, 0, kReceiveRange, "norecv", "recv",
     "whether the channel receives all calendar spreads", "value"},
};

}  // namespace

const std::vector<Key>& allKeys() {
    static const std::vector<Key> keys(std::begin(kKeys), std::end(kKeys));
    return keys;
}

const char* nameOf(Type type) {
    switch (type) {
        case Type::kDevice: return "device";
        case Type::kNumber:
        case Type::kCpu:
        case Type::kPort: return "whole number";
        case Type::kAddress:
        case Type::kMulticast: return "IPv4 address";
        case Type::kMac: return "MAC address";
        case Type::kVersion: return "decimal number";
        case Type::kInsts: return "list";
        case Type::kSwitch:
        case Type::kReceive: break;
    }
    return "word";
}

std::vector<std::string> allSections() {
    std::vector<std::string> sections = {"config", "version"};
    for (unsigned int channel = 0; channel < kChannels; ++channel)
        sections.push_back("channel" + std::to_string(channel));
    return sections;
}

std::string tableSection(const std::string& section) {
    const std::vector<std::string> known = allSections();
    if (std::find(known.begin(), known.end(), section) == known.end()) return {};
    return section == "config" || section == "version" ? section : "channelN";
}

const Key* findKey(const std::string& tableSection, const std::string& name) {
    for (const Key& key : kKeys)
        if (tableSection == key.section && name == lowered(key.name)) return &key;
    return nullptr;
}

std::string keysAsText() {
    std::string text;
    std::string section;
    for (const Key& key : kKeys) {
        if (section != key.section) {
            section = key.section;
            text += (text.empty() ? "[" : "\n[") + section + "]" +
                    (section == "channelN" ? "  with N from 0 to 15\n" : "\n");
        }
        text += std::string(key.name) + " = " + key.example + "\n    " + key.meaning + "\n    " + nameOf(key.type) +
                ": " + key.range + "; default: " + key.byDefault + "\n    logged: " + key.logged + "\n";
    }
    return text;
}

std::string keysAsJson() {
    using Json = nlohmann::ordered_json;
    Json keys = Json::array();
    for (const Key& key : kKeys) {
        keys.push_back({{"section", key.section},
                        {"key", key.name},
                        {"type", nameOf(key.type)},
                        {"range", key.range},
                        {"default", key.byDefault},
                        {"example", key.example},
                        {"meaning", key.meaning},
                        {"logged", key.logged}});
    }
    return keys.dump(1) + "\n";
}

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::vector<std::string> nearest(const std::string& word, const std::vector<std::string>& names) {
    constexpr std::size_t kLongestWord = 64;  // a longer one is no slip of the hand
    std::vector<std::string> best;
    if (word.size() > kLongestWord) return best;
    std::size_t least = std::max<std::size_t>(1, word.size() / 3);
    for (const std::string& name : names) {
        const std::size_t far = cli::distance(lowered(word), lowered(name));
        if (far > least) continue;
        if (far < least) best.clear();
        least = far;
        best.push_back(name);
    }
    return best;
}

}  // namespace vexo::check
