#include "tools/vexo/check/ValueCheck.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <regex>

namespace vexo::check {

namespace {

constexpr std::size_t kVersionLength = 8;  // characters of a version that the library reads
constexpr char kComparedVersion[] = "1.1.2.13";

std::string quoted(const std::string& text) { return "\"" + text + "\""; }
std::string give(const Key& key) {
    const bool isValue = key.type != Type::kReceive && key.type != Type::kSwitch && key.type != Type::kInsts;
    return std::string("give ") + (isValue ? std::string(nameOf(key.type)) + ", " : "") + key.range + ", such as " +
           key.name + " = " + key.example;
}
Problem problem(const Key& key, const std::string& what, Level level = Level::kError) {
    return {level, what, give(key)};
}

bool isDecimal(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

std::optional<Problem> checkNumber(const Key& key, const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(text.c_str(), &end, 0);
    if (end == text.c_str()) return problem(key, quoted(text) + " is no number and counts as 0");
    if (*end != '\0')
        return problem(key, "only " + quoted(text.substr(0, static_cast<std::size_t>(end - text.c_str()))) + " of " +
                                quoted(text) + " is read");
    if (errno == ERANGE || number < key.least || number > key.most)
        return problem(key, quoted(text) + " is out of range");
    const bool octal = text.size() > 1 && text[0] == '0' && isDecimal(text);
    if (octal && text != std::string(text.size(), '0'))
        return Problem{Level::kWarning, quoted(text) + " has a leading zero, so it is octal: " + std::to_string(number),
                       "write it without the zero"};
    return std::nullopt;
}

std::optional<Problem> checkAddress(const Key& key, const std::string& text) {
    static const std::regex form(R"((\d{1,3})\.(\d{1,3})\.(\d{1,3})\.(\d{1,3}))");
    std::smatch numbers;
    if (!std::regex_match(text, numbers, form))
        return problem(key, quoted(text) + " is no address; the card gets a wrong one");
    for (std::size_t i = 1; i < numbers.size(); ++i)
        if (std::stoi(numbers[i]) > 255)
            return problem(key, "the number " + numbers[i].str() + " in " + quoted(text) +
                                    " is over 255; the card gets another address");
    const int first = std::stoi(numbers[1]);
    if (key.type == Type::kMulticast && (first < 224 || first > 239))
        return problem(key, quoted(text) + " is no multicast address", Level::kWarning);
    return std::nullopt;
}

std::optional<Problem> checkMac(const Key& key, const std::string& text) {
    static const std::regex form("[0-9a-fA-F]{1,2}(:[0-9a-fA-F]{1,2}){5}");
    if (std::regex_match(text, form)) return std::nullopt;
    return problem(key, quoted(text) + " is no MAC address; the card gets a wrong one");
}

std::optional<Problem> checkDevice(const Key& key, const std::string& text) {
    static const std::regex form("xilinx[0-4]:([0-9]|1[0-5])");
    const std::string folded = lowered(text);
    if (!deviceOf(text).valid)
        return problem(key, quoted(text) + " names no card and channel; the start-up ends", Level::kFatal);
    if (!std::regex_match(folded, form)) return problem(key, "only the front of " + quoted(text) + " is read");
    if (!std::regex_match(text, form))
        return Problem{Level::kWarning, quoted(text) + " works, but each start logs an error for its capital letters",
                       "write " + folded};
    return std::nullopt;
}

std::optional<Problem> checkVersion(const Key& key, const std::string& text) {
    if (text.size() > kVersionLength)
        return problem(key, "only the first 8 characters of " + quoted(text) + " are read");
    if (isDecimal(text)) return std::nullopt;
    const long number = std::strtol(text.c_str(), nullptr, 10);
    if (number < 0)
        return problem(key, quoted(text) + " counts as a version that no card has",
                       key.name == std::string(kComparedVersion) ? Level::kFatal : Level::kError);
    return problem(key, quoted(text) + " is no decimal number and counts as " + std::to_string(number) +
                            (number == 0 ? ", which every card satisfies" : ""));
}

std::optional<Problem> checkWord(const Key& key, const std::string& text, const char* yes, const char* no,
                                 const char* otherwise) {
    if (text == yes || text == no) return std::nullopt;
    return problem(key, quoted(text) + " counts as " + otherwise + ", the library takes the exact word only");
}

// Text behind the value that the library does not read.
std::optional<Problem> checkRest(const IniLine& line) {
    const std::string behind = line.text.substr(line.text.find('=') + 1);
    const std::size_t begin = behind.find_first_not_of(" \t\r\n\v\f");
    if (begin == std::string::npos) return std::nullopt;
    const char quote = behind[begin];
    if (quote == '"' || quote == '\'') {
        const std::size_t end = behind.find(quote, begin + 1);
        if (end == std::string::npos)
            return Problem{Level::kWarning, "the closing quote is missing", "add it, or remove the first one"};
        const std::size_t rest = behind.find_first_not_of(" \t\r\n\v\f", end + 1);
        if (rest == std::string::npos || behind[rest] == ';' || behind[rest] == '#') return std::nullopt;
        return Problem{Level::kError, "the text behind the closing quote is not read: " + quoted(behind.substr(rest)),
                       "put it inside the quotes, or remove it"};
    }
    const std::size_t sign = behind.find_first_of(";#", begin);
    if (sign == std::string::npos || sign == begin || std::isspace(static_cast<unsigned char>(behind[sign - 1])) != 0)
        return std::nullopt;
    return Problem{Level::kWarning,
                   "a comment begins inside the value: " + quoted(behind.substr(sign)) + " is not read",
                   "put a blank before the comment, or the value into quotes"};
}

std::optional<Problem> checkType(const Key& key, const std::string& text) {
    switch (key.type) {
        case Type::kDevice: return checkDevice(key, text);
        case Type::kNumber:
        case Type::kCpu:
        case Type::kPort: return checkNumber(key, text);
        case Type::kAddress:
        case Type::kMulticast: return checkAddress(key, text);
        case Type::kMac: return checkMac(key, text);
        case Type::kSwitch: return checkWord(key, text, "enabled", "disabled", "enabled");
        case Type::kVersion: return checkVersion(key, text);
        case Type::kReceive: return checkWord(key, text, "recv", "norecv", "norecv");
        case Type::kInsts: break;  // token by token, with the other keys of the channel
    }
    return std::nullopt;
}

}  // namespace

Device deviceOf(const std::string& value) {
    int card = -1;
    int channel = -1;
    Device device;
    if (std::sscanf(lowered(value).c_str(), "xilinx%d:%d", &card, &channel) != 2) return device;
    device.valid = card >= 0 && card <= 4 && channel >= 0 && channel <= 15;
    if (device.valid) device = {true, static_cast<unsigned int>(card), static_cast<unsigned int>(channel)};
    return device;
}

long numberOf(const std::string& value) { return std::strtol(value.c_str(), nullptr, 0); }

std::optional<Problem> checkValue(const Key& key, const IniLine& line) {
    if (const std::optional<Problem> rest = checkRest(line)) return rest;
    if (!line.value.empty()) return checkType(key, line.value);
    Problem empty = checkType(key, line.value).value_or(problem(key, "the channel gets no futures and no options"));
    empty.what = "the value is empty: " + empty.what;
    return empty;
}

}  // namespace vexo::check
