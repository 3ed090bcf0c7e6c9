#include "tools/vexo/check/ChannelRules.h"

#include <algorithm>
#include <cctype>
#include <sstream>

#include "src/instruments/InstId.h"

namespace vexo::check {

namespace {

bool isReceived(const IniLine* line) { return line != nullptr && line->value == "recv"; }

std::vector<std::string> tokensOf(const std::string& value) {
    std::string raw = value;
    std::istringstream text(RemoveSpace(raw));
    std::vector<std::string> tokens;
    for (std::string token; std::getline(text, token, ',');)
        if (!token.empty()) tokens.push_back(token);
    return tokens;
}

bool isPlain(const std::string& token) {
    return std::all_of(token.begin(), token.end(),
                       [](unsigned char c) { return std::isupper(c) != 0 || std::isdigit(c) != 0; });
}

void checkTokens(const ChannelRules& rules, std::vector<LineProblem>& found) {
    const std::vector<std::string> tokens = tokensOf(rules.insts->value);
    const auto add = [&](Level level, const std::string& what, const std::string& todo) {
        found.push_back({rules.insts->line, {level, "insts: " + what, todo}, {}});
    };
    if (tokens.empty() && !rules.insts->value.empty())
        add(Level::kError, "the list names nothing", "name products or instruments, or remove the key");
    std::vector<std::string> seen;
    for (std::string token : tokens) {
        if (contains(seen, token)) {
            add(Level::kWarning, token + " is in the list twice", "remove one");
            continue;
        }
        seen.push_back(token);
        if (FindAllTag(token)) {
            if (token.size() > 3)
                add(Level::kError, token + " has the letters \"all\" in it, so the channel gets every future",
                    "write all if that is meant");
            continue;
        }
        const std::string why = whyNothing(token, tokens, isReceived(rules.options));
        if (!why.empty()) add(Level::kError, token + " selects nothing: it " + why, "correct or remove it");
    }
}

}  // namespace

std::string whyNothing(const std::string& token, const std::vector<std::string>& entries, bool options) {
    if (isCalendarSpread(token)) return "is a calendar spread; those come with spd = recv, all of them";
    if (isInterProductSpread(token)) return "is an inter-product spread; those come with ips = recv, all of them";
    if (!isPlain(token)) return "is not written as the exchange writes codes, in capital letters and digits";
    if (!contains_digit(token.c_str())) return {};
    const std::string product = ExtractClass(token);
    if (product.empty()) return "does not begin with a product code";
    if (!IsOption(token)) return {};
    std::string future;
    OptionExtractSecondClass(token, future);
    const bool comes = options && (contains(entries, product) || contains(entries, future));
    return comes ? "" : "is an option; options come with options = recv and their future or product, here " + future;
}

std::vector<LineProblem> checkRules(const ChannelRules& rules) {
    std::vector<LineProblem> found;
    if (rules.insts != nullptr) checkTokens(rules, found);
    if (rules.insts != nullptr && rules.options == nullptr)
        found.push_back({rules.insts->line,
                         {Level::kError,
                          "options is missing beside insts; the library ends reading rules here: of this channel it "
                          "takes insts, not ips and spd, and nothing of the later channels" +
                              (rules.later.empty() ? "" : ": " + rules.later),
                          "add options = recv or options = norecv to [" + rules.section + "]"},
                         "options"});
    if (rules.insts == nullptr && rules.options != nullptr)
        found.push_back({rules.options->line,
                         {Level::kError, "insts is missing beside options; the channel gets no futures and no options",
                          "add insts, or remove options"},
                         "insts"});
    const bool nothing = rules.insts == nullptr && rules.options == nullptr && !isReceived(rules.ips) &&
                         !isReceived(rules.spd);
    if (nothing)
        found.push_back({rules.line,
                         {Level::kError, "selects nothing; the channel gets no quotes",
                          "add insts and options, ips = recv or spd = recv, or remove the section"},
                         "insts"});
    return found;
}

}  // namespace vexo::check
