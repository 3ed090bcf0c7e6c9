#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

/// A second, plain implementation of the contract filter's decision table. It searches lists from front to back,
/// compares whole texts, and remembers nothing between instruments or channels. Tests compare the library's results
/// with it, and benchmarks compare the speed.
namespace test_support::plain {

/// One channel's rules.
struct Rules {
    std::vector<std::string> ids;
    std::vector<std::string> classes;
    bool all = false;
    bool options = false;
    bool ips = false;
    bool spd = false;
};

enum class Decision { kSkip, kOneLeg, kCombine };

inline bool IsDigit(char c) { return c >= '0' && c <= '9'; }
inline bool IsLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

inline bool Listed(const std::vector<std::string>& list, const std::string& entry) {
    for (const std::string& one : list) {
        if (one == entry) return true;
    }
    return false;
}

// Where the C or P of an option stands: the first one between two digits. 0 when the id is no option.
inline std::size_t Mark(const std::string& id) {
    for (std::size_t i = 1; i + 1 < id.size(); ++i) {
        if ((id[i] == 'C' || id[i] == 'P') && IsDigit(id[i - 1]) && IsDigit(id[i + 1])) return i;
    }
    return 0;
}

inline std::string ClassOf(const std::string& id) {
    std::string letters;
    for (const char c : id) {
        if (!IsLetter(c)) break;
        letters += c;
    }
    return letters;
}

inline bool OptionWanted(const std::string& id, const Rules& rules) {
    if (!rules.options) return false;
    if (Listed(rules.classes, ClassOf(id))) return true;
    if (Listed(rules.ids, id.substr(0, Mark(id)))) return true;
    return rules.all;
}

inline Decision Decide(const std::string& id, const Rules& rules) {
    const std::string prefix = id.substr(0, 4);
    if (prefix == "SPD-" && !rules.spd) return Decision::kSkip;
    if (prefix == "IPS-" && !rules.ips) return Decision::kSkip;
    if (prefix == "SPD-" || prefix == "IPS-") return Decision::kCombine;
    if (Mark(id) != 0 && OptionWanted(id, rules)) return Decision::kOneLeg;
    if (Mark(id) != 0) return Decision::kSkip;
    if (rules.all) return Decision::kOneLeg;
    if (Listed(rules.classes, ClassOf(id)) || Listed(rules.ids, id)) return Decision::kOneLeg;
    return Decision::kSkip;
}

using IdToIndex = std::map<std::string, unsigned short>;
using IndexToId = std::map<unsigned short, std::string>;

struct Chosen {
    IndexToId oneLeg;
    IndexToId combine;
};

/// Every instrument against one channel's rules. An index that several ids share keeps the last of them.
inline Chosen Choose(const IdToIndex& ids, const Rules& rules) {
    Chosen chosen;
    for (const auto& [id, index] : ids) {
        const Decision decision = Decide(id, rules);
        if (decision == Decision::kOneLeg) chosen.oneLeg[index] = id;
        if (decision == Decision::kCombine) chosen.combine[index] = id;
    }
    return chosen;
}

}  // namespace test_support::plain
