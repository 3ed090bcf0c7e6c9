#include "tools/vexo/watch/Reports.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

#include "tools/cli/Color.h"
#include "tools/vexo/show/Harmless.h"
#include "tools/vexo/show/LogLine.h"
#include "tools/vexo/stat/Views.h"
#include "tools/vexo/watch/Frame.h"

namespace vexo::watch {
namespace {

using nlohmann::ordered_json;
using stat::grouped;
using vexo_stats::kBuckets;

constexpr std::size_t kLogLines = 10;  // of one look
constexpr std::size_t kBusyInLine = 3;
constexpr std::size_t kBusyInSummary = 10;
constexpr std::size_t kBusyInJson = 100;

template <typename... Arguments>
std::string format(const char* how, Arguments... arguments) {
    char text[256];
    std::snprintf(text, sizeof text, how, arguments...);
    return text;
}

std::string timeOfDay() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof text, "%H:%M:%S ", &local);
    return text;
}

std::string wholePerSecond(const Scene& scene, std::uint64_t n) { return format("%.0f", scene.perSecond(n)); }
std::string megabytesPerSecond(const Scene& scene, std::uint64_t n) { return format("%.2f", scene.perSecond(n) / 1e6); }

std::string rateText(const Scene& scene) {
    if (!scene.isRated()) return "";
    std::string text = wholePerSecond(scene, scene.more.allPackets) + " packets/s";
    if (scene.now.allBytes != 0) text += ", " + megabytesPerSecond(scene, scene.more.allBytes) + " MB/s";
    const char* mark = " (";
    for (std::size_t slot = 0; slot < vexo_stats::kTypeSlots; ++slot) {
        if (scene.more.packets[slot] == 0) continue;
        text += mark + ("type " + stat::typeName(slot)) + " " + wholePerSecond(scene, scene.more.packets[slot]) + "/s";
        mark = ", ";
    }
    return text + (*mark == ',' ? ")" : "") + "; ";
}

std::string busyText(const Scene& scene) {
    std::string text;
    for (std::size_t i = 0; i < std::min(kBusyInLine, scene.instruments.size()); ++i) {
        const BusyInstrument& one = scene.instruments[i];
        text += (text.empty() ? "; busiest " : ", ") + harmless(one.id) + " ";
        text += scene.isRated() ? wholePerSecond(scene, one.more) + "/s" : grouped(one.packets);
    }
    return text;
}

std::string numberLine(const Scene& scene) {
    std::string text = timeOfDay();
    if (!scene.page) return text + "starting\n";
    text += rateText(scene) + grouped(scene.now.allPackets) + " packets; lost: " + data::lossLine(scene.now.losses);
    const double callback = stat::boundOf(scene.more.callbacks, kBuckets, 0.99, *scene.page);
    if (callback > 0) text += "; 99 % of callbacks below " + stat::duration(callback);
    return text + busyText(scene) + "\n";
}

std::string resultText(const Scene& scene) {
    if (!scene.isRated()) return "the last numbers of a process that has ended:";
    std::string text = "watched for " + stat::duration(scene.seconds) + ": " + grouped(scene.more.allPackets) +
                       " packets, " + wholePerSecond(scene, scene.more.allPackets) + " a second";
    if (scene.now.allBytes != 0) text += ", " + megabytesPerSecond(scene, scene.more.allBytes) + " MB a second";
    return text;
}

ordered_json ratesJson(const Scene& scene) {
    if (!scene.isRated()) return nullptr;
    ordered_json rates = {{"seconds", scene.seconds},
                          {"packets_per_second", scene.perSecond(scene.more.allPackets)},
                          {"bytes_per_second", scene.perSecond(scene.more.allBytes)}};
    ordered_json types = ordered_json::object();
    for (std::size_t slot = 0; slot < vexo_stats::kTypeSlots; ++slot) {
        if (scene.now.packets[slot] == 0) continue;
        types[stat::typeName(slot)] = {{"packets_per_second", scene.perSecond(scene.more.packets[slot])},
                                       {"bytes_per_second", scene.perSecond(scene.more.bytes[slot])}};
    }
    rates["types"] = types;
    return rates;
}

ordered_json instrumentsJson(const Scene& scene) {
    if (!scene.countsInstruments) return nullptr;
    ordered_json all = ordered_json::array();
    for (std::size_t i = 0; i < std::min(kBusyInJson, scene.instruments.size()); ++i) {
        const BusyInstrument& one = scene.instruments[i];
        all.push_back({{"id", one.id}, {"packets", one.packets}});
        if (scene.isRated()) all.back()["packets_per_second"] = scene.perSecond(one.more);
    }
    return all;
}

ordered_json logJson(const Scene& scene) {
    ordered_json lines = ordered_json::array();
    for (std::size_t i = scene.log.size() - std::min(scene.newLines, scene.log.size()); i < scene.log.size(); ++i) {
        const LogLine parsed = parseLogLine(scene.log[i].text);
        ordered_json line = {{"level", nullptr}, {"time", nullptr}, {"text", std::string(parsed.message)}};
        if (scene.log[i].level != kNoLevel) line["level"] = levelName(scene.log[i].level);
        if (!parsed.time.empty()) line["time"] = std::string(parsed.time);
        lines.push_back(line);
    }
    return lines;
}

}  // namespace

std::string asLines(const Scene& scene, bool colored) {
    std::string text;
    const std::size_t shown = std::min({scene.newLines, scene.log.size(), kLogLines});
    if (scene.newLines > shown) text += "log " + grouped(scene.newLines - shown) + " lines before these\n";
    for (std::size_t i = scene.log.size() - shown; i < scene.log.size(); ++i)
        text += "log " + logLine(scene.log[i]).shown(colored) + "\n";
    return text + numberLine(scene);
}

std::string asSummary(const Scene& scene, const stat::Page* first, bool colored) {
    if (!scene.page) return "nothing was received: the start was not over\n";
    std::string text = cli::painted(resultText(scene), cli::kBold, colored) + "\n";
    std::vector<stat::Page> before;
    if (first != nullptr) before.push_back(*first);
    text += stat::asText({*scene.page}, before);
    if (!scene.countsInstruments) return text;
    text += "busiest instruments, of " + grouped(scene.instruments.size()) + ":\n";
    for (std::size_t i = 0; i < std::min(kBusyInSummary, scene.instruments.size()); ++i) {
        const BusyInstrument& one = scene.instruments[i];
        text += format("  %-16s %12s", harmless(one.id).c_str(), grouped(one.packets).c_str());
        text += scene.isRated() ? "  " + wholePerSecond(scene, one.more) + " a second\n" : "\n";
    }
    if (scene.unknown != 0)
        text += grouped(scene.unknown) +
                " market-data packets have no id: no layout describes them; give one with --layout\n";
    if (scene.crowded != 0) text += grouped(scene.crowded) + " packets are of further instruments\n";
    return text;
}

std::string asJson(const Scene& scene, const char* kind) {
    using std::chrono::system_clock;
    ordered_json json;
    json["kind"] = kind;
    json["time"] = std::chrono::duration<double>(system_clock::now().time_since_epoch()).count();
    json["rates"] = ratesJson(scene);
    json["instruments"] = instrumentsJson(scene);
    if (scene.countsInstruments) json["packets_without_id"] = scene.unknown;
    json["log"] = logJson(scene);
    // The rest is what vexo stat shows of the process.
    json["process"] = scene.page ? ordered_json::parse(stat::asJson({*scene.page})) : ordered_json(nullptr);
    return json.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace vexo::watch
