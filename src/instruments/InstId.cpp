#include "src/instruments/InstId.h"

#include <algorithm>
#include <cctype>

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// Position of an option's C or P, which has a digit on either side; npos when the id is no option.
std::size_t optionMark(const std::string& id) {
    for (std::size_t pos = 1; pos + 1 < id.size(); ++pos) {
        if ((id[pos] == 'C' || id[pos] == 'P') && isDigit(id[pos - 1]) && isDigit(id[pos + 1])) return pos;
    }
    return std::string::npos;
}

}  // namespace

std::string RemoveSpace(std::string& text) {
    std::string cleaned = text;
    cleaned.erase(std::remove(cleaned.begin(), cleaned.end(), ' '), cleaned.end());
    return cleaned;
}

bool FindAllTag(std::string& text) { return findStringIgnoreCase(text, "all"); }

bool findStringIgnoreCase(const std::string& text, const std::string& part) {
    return lower(text).find(lower(part)) != std::string::npos;
}

bool contains_digit(const char* text) {
    for (; *text != '\0'; ++text) {
        if (isDigit(*text)) return true;
    }
    return false;
}

bool IsOption(const std::string& id) { return optionMark(id) != std::string::npos; }

std::uint32_t OptionExtractSecondClass(const std::string& id, std::string& out) {
    const std::size_t mark = optionMark(id);
    if (mark == std::string::npos) return 0xFFFFFFFF;
    out = id.substr(0, mark);
    return 0;
}

std::string ExtractClass(const char* text, std::uint32_t length) {
    std::uint32_t letters = 0;
    while (letters < length && std::isalpha(static_cast<unsigned char>(text[letters]))) ++letters;
    return std::string(text, letters);
}

std::string ExtractClass(const std::string& id) {
    return ExtractClass(id.c_str(), static_cast<std::uint32_t>(id.size()));
}

bool isCalendarSpread(const std::string& id) { return id.compare(0, 4, "SPD-") == 0; }

bool isInterProductSpread(const std::string& id) { return id.compare(0, 4, "IPS-") == 0; }

std::uint8_t tableOf(const std::string& id) { return isCalendarSpread(id) || isInterProductSpread(id) ? 1 : 0; }

bool contains(const std::vector<std::string>& list, const std::string& entry) {
    // From the end: instruments come product by product, so the code added last is the likely one.
    return std::find(list.rbegin(), list.rend(), entry) != list.rend();
}

std::string joinWithComma(const std::vector<std::string>& entries) {
    std::string joined;
    for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
        if (entry != entries.begin()) joined += ',';
        joined += *entry;
    }
    return joined;
}
