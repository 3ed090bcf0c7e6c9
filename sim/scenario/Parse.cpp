#include "sim/scenario/Parse.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>

#include "sim/card/Calendar.h"
#include "sim/card/CardConfig.h"
#include "sim/scenario/TextFile.h"

namespace vexo_sim::scenario::parse {
namespace {

template <typename Number>
std::optional<Number> scan(const std::string& text) {
    const bool hexadecimal = text.rfind("0x", 0) == 0;
    const char* const begin = text.data() + (hexadecimal ? 2 : 0);
    const char* const end = text.data() + text.size();
    Number number{};
    const auto [stop, error] = std::from_chars(begin, end, number, hexadecimal ? 16 : 10);
    if (begin == end || stop != end || error != std::errc()) return std::nullopt;
    return number;
}

template <typename Number>
Number bounded(const Value& value, Number least, Number most) {
    const std::optional<Number> result = scan<Number>(value.text);
    if (!result || *result < least || *result > most)
        value.reject("\"" + value.text + "\" will not do; give a number from " + std::to_string(least) + " to " +
                     std::to_string(most));
    return *result;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (std::size_t end; (end = text.find(separator, start)) != std::string::npos; start = end + 1)
        parts.push_back(trimmed(text.substr(start, end - start)));
    parts.push_back(trimmed(text.substr(start)));
    return parts;
}

std::optional<Range> range(const std::string& text, std::uint32_t most) {
    const std::vector<std::string> ends = split(text, '-');
    const std::optional<std::uint32_t> first = scan<std::uint32_t>(ends.front());
    const std::optional<std::uint32_t> last = scan<std::uint32_t>(ends.back());
    if (ends.size() > 2 || !first || !last || *first > *last || *last > most) return std::nullopt;
    return Range{*first, *last};
}

}  // namespace

std::uint64_t number(const Value& value, std::uint64_t least, std::uint64_t most) {
    return bounded(value, least, most);
}

std::int64_t signedNumber(const Value& value, std::int64_t least, std::int64_t most) {
    return bounded(value, least, most);
}

std::uint32_t numberOrAll(const Value& value, std::uint32_t least, std::uint32_t most, std::uint32_t all) {
    if (value.text == "all") return all;
    const std::optional<std::uint32_t> result = scan<std::uint32_t>(value.text);
    if (!result || *result < least || *result > most)
        value.reject("\"" + value.text + "\" will not do; give a number from " + std::to_string(least) + " to " +
                     std::to_string(most) + ", or all");
    return *result;
}

std::uint32_t word(const Value& value, std::initializer_list<std::pair<const char*, std::uint32_t>> words) {
    std::string choices;
    for (const auto& [text, meaning] : words) {
        if (value.text == text) return meaning;
        choices += (choices.empty() ? "" : ", ") + std::string(text);
    }
    value.reject("\"" + value.text + "\" will not do; choose from " + choices);
}

std::vector<Range> ranges(const Value& value, std::uint32_t most) {
    if (value.text == "all") return {{0, most}};
    std::vector<Range> all;
    for (const std::string& part : split(value.text, ',')) {
        const std::optional<Range> found = range(part, most);
        if (!found)
            value.reject("\"" + value.text + "\" will not do; give numbers from 0 to " + std::to_string(most) +
                         " such as 0, 3, 5-7, or all");
        all.push_back(*found);
    }
    return all;
}

std::uint32_t channels(const Value& value) {
    std::uint32_t bits = 0;
    for (const Range& range : ranges(value, kStreams - 1))
        for (std::uint32_t channel = range.first; channel <= range.last; ++channel) bits |= 1U << channel;
    return bits;
}

std::uint32_t timeOfDay(const Value& value) {
    const std::vector<std::string> parts = split(value.text, ':');
    const std::uint32_t limits[] = {24, 60, 60};
    std::uint32_t seconds = 0;
    bool good = parts.size() == 3;
    for (std::size_t n = 0; good && n < 3; ++n) {
        const std::optional<std::uint32_t> part = scan<std::uint32_t>(parts[n]);
        good = part && parts[n].size() == 2 && *part < limits[n];
        seconds = seconds * 60 + part.value_or(0);
    }
    if (!good) value.reject("\"" + value.text + "\" is no time of day; write HH:MM:SS");
    return seconds;
}

std::uint32_t date(const Value& value) {
    const std::optional<std::uint32_t> result = scan<std::uint32_t>(value.text);
    if (!result || value.text.size() != 8 || !calendar::isDate(*result))
        value.reject("\"" + value.text + "\" is no date; write YYYYMMDD");
    return *result;
}

int errorNumber(const Value& value) {
    constexpr int kLast = 4095;  // what a system call can report
    for (int number = 1; number <= kLast; ++number) {
        const char* name = ::strerrorname_np(number);
        if (name != nullptr && value.text == name) return number;
    }
    const std::optional<int> number = scan<int>(value.text);
    if (!number || *number < 1 || *number > kLast)
        value.reject("\"" + value.text + "\" is no errno; write a name such as EIO, or a number");
    return *number;
}

}  // namespace vexo_sim::scenario::parse
