#include "tools/vexo/info/Words.h"

#include <cmath>
#include <cstdio>

#include "VexoZceSession.h"
#include "tools/vexo/show/Harmless.h"

namespace vexo::info {
namespace {

template <typename... Arguments>
std::string format(const char* how, Arguments... arguments) {
    char text[96];
    std::snprintf(text, sizeof text, how, arguments...);
    return text;
}

// Three digits: 1.23, 12.3, 123.
std::string threeDigits(double value) {
    return format(value < 9.995 ? "%.2f" : value < 99.95 ? "%.1f" : "%.0f", value);
}

}  // namespace

std::string bytesText(std::uint64_t bytes) {
    if (bytes < 1000) return std::to_string(bytes) + " bytes";
    static const char* const kUnits[] = {"kB", "MB", "GB", "TB", "PB", "EB"};
    auto value = static_cast<double>(bytes) / 1000;
    std::size_t unit = 0;
    for (; value >= 999.5 && unit + 1 < std::size(kUnits); ++unit) value /= 1000;
    return threeDigits(value) + " " + kUnits[unit];
}

std::string rateText(double perSecond) {
    if (perSecond < 99.95) return format("%.1f", perSecond);
    return grouped(static_cast<std::uint64_t>(std::llround(perSecond)));
}

std::string durationText(std::uint64_t ns) {
    const auto value = static_cast<double>(ns);
    if (ns < 1000) return std::to_string(ns) + " ns";
    if (value < 999'500) return threeDigits(value / 1e3) + " us";
    if (value < 999'500'000) return threeDigits(value / 1e6) + " ms";
    const std::uint64_t seconds = (ns + 500'000'000) / 1'000'000'000;
    if (value < 59.95e9) return threeDigits(value / 1e9) + " s";
    if (seconds < 3600) return format("%d min %d s", static_cast<int>(seconds / 60), static_cast<int>(seconds % 60));
    const std::uint64_t minutes = (seconds + 30) / 60;
    if (minutes < 1440) return format("%d h %d min", static_cast<int>(minutes / 60), static_cast<int>(minutes % 60));
    return grouped(minutes / 1440) + format(" d %d h", static_cast<int>(minutes % 1440 / 60));
}

std::string dateText(std::uint64_t ns) {
    const std::uint32_t date = vexo_zce::hostTimeOf(ns).date;
    return format("%04u-%02u-%02u", date / 10000, date / 100 % 100, date % 100);
}

std::string clockText(std::uint64_t ns, unsigned places) {
    const std::uint32_t second = vexo_zce::hostTimeOf(ns).second;
    std::string text = format("%02u:%02u:%02u", second / 3600, second / 60 % 60, second % 60);
    if (places == 0) return text;
    return text + format(".%09u", static_cast<unsigned>(ns % 1'000'000'000)).substr(0, 1 + places);
}

std::string momentText(std::uint64_t ns, unsigned places) { return dateText(ns) + " " + clockText(ns, places); }

std::string shareText(std::uint64_t part, std::uint64_t all) {
    return all == 0 ? "-" : format("%.1f %%", 100 * static_cast<double>(part) / static_cast<double>(all));
}

std::string changeText(double before, double after) {
    if (before == after) return "same";
    if (before == 0) return "-";
    return format("%+.1f %%", (after / before - 1) * 100);
}

std::string typeName(std::uint64_t type) {
    if (type == kNoType) return "none";
    return type == kOtherTypes ? "other" : std::to_string(type);
}

std::string captureNames(const Summary& summary) {
    if (summary.files.empty()) return "";
    const std::string& first = summary.files.front().path;
    const std::string name = first == "-" ? "standard input" : harmless(first);
    if (summary.files.size() == 1) return name;
    return name + " and " + grouped(summary.files.size() - 1) + " more";
}

}  // namespace vexo::info
