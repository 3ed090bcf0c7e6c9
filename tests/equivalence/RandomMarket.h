#pragma once

#include <cstddef>
#include <random>
#include <string>
#include <vector>

#include "src/instruments/SubsInfo.h"
#include "tests/support/PlainFilter.h"

/// Random ids and rules, the same for a seed: of few products and months, so that rules meet ids and ids meet each
/// other, with texts among them that only look like ids.
class RandomMarket {
public:
    explicit RandomMarket(unsigned int seed) : m_random(seed) {}

    /// 0 to @p below - 1.
    std::size_t Number(std::size_t below) { return m_random() % below; }
    bool Once(std::size_t in) { return Number(in) == 0; }

    std::string Future() { return Product() + std::to_string(500 + Number(12)); }

    std::string Id() {
        switch (Number(6)) {
            case 0: return Future();
            case 1: return Future() + (Once(2) ? "C" : "P") + std::to_string(Number(30000));
            case 2: return "SPD-" + Future() + "/" + Future();
            case 3: return "IPS-" + Future() + "/" + Future();
            case 4: return Scrambled();
            default: return Future() + Scrambled();
        }
    }

    test_support::plain::Rules Rules() {
        test_support::plain::Rules rules;
        rules.all = Once(6);
        rules.options = Once(2);
        rules.ips = Once(2);
        rules.spd = Once(2);
        for (auto left = Number(4); left > 0; --left) rules.classes.push_back(Once(8) ? Scrambled() : Product());
        // Now and then a list that is long enough to be laid out anew.
        for (auto left = Number(Once(8) ? 200 : 12); left > 0; --left) rules.ids.push_back(Once(3) ? Id() : Future());
        return rules;
    }

private:
    std::string Product() {
        static const std::vector<std::string> products = {"SR", "CF", "TA", "MA", "PF", "CJ",
                                                          "CY", "PX", "C",  "P",  "sr"};
        return products[Number(products.size())];
    }
    // Short texts of the characters that the rules look at.
    std::string Scrambled() {
        static const std::string characters = "SPDICRcp-/0159 ";
        std::string text;
        for (auto left = Number(9); left > 0; --left) text += characters[Number(characters.size())];
        return text;
    }

    std::mt19937 m_random;
};

/// Plain rules as the record that the library reads.
inline Vexo2_U50::ZceSubsInfo_t Record(const test_support::plain::Rules& rules) {
    Vexo2_U50::ZceSubsInfo_t record;
    for (const std::string& id : rules.ids) record.m_SubsContractId.push_back(id);
    for (const std::string& cls : rules.classes) record.m_SubsContractClass.push_back(cls);
    record.bSubAll = rules.all;
    record.bOptionsRecv = rules.options;
    record.bIpsRecv = rules.ips;
    record.bSpdRecv = rules.spd;
    return record;
}
