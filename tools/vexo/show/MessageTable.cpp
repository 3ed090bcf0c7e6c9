#include "tools/vexo/show/MessageTable.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "tools/vexo/show/LogLine.h"

namespace vexo {
namespace {

constexpr std::string_view kCellEnd = " | ";
constexpr std::string_view kAnything = "...";
constexpr std::string_view kBlanks = " \t\r\n";

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::string_view takeUntil(std::string_view& rest, std::string_view end) {
    const std::string_view part = rest.substr(0, rest.find(end));
    rest.remove_prefix(std::min(rest.size(), part.size() + end.size()));
    return part;
}

// A piece of a format: text, or a conversion.
struct Piece {
    std::string_view text;  // empty for a conversion
    char conversion = 0;
};

bool isLetter(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }

std::vector<Piece> piecesOf(std::string_view format) {
    std::vector<Piece> pieces;
    while (!format.empty()) {
        const std::string_view text = format.substr(0, format.find('%'));
        if (!text.empty()) pieces.push_back({text, 0});
        format.remove_prefix(text.size());
        if (format.empty()) break;
        std::size_t end = 1;
        while (end < format.size() && (!isLetter(format[end]) || format[end] == 'l')) ++end;
        if (end < format.size()) pieces.push_back({{}, format[end]});
        format.remove_prefix(std::min(format.size(), end + 1));
    }
    return pieces;
}

// How many characters at the beginning of the text the conversion can have given, at most. Numbers cannot give less.
std::size_t reach(char conversion, std::string_view text) {
    if (conversion == 's') return text.size();
    const char* const digits = conversion == 'x' ? "0123456789abcdef" : "0123456789";
    const std::size_t sign = conversion == 'd' && text.substr(0, 1) == "-" ? 1 : 0;
    const std::size_t length = std::min(text.find_first_not_of(digits, sign), text.size());
    return length > sign ? length : 0;
}

bool matches(const std::vector<Piece>& pieces, std::size_t at, std::string_view text) {
    if (at == pieces.size()) return text.empty();
    const Piece& piece = pieces[at];
    if (piece.conversion == 0)
        return text.substr(0, piece.text.size()) == piece.text &&
               matches(pieces, at + 1, text.substr(piece.text.size()));
    const std::size_t longest = reach(piece.conversion, text);
    if (piece.conversion != 's') return longest > 0 && matches(pieces, at + 1, text.substr(longest));
    if (at + 1 == pieces.size()) return true;
    for (std::size_t length = 0; length <= longest; ++length) {
        if (matches(pieces, at + 1, text.substr(length))) return true;
    }
    return false;
}

// The characters of the format that are no conversion; 0 when it does not match.
std::size_t weight(std::string_view format, std::string_view text) {
    const std::vector<Piece> pieces = piecesOf(trimmed(format.substr(0, format.find("\\n"))));
    std::size_t own = 0;
    for (const Piece& piece : pieces) own += piece.text.size();
    return own > 0 && matches(pieces, 0, text) ? own : 0;
}

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

bool isSame(const Message& a, const Message& b) {
    return a.format == b.format && a.level == b.level && a.when == b.when;
}

void add(std::vector<Message>& found, const Message& message) {
    const auto same = [&](const Message& other) { return isSame(message, other); };
    if (std::none_of(found.begin(), found.end(), same)) found.push_back(message);
}

// Whether the format has all parts of the text, in this order.
bool hasParts(const std::string& format, std::string_view text) {
    bool any = false;
    std::size_t at = 0;
    while (!text.empty()) {
        const std::string_view part = trimmed(takeUntil(text, kAnything));
        if (part.empty()) continue;
        any = true;
        at = format.find(part, at);
        if (at == std::string::npos) return false;
        at += part.size();
    }
    return any;
}

std::vector<Message> withParts(std::string_view text, const std::vector<Message>& messages) {
    std::vector<Message> found;
    for (const Message& message : messages) {
        if (hasParts(lower(message.format), text)) add(found, message);
    }
    return found;
}

// A number stands where the format has a conversion.
std::string withoutNumbers(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
        if (digits > 0) {
            out += kAnything;
            text.remove_prefix(digits);
            continue;
        }
        out += text.front();
        text.remove_prefix(1);
    }
    return out;
}

}  // namespace

std::vector<Message> parseMessages(std::string_view page) {
    std::vector<Message> messages;
    std::string place;
    while (!page.empty()) {
        std::string_view line = takeUntil(page, "\n");
        if (line.substr(0, 3) == "## ") {
            line.remove_prefix(3);
            place.clear();
            for (const char c : line.substr(0, line.find(':')))
                if (c != '`') place += c;
        }
        if (line.substr(0, 3) != "| `" || line.size() < 5) continue;
        line.remove_prefix(2);
        line.remove_suffix(2);
        const std::string_view format = takeUntil(line, kCellEnd);
        const std::string_view level = takeUntil(line, kCellEnd);
        const std::string_view when = takeUntil(line, kCellEnd);
        messages.push_back({std::string(format.substr(1, format.size() - 2)), std::string(level), place,
                            std::string(when), std::string(line)});
    }
    return messages;
}

std::vector<Message> messagesOf(std::string_view line, const std::vector<Message>& messages) {
    const std::string_view text = trimmed(parseLogLine(line).message).substr(0, kLongestLogLine);
    std::vector<Message> found;
    std::size_t best = 1;
    for (const Message& message : messages) {
        const std::size_t own = weight(message.format, text);
        if (own < best) continue;
        if (own > best) found.clear();
        best = own;
        add(found, message);
    }
    return found;
}

std::vector<Message> messagesWith(std::string_view text, const std::vector<Message>& messages) {
    const std::string wanted = lower(trimmed(parseLogLine(text).message));
    std::vector<Message> found = withParts(wanted, messages);
    return found.empty() ? withParts(withoutNumbers(wanted), messages) : found;
}

}  // namespace vexo
