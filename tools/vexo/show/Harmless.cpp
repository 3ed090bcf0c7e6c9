#include "tools/vexo/show/Harmless.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

namespace vexo {
namespace {

struct Letter {
    std::size_t bytes = 0;  // 0: not UTF-8
    std::uint32_t code = 0;
};

// The UTF-8 sequence at the beginning of the text.
Letter firstLetter(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text.front());
    if (lead < 0x80) return {1, lead};
    const std::size_t bytes = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < bytes) return {};
    std::uint32_t code = lead & (0x7FU >> bytes);
    for (std::size_t i = 1; i < bytes; ++i) {
        const auto next = static_cast<unsigned char>(text[i]);
        if ((next & 0xC0) != 0x80) return {};
        code = code << 6 | (next & 0x3F);
    }
    constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    return code >= kSmallest[bytes] ? Letter{bytes, code} : Letter{};
}

// Marks that let a terminal show letters in another order than they have.
bool turnsText(std::uint32_t code) {
    return code == 0x200E || code == 0x200F || (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
}

bool isHarmless(const Letter& letter) {
    if (letter.bytes == 0) return false;
    if (letter.bytes == 1) return letter.code == '\t' || (letter.code >= 0x20 && letter.code != 0x7F);
    return letter.code >= 0xA0 && !turnsText(letter.code);  // below: control characters of eight bits
}

}  // namespace

std::string harmless(std::string_view text) {
    if (std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c < '\x7F'; })) return std::string(text);
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const Letter letter = firstLetter(text);
        const std::size_t bytes = letter.bytes == 0 ? 1 : letter.bytes;
        if (isHarmless(letter)) {
            out.append(text.substr(0, bytes));
        } else {
            for (const char c : text.substr(0, bytes)) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<unsigned char>(c));
                out += escaped;
            }
        }
        text.remove_prefix(bytes);
    }
    return out;
}

std::string quotedBegin(std::string_view line) {
    constexpr std::size_t kMost = 40;
    std::size_t end = std::min(line.size(), kMost);
    while (end > 0 && end < line.size() && (static_cast<unsigned char>(line[end]) & 0xC0) == 0x80) --end;
    return "\"" + harmless(line.substr(0, end)) + (end < line.size() ? "...\"" : "\"");
}

}  // namespace vexo
