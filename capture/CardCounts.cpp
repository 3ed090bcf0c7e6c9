#include "capture/CardCounts.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <string_view>

namespace capture {
namespace {

constexpr std::string_view kStart = "card:";
constexpr std::string_view kUnknown = "-";

struct Key {
    const char* name;
    std::optional<std::uint64_t> CardCounts::*member;
};
constexpr Key kKeys[] = {
    {"packets", &CardCounts::packets},
    {"back_pressure", &CardCounts::backPressure},
    {"fifo_errors", &CardCounts::fifoErrors},
    {"errors", &CardCounts::errors},
    {"by_application", &CardCounts::byApplication},
    {"before_card", &CardCounts::beforeCard},
};

// @return whether the word is "NAME=NUMBER" or "NAME=-"
bool takeWord(std::string_view word, CardCounts& counts) {
    const std::size_t equals = word.find('=');
    if (equals == std::string_view::npos) return false;
    const std::string_view value = word.substr(equals + 1);
    std::optional<std::uint64_t> number;
    if (value != kUnknown) {
        std::uint64_t read = 0;
        const auto [stop, error] = std::from_chars(value.data(), value.data() + value.size(), read);
        if (error != std::errc() || stop != value.data() + value.size()) return false;
        number = read;
    }
    for (const Key& key : kKeys) {
        if (word.substr(0, equals) == key.name) counts.*key.member = number;
    }
    return true;
}

}  // namespace

bool CardCounts::operator==(const CardCounts& other) const {
    for (const Key& key : kKeys) {
        if (this->*key.member != other.*key.member) return false;
    }
    return true;
}

std::string textOf(const CardCounts& counts) {
    std::string text(kStart);
    for (const Key& key : kKeys) {
        const auto& number = counts.*key.member;
        text += std::string(" ") + key.name + "=" + (number ? std::to_string(*number) : std::string(kUnknown));
    }
    return text;
}

std::optional<CardCounts> cardCountsOf(const std::string& text) {
    std::string_view rest = text;
    if (rest.substr(0, kStart.size()) != kStart) return std::nullopt;
    rest.remove_prefix(kStart.size());
    CardCounts counts;
    while (!rest.empty()) {
        if (rest.front() != ' ') return std::nullopt;
        rest.remove_prefix(1);
        const std::string_view word = rest.substr(0, rest.find(' '));
        if (!takeWord(word, counts)) return std::nullopt;
        rest.remove_prefix(word.size());
    }
    return counts;
}

bool hasCounts(const CardCounts& counts) {
    return std::any_of(std::begin(kKeys), std::end(kKeys),
                       [&](const Key& key) { return (counts.*key.member).value_or(0) > 0; });
}

CardCounts operator-(const CardCounts& now, const CardCounts& before) {
    CardCounts added;
    for (const Key& key : kKeys) {
        const auto& number = now.*key.member;
        const std::uint64_t earlier = (before.*key.member).value_or(0);
        // Numbers that were missing may have turned out to be none: that count falls.
        if (number) added.*key.member = *number > earlier ? *number - earlier : 0;
    }
    return added;
}

}  // namespace capture
