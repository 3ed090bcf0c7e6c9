#include "tools/cli/Duration.h"

#include <charconv>
#include <limits>

namespace cli {

namespace {

// Seconds of a unit; 0 if it is none.
std::uint64_t unitOf(const std::string& text) {
    if (text.empty() || text == "s") return 1;
    if (text == "m") return 60;
    if (text == "h") return 3600;
    return text == "d" ? 86400 : 0;
}

}  // namespace

std::optional<std::uint64_t> secondsOf(const std::string& text) {
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc()) return std::nullopt;
    const std::uint64_t unit = unitOf(std::string(stop, end));
    if (unit == 0 || number > std::numeric_limits<std::uint64_t>::max() / unit) return std::nullopt;
    return number * unit;
}

Check duration(std::uint64_t most) {
    const auto take = [most](std::string& text) -> std::string {
        const std::optional<std::uint64_t> seconds = secondsOf(text);
        if (!seconds) return text + " is no time; write seconds, or a number with s, m, h or d, such as 8h";
        if (*seconds < 1 || *seconds > most) {
            return text + " is not between a second and " + std::to_string(most / 86400) + " days";
        }
        text = std::to_string(*seconds);
        return {};
    };
    return {take};
}

}  // namespace cli
