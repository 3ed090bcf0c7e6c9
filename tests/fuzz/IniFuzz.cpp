// The text of an ini file through everything that reads the configuration. Oracles: iniparser for the text, the rules
// of the sixteen channels read plainly from iniparser's dictionary, and the plain decision table for what they take.

#include <iniparser/iniparser.h>
#include <sched.h>
#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>

#include "src/config/ConfigFile.h"
#include "src/config/IniFile.h"
#include "src/instruments/ContractServ.h"
#include "src/log/elog.h"
#include "tests/doubles/FakeDrv.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/support/PlainFilter.h"

namespace plain = test_support::plain;

// The configuration binds its thread to a CPU. The fuzzer stays where it is.
extern "C" int sched_setaffinity(pid_t, std::size_t, const cpu_set_t* cpus) noexcept {
    return CPU_COUNT(cpus) == 1 ? 0 : -1;
}

namespace {

using Dictionary = std::unique_ptr<dictionary, void (*)(dictionary*)>;

std::string Described(const dictionary* dict) {
    if (dict == nullptr) return "refused";
    std::string text;
    for (int i = 0; i < dict->n; ++i) {
        text += std::string("<") + dict->key[i] + ">=";
        text += dict->val[i] != nullptr ? std::string("<") + dict->val[i] + ">\n" : "(none)\n";
    }
    return text;
}

/// A card whose registers keep what is written and whose version suits.
class Card : public test_support::FakeDrv {
public:
    Card() {
        record = false;
        registers[card_reg::kHardwareVersion] = 13;
        registers[card_reg::kVerdictOrFibre] = card_reg::kVerdictAccepted;
    }
};

/// A channel's section as the rules for it are told to users, read without the library.
class PlainRules {
public:
    PlainRules(dictionary* dict, unsigned int channel) : m_dict(dict), m_section("channel" + std::to_string(channel)) {}

    /// @return false when the channel has instruments but no `options`, which ends the reading of all channels
    bool Read() {
        if (const char* insts = Value("insts")) {
            ReadInsts(insts);
            const char* options = Value("options");
            if (options == nullptr) return false;
            rules.options = std::strcmp(options, "recv") == 0;
        }
        rules.ips = Is("ips", "recv");
        rules.spd = Is("spd", "recv");
        return true;
    }

    plain::Rules rules;

private:
    const char* Value(const char* key) const {
        return iniparser_getstring(m_dict, (m_section + ':' + key).c_str(), nullptr);
    }
    bool Is(const char* key, const char* word) const {
        const char* value = Value(key);
        return value != nullptr && std::strcmp(value, word) == 0;
    }
    void ReadInsts(std::string insts) {
        insts.erase(std::remove(insts.begin(), insts.end(), ' '), insts.end());
        std::string folded = insts;
        for (char& c : folded) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        rules.all = folded.find("all") != std::string::npos;
        insts += ',';
        for (std::size_t comma = insts.find(','); comma != std::string::npos; comma = insts.find(',')) {
            const std::string token = insts.substr(0, comma);
            insts.erase(0, comma + 1);
            if (token.empty()) continue;
            const bool isId = std::any_of(token.begin(), token.end(), plain::IsDigit);
            (isId ? rules.ids : rules.classes).push_back(token);
        }
    }

    dictionary* m_dict;
    std::string m_section;
};

void CompareRules(const Vexo2_U50::ZceSubsInfo_t& ours, const plain::Rules& rules) {
    const std::vector<std::string>& ids = ours.m_SubsContractId;
    const std::vector<std::string>& classes = ours.m_SubsContractClass;
    fuzz::Require(ids == rules.ids, "the ids of a channel are not those of the text");
    fuzz::Require(classes == rules.classes, "the classes of a channel are not those of the text");
    fuzz::Require(ours.bSubAll == rules.all, "ALL is lost or made up");
    fuzz::Require(ours.bOptionsRecv == rules.options, "`options` is misread");
    fuzz::Require(ours.bIpsRecv == rules.ips && ours.bSpdRecv == rules.spd, "`ips` or `spd` is misread");
}

void CheckRules(Vexo2_U50::CZceConfigFile& config, dictionary* theirs) {
    plain::Rules rules[card_reg::kChannels];
    bool whole = true;
    for (unsigned int channel = 0; channel < card_reg::kChannels && whole; ++channel) {
        PlainRules reader(theirs, channel);
        whole = reader.Read();
        rules[channel] = reader.rules;
    }
    fuzz::Require((config.ParseSubsInst() == 0) == whole, "rules are refused or accepted wrongly");

    Vexo2_U50::InstIdToIndex map;
    Vexo2_U50::CContractServ contracts(map, &config, nullptr, nullptr, 0, config.getArrayReference());
    std::vector<std::string> asked = {"SR505", "SR505C6000", "CF505P1", "SPD-SR505/SR507", "IPS-MA505/CF505", "", "AP"};
    for (unsigned int channel = 0; channel < card_reg::kChannels; ++channel) {
        CompareRules(config.getArrayReference()[channel], rules[channel]);
        if (!rules[channel].ids.empty()) asked.push_back(rules[channel].ids.back() + "C100");
        if (!rules[channel].classes.empty()) asked.push_back(rules[channel].classes.front() + "509");
    }
    for (const std::string& id : asked) {
        unsigned int expected = 0;
        for (unsigned int channel = 0; channel < card_reg::kChannels; ++channel) {
            const bool wanted = plain::Decide(id, rules[channel]) != plain::Decision::kSkip;
            expected |= static_cast<unsigned int>(wanted) << channel;
        }
        fuzz::Require(contracts.wantedBy(id) == expected, "an instrument goes to the wrong channels");
    }
}

void Configure(Vexo2_U50::CZceConfigFile& config, dictionary* theirs) {
    if (config.Init() != 0) return;
    fuzz::Require(config.GetDmaChannel() < card_reg::kChannels, "a channel that no card has");
    fuzz::Require(config.GetBusId() <= 4, "a bus that no host has");
    config.BindCpu();
    config.ShowVersion();
    config.AddVersionInfo();
    config.Chk_SysVersion();
    config.PrintSwitchStatus();
    config.CfgNetReg();
    config.CfgNetIPAndPort();
    config.DumpDevInfo();
    CheckRules(config, theirs);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::MemoryFile file;
    static Card card;
    static const bool ready = [] {
        fuzz::DropStandardOutput();
        for (std::uint8_t level = 0; level < ELOG_LVL_TOTAL; ++level) elog_set_fmt(level, ELOG_FMT_LVL | ELOG_FMT_TAG);
        elog_set_filter_lvl(ELOG_LVL_VERBOSE);
        elog_set_output_enabled(true);
        return true;
    }();
    fuzz::Require(ready, "the log is not set up");
    file.Write(data, size);

    const Dictionary theirs(iniparser_load(file.Path().c_str()), &iniparser_freedict);
    const char* refusal = nullptr;
    const Dictionary ours(loadIniFile(file.Path(), refusal), &iniparser_freedict);
    fuzz::Require(refusal == nullptr, "a regular file is refused");
    fuzz::RequireEqual(Described(ours.get()), Described(theirs.get()), "the text is read otherwise than by iniparser");

    Vexo2_U50::CZceConfigFile config(file.Path(), &card, nullptr);
    Configure(config, theirs.get());
    return 0;
}
