#include "tools/vexo/report/Mask.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <optional>
#include <vector>

#include "interface/CardRegisters.h"
#include "tools/vexo/check/KeyTable.h"

namespace vexo::report {
namespace {

constexpr std::string_view kSecrets[] = {"pass", "pwd", "secret", "token"};
constexpr char kMasked[] = "<masked>";

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isHex(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }
bool isWord(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; }

// How many characters are an address of `groups` numbers with this sign between them; 0 when there is none.
template <typename IsDigit>
std::size_t lengthOf(std::string_view text, int groups, char between, std::size_t most, const IsDigit& isNumber) {
    std::size_t at = 0;
    for (int group = 0; group < groups; ++group) {
        if (group > 0 && (at >= text.size() || text[at++] != between)) return 0;
        const std::size_t begin = at;
        while (at < text.size() && isNumber(text[at])) ++at;
        if (at == begin || at - begin > most) return 0;
    }
    const bool goesOn = at < text.size() && (isWord(text[at]) || text[at] == between);
    const bool isSentence = goesOn && text[at] == '.' && (at + 1 == text.size() || !isWord(text[at + 1]));
    return goesOn && !isSentence ? 0 : at;
}

// A MAC address in either notation, or an IPv4 address.
std::size_t addressAt(std::string_view text) {
    if (const std::size_t ip = lengthOf(text, 4, '.', 3, isDigit); ip != 0) return ip;
    if (const std::size_t mac = lengthOf(text, 6, ':', 2, isHex); mac != 0) return mac;
    return lengthOf(text, 6, '-', 2, isHex);
}

// Versions of the software look like addresses: they are the keys of [version].
bool isVersion(std::string_view text) {
    return std::any_of(check::allKeys().begin(), check::allKeys().end(),
                       [&](const check::Key& key) { return key.type == check::Type::kVersion && text == key.name; });
}

std::size_t skipBlanks(std::string_view text, std::size_t at) {
    while (at < text.size() && (text[at] == ' ' || text[at] == '\t')) ++at;
    return at;
}

// Where the value begins behind a name that contains `word` and '=' or ':'. Nothing when the line has none.
std::optional<std::size_t> valueOf(std::string_view lower, std::string_view word, bool whole) {
    for (std::size_t at = 0; (at = lower.find(word, at)) != std::string_view::npos;) {
        const bool begins = at == 0 || !isWord(lower[at - 1]);
        at += word.size();
        std::size_t end = at;
        while (end < lower.size() && isWord(lower[end])) ++end;
        if (whole && (!begins || end != at)) continue;
        if (end < lower.size() && lower[end] == '"') ++end;  // of JSON
        end = skipBlanks(lower, end);
        if (end < lower.size() && (lower[end] == '=' || lower[end] == ':')) return skipBlanks(lower, end + 1);
    }
    return std::nullopt;
}

const std::vector<std::string>& addressKeys() {
    static const std::vector<std::string> keys = [] {
        std::vector<std::string> names;
        for (const check::Key& key : check::allKeys())
            if (key.type == check::Type::kAddress || key.type == check::Type::kMulticast ||
                key.type == check::Type::kMac)
                names.push_back(check::lowered(key.name));
        return names;
    }();
    return keys;
}

std::string withoutQuoted(std::string text) {
    const std::size_t first = text.find('"');
    const std::size_t last = text.rfind('"');
    if (first != std::string::npos && last > first) text.replace(first + 1, last - first - 1, kMasked);
    return text;
}

// The number behind `name` in a log line, such as addr[0x200].
std::optional<unsigned long> numberBehind(std::string_view text, std::string_view name) {
    const std::size_t at = text.find(name);
    if (at == std::string_view::npos) return std::nullopt;
    return std::strtoul(std::string(text.substr(at + name.size())).c_str(), nullptr, 16);
}

// Registers that hold addresses: their values are in the log as numbers.
bool holdsAddress(std::optional<unsigned long> word) {
    return word && ((*word >= card_reg::kL5MulticastA && *word <= card_reg::kL1MulticastPort) ||
                    (*word >= card_reg::kL5Output && *word <= card_reg::kL1Output + card_reg::kOutputSrcPort));
}

std::string withoutRegisterValue(std::string text) {
    for (const auto& [name, value, end] : {std::array<std::string_view, 3>{"addr[", "value[0x", "]"},
                                           std::array<std::string_view, 3>{"multi channel ", " = 0x", ""}}) {
        const std::size_t at = text.find(value);
        if (at == std::string::npos || !holdsAddress(numberBehind(text, name))) continue;
        const std::size_t begin = at + value.size();
        const std::size_t stop = end.empty() ? text.size() : std::min(text.find(end, begin), text.size());
        text.replace(begin, stop - begin, kMasked);
    }
    return text;
}

}  // namespace

std::string Mask::standIn(std::string_view address) {
    const auto known = m_standIns.find(address);
    if (known != m_standIns.end()) return known->second;
    const std::string name = "<address " + std::to_string(m_standIns.size() + 1) + ">";
    return m_standIns.emplace(address, name).first->second;
}

std::string Mask::addresses(std::string_view text) {
    std::string masked;
    for (std::size_t at = 0; at < text.size();) {
        const bool begins = at == 0 || !(isWord(text[at - 1]) || text[at - 1] == '.');
        const std::size_t length = begins ? addressAt(text.substr(at)) : 0;
        const std::string_view address = text.substr(at, length);
        if (length == 0)
            masked += text[at++];
        else
            masked += isVersion(address) ? std::string(address) : standIn(address);
        at += length;
    }
    return masked;
}

std::string Mask::line(std::string_view text) {
    const std::string lower = check::lowered(std::string(text));
    for (const std::string_view secret : kSecrets)
        if (const auto value = valueOf(lower, secret, false); value && *value < text.size())
            return std::string(text.substr(0, *value)) + kMasked;
    // Also a value that is no address: a slip of the hand does not make it public.
    for (const std::string& key : addressKeys()) {
        const auto value = valueOf(lower, key, true);
        if (!value || *value >= text.size()) continue;
        const std::string before(text.substr(0, *value));
        const std::string_view rest = text.substr(*value);
        if (before.find('=') == std::string::npos) return before + withoutQuoted(addresses(rest));
        const std::size_t end = std::min(rest.find_first_of(" \t;,"), rest.size());
        return before + standIn(rest.substr(0, end)) + addresses(rest.substr(end));
    }
    return withoutRegisterValue(addresses(text));
}

std::string Mask::apply(std::string_view text) {
    std::string masked;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        masked += line(text.substr(0, end));
        if (end == std::string_view::npos) break;
        masked += '\n';
        text.remove_prefix(end + 1);
    }
    return masked;
}

}  // namespace vexo::report
