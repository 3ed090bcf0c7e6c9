#include <random>

#include "ContractServiceFixture.h"

// Random rules over random ids, against the decision table written down once more, as plainly as it reads.

namespace {

using testing::IsEmpty;
using Vexo2_U50::IndexToInstId;
using Vexo2_U50::InstIdToIndex;
using Vexo2_U50::ZceSubsInfo_t;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

bool Listed(const std::vector<std::string>& list, const std::string& entry) {
    for (const std::string& one : list) {
        if (one == entry) return true;
    }
    return false;
}

/// Where the C or P of an option stands: the first one between two digits. 0 when the id is no option.
std::size_t Mark(const std::string& id) {
    for (std::size_t i = 1; i + 1 < id.size(); ++i) {
        if ((id[i] == 'C' || id[i] == 'P') && IsDigit(id[i - 1]) && IsDigit(id[i + 1])) return i;
    }
    return 0;
}

std::string ClassOf(const std::string& id) {
    std::string letters;
    for (const char c : id) {
        if (!IsLetter(c)) break;
        letters += c;
    }
    return letters;
}

bool OptionWanted(const std::string& id, const ZceSubsInfo_t& rules) {
    if (!rules.bOptionsRecv) return false;
    if (Listed(rules.m_SubsContractClass, ClassOf(id))) return true;
    if (Listed(rules.m_SubsContractId, id.substr(0, Mark(id)))) return true;
    return rules.bSubAll;
}

enum class Decision { kSkip, kOneLeg, kCombine };

Decision Decide(const std::string& id, const ZceSubsInfo_t& rules) {
    const std::string prefix = id.substr(0, 4);
    if (prefix == "SPD-" && !rules.bSpdRecv) return Decision::kSkip;
    if (prefix == "IPS-" && !rules.bIpsRecv) return Decision::kSkip;
    if (prefix == "SPD-" || prefix == "IPS-") return Decision::kCombine;
    if (Mark(id) != 0 && OptionWanted(id, rules)) return Decision::kOneLeg;
    if (Mark(id) != 0) return Decision::kSkip;
    if (rules.bSubAll) return Decision::kOneLeg;
    if (Listed(rules.m_SubsContractClass, ClassOf(id)) || Listed(rules.m_SubsContractId, id)) return Decision::kOneLeg;
    return Decision::kSkip;
}

class Generator {
public:
    explicit Generator(unsigned int seed) : m_random(seed) {}

    bool Once(unsigned int in) { return m_random() % in == 0; }
    unsigned short Index() { return static_cast<unsigned short>(m_random() % 400); }

    std::string Future() { return Product() + std::to_string(500 + m_random() % 12); }

    std::string Id() {
        switch (m_random() % 6) {
            case 0: return Future();
            case 1: return Future() + (Once(2) ? "C" : "P") + std::to_string(m_random() % 30000);
            case 2: return "SPD-" + Future() + "/" + Future();
            case 3: return "IPS-" + Future() + "/" + Future();
            case 4: return Scrambled();
            default: return Future() + Scrambled();
        }
    }

    ZceSubsInfo_t Rules() {
        ZceSubsInfo_t rules;
        rules.bSubAll      = Once(4);
        rules.bOptionsRecv = Once(2);
        rules.bIpsRecv     = Once(2);
        rules.bSpdRecv     = Once(2);
        for (auto left = m_random() % 4; left > 0; --left) rules.m_SubsContractClass.push_back(Product());
        for (auto left = m_random() % 20; left > 0; --left)
            rules.m_SubsContractId.push_back(Once(4) ? Id() : Future());
        return rules;
    }

private:
    std::string Product() {
        static const std::vector<std::string> products = {"SR", "CF", "TA", "MA", "PF", "CJ",
                                                          "CY", "PX", "C",  "P",  "sr"};
        return products[m_random() % products.size()];
    }
    // Short texts of the characters that the rules look at.
    std::string Scrambled() {
        static const std::string characters = "SPDICRcp-/0159 ";
        std::string text;
        for (auto left = m_random() % 9; left > 0; --left) text += characters[m_random() % characters.size()];
        return text;
    }

    std::mt19937 m_random;
};

struct Chosen {
    IndexToInstId oneLeg, combine;
};

Chosen Expected(const InstIdToIndex& ids, const ZceSubsInfo_t& rules) {
    Chosen chosen;
    for (const auto& [id, index] : ids) {
        const Decision decision = Decide(id, rules);
        if (decision == Decision::kOneLeg) chosen.oneLeg[index] = id;
        if (decision == Decision::kCombine) chosen.combine[index] = id;
    }
    return chosen;
}

class FilterSweep : public test_support::ContractServiceFixture, public testing::WithParamInterface<unsigned int> {};

TEST_P(FilterSweep, EveryChannelChoosesWhatTheDecisionTableChooses) {
    Generator generate(GetParam());
    for (int i = 0; i < 500; ++i) idToIndex[generate.Id()] = generate.Index();
    for (ZceSubsInfo_t& channel : rules) channel = generate.Rules();

    contracts.JudgeAndFilterSubsInst();

    for (unsigned int chan = 0; chan < 16; ++chan) {
        const Chosen expected = Expected(idToIndex, rules[chan]);
        EXPECT_EQ(contracts.oneLegByChannel[chan], expected.oneLeg) << "channel " << chan;
        EXPECT_EQ(contracts.combineByChannel[chan], expected.combine) << "channel " << chan;
    }
}

TEST_P(FilterSweep, EveryRowOfTheMergedStoreHasTheBitsOfTheChannelsThatChoseIt) {
    Generator generate(GetParam() + 1000);
    for (int i = 0; i < 300; ++i) idToIndex[generate.Id()] = generate.Index();
    for (ZceSubsInfo_t& channel : rules) channel = generate.Rules();

    contracts.FilterAndStoreToGlobMap();

    Vexo2_U50::IndexToChanBit oneLegBits, combineBits;
    IndexToInstId oneLegNames, combineNames;
    for (unsigned int chan = 0; chan < 16; ++chan) {
        const Chosen chosen = Expected(idToIndex, rules[chan]);
        for (const auto& [index, id] : chosen.oneLeg) {
            oneLegBits[index] = static_cast<unsigned short>(oneLegBits[index] + (1U << chan));
            oneLegNames[index] = id;
        }
        for (const auto& [index, id] : chosen.combine) {
            combineBits[index] = static_cast<unsigned short>(combineBits[index] + (1U << chan));
            combineNames[index] = id;
        }
    }
    EXPECT_EQ(fpga.oneLegChanBits, oneLegBits);
    EXPECT_EQ(fpga.combineChanBits, combineBits);
    EXPECT_EQ(fpga.oneLegNames, oneLegNames);
    EXPECT_EQ(fpga.combineNames, combineNames);
}

INSTANTIATE_TEST_SUITE_P(Seeds, FilterSweep, testing::Range(1U, 13U));

}  // namespace
