#include "tools/data/LayoutText.h"

#include <algorithm>
#include <charconv>
#include <sstream>
#include <utility>

#include "tools/data/LayoutFile.h"
#include "tools/vexo/show/Harmless.h"

namespace vexo::data {
namespace {

constexpr char kBlanks[] = " \t\r";

// Far more than a card needs. They bound the time that a file of anybody takes, whatever is in it.
constexpr std::size_t kMostLine = 4096;
constexpr std::size_t kMostSections = 1000;
constexpr std::size_t kMostEntries = 10'000;

std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(kBlanks);
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool isPlain(const std::string& line) {
    return std::all_of(line.begin(), line.end(),
                       [](char c) { return c == '\t' || (c >= ' ' && c != '\x7F') || c < 0; });
}

}  // namespace

const LayoutEntry* LayoutSection::find(const std::string& key) const {
    const auto found = std::find_if(entries.begin(), entries.end(), [&](const LayoutEntry& e) { return e.key == key; });
    return found == entries.end() ? nullptr : &*found;
}

LayoutText::LayoutText(const std::string& text, std::string file) : m_file(std::move(file)) {
    std::istringstream lines(text);
    unsigned number = 0;
    for (std::string line; std::getline(lines, line);) takeLine(trimmed(line), ++number);
}

void LayoutText::reject(unsigned line, const std::string& what) const {
    throw LayoutError(harmless(m_file) + (line > 0 ? ":" + std::to_string(line) : "") + ": " + harmless(what));
}

void LayoutText::takeLine(const std::string& line, unsigned number) {
    if (line.size() > kMostLine) reject(number, "the line is longer than " + std::to_string(kMostLine) + " bytes");
    if (line.empty() || line.front() == ';' || line.front() == '#') return;
    if (!isPlain(line)) reject(number, "the line has control characters; a layout file is plain text");
    if (line.front() == '[') return takeSection(line, number);
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) reject(number, "no KEY = VALUE; begin a comment with ; or #");
    if (m_sections.empty()) reject(number, "a key before the first section; begin with [layout]");
    if (++m_entries > kMostEntries) {
        reject(number, "more than " + std::to_string(kMostEntries) + " keys; this is no layout file");
    }
    const LayoutEntry entry = {trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)), number};
    if (entry.key.empty() || entry.value.empty()) reject(number, "key or value is missing; write KEY = VALUE");
    if (m_sections.back().find(entry.key) != nullptr) {
        reject(number, entry.key + " is in this section twice; remove one of the two lines");
    }
    m_sections.back().entries.push_back(entry);
}

void LayoutText::takeSection(const std::string& line, unsigned number) {
    if (line.back() != ']') reject(number, "the section's line does not end with ]");
    const std::string inside = trimmed(line.substr(1, line.size() - 2));
    const std::size_t blank = inside.find_first_of(kBlanks);
    LayoutSection section;
    section.kind = inside.substr(0, blank);
    if (blank != std::string::npos) section.name = trimmed(inside.substr(blank));
    section.line = number;
    if (find(section.kind, section.name) != nullptr) {
        reject(number, "the section [" + inside + "] is there twice; join the two");
    }
    if (m_sections.size() == kMostSections) {
        reject(number, "more than " + std::to_string(kMostSections) + " sections; this is no layout file");
    }
    m_sections.push_back(section);
}

const LayoutSection* LayoutText::find(const std::string& kind, const std::string& name) const {
    const auto found = std::find_if(m_sections.begin(), m_sections.end(), [&](const LayoutSection& section) {
        return section.kind == kind && section.name == name;
    });
    return found == m_sections.end() ? nullptr : &*found;
}

std::vector<std::string> splitAtCommas(const std::string& text, std::size_t most) {
    std::vector<std::string> pieces;
    std::size_t begin = 0;
    for (;;) {
        const std::size_t comma = pieces.size() + 1 < most ? text.find(',', begin) : std::string::npos;
        pieces.push_back(trimmed(text.substr(begin, comma - begin)));
        if (comma == std::string::npos) return pieces;
        begin = comma + 1;
    }
}

bool readNumber(const std::string& text, unsigned long long most, unsigned long long& number) {
    const bool isHexadecimal = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char* const begin = text.data() + (isHexadecimal ? 2 : 0);
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(begin, end, number, isHexadecimal ? 16 : 10);
    return error == std::errc() && stop == end && number <= most;
}

}  // namespace vexo::data
