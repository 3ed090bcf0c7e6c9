#include "tools/vexo/show/LogLine.h"

#include <strings.h>
#include <string>

namespace vexo {
namespace {

constexpr std::string_view kTags[] = {"[ASSERT ]", "[ERROR  ]", "[WARN   ]", "[EVENT  ]",
                                      "[INFO   ]", "[DEBUG  ]", "[VERBOSE]"};
constexpr std::string_view kTimeForm = "dddddddd-dd:dd:dd";

bool isTime(std::string_view text) {
    if (text.size() != kTimeForm.size()) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (kTimeForm[i] == 'd' ? !digit : text[i] != kTimeForm[i]) return false;
    }
    return true;
}

// Takes a group between brackets off the beginning.
std::string_view takeGroup(std::string_view& rest, char open, char close) {
    if (rest.empty() || rest.front() != open) return {};
    const std::size_t end = rest.find(close);
    if (end == std::string_view::npos) return {};
    const std::string_view group = rest.substr(1, end - 1);
    rest.remove_prefix(end + 1);
    return group;
}

// "ERROR" of "[ERROR  ]".
std::string_view wordOf(std::string_view tag) { return tag.substr(1, tag.find_first_of(" ]") - 1); }

}  // namespace

LogLine parseLogLine(std::string_view line) {
    LogLine parsed;
    parsed.message = line;
    for (std::size_t level = 0; level < std::size(kTags); ++level) {
        if (line.substr(0, kTags[level].size()) != kTags[level]) continue;
        parsed.level = static_cast<std::uint8_t>(level);
        parsed.tag = line.substr(0, kTags[level].size());
        parsed.message.remove_prefix(parsed.tag.size());
    }
    if (parsed.level == kNoLevel) return parsed;
    const std::string_view time = takeGroup(parsed.message, '[', ']').substr(0, kTimeForm.size());
    if (isTime(time)) parsed.time = time;
    takeGroup(parsed.message, '[', ']');                                             // the message tag
    if (parsed.level == 0 || parsed.level > 4) takeGroup(parsed.message, '(', ')');  // source and line
    return parsed;
}

std::string levelName(std::uint8_t level) {
    std::string name;
    if (level >= std::size(kTags)) return name;
    for (const char c : wordOf(kTags[level])) name += static_cast<char>(c - 'A' + 'a');
    return name;
}

std::uint8_t levelNamed(std::string_view name) {
    for (std::size_t level = 0; level < std::size(kTags); ++level) {
        const std::string_view known = wordOf(kTags[level]);
        if (known.size() == name.size() && ::strncasecmp(known.data(), name.data(), name.size()) == 0)
            return static_cast<std::uint8_t>(level);
    }
    constexpr std::string_view kOtherWord = "warning";  // many programs call the level so
    if (name.size() == kOtherWord.size() && ::strncasecmp(name.data(), kOtherWord.data(), name.size()) == 0)
        return levelNamed("warn");
    return kNoLevel;
}

}  // namespace vexo
