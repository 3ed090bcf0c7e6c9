#include "tools/vexo/check/Report.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tools/vexo/show/Harmless.h"

namespace vexo::check {

namespace {

struct LevelName {
    const char* name;
    const char* color;
};

// In the order of Level.
constexpr LevelName kLevels[] = {
    {"note", "\033[36m"}, {"warning", "\033[33m"}, {"error", "\033[31m"}, {"fatal", "\033[1;31m"}};

const LevelName& nameOf(Level level) { return kLevels[static_cast<std::size_t>(level)]; }

std::string lineOf(const Finding& finding, bool colored) {
    const LevelName& level = nameOf(finding.level);
    std::string text = finding.place;
    if (finding.line != 0) text += ':' + std::to_string(finding.line);
    text += ": " + (colored ? level.color + std::string(level.name) + "\033[0m" : level.name) + ": " +
            harmless(finding.what);
    return text + (finding.todo.empty() ? "\n" : "; " + harmless(finding.todo) + "\n");
}

std::string totalOf(const Report& report) {
    const std::size_t count = report.count();
    if (count == 0) return "no findings\n";
    const std::size_t fatal = report.countFatal();
    return std::to_string(count) + (count == 1 ? " finding" : " findings") +
           (fatal == 0 ? "" : "; the start-up ends at what is fatal") + "\n";
}

}  // namespace

void Report::sortFrom(std::size_t first) {
    std::stable_sort(m_findings.begin() + static_cast<std::ptrdiff_t>(first), m_findings.end(),
                     [](const Finding& a, const Finding& b) { return a.line < b.line; });
}

std::size_t Report::count() const {
    return static_cast<std::size_t>(std::count_if(m_findings.begin(), m_findings.end(),
                                                  [](const Finding& one) { return one.level != Level::kNote; }));
}

std::size_t Report::countFatal() const {
    return static_cast<std::size_t>(std::count_if(m_findings.begin(), m_findings.end(),
                                                  [](const Finding& one) { return one.level == Level::kFatal; }));
}

std::string asText(const Report& report, bool colored) {
    std::string text;
    for (const Finding& finding : report.findings()) text += lineOf(finding, colored);
    return text + totalOf(report);
}

std::string asJson(const Report& report) {
    using Json = nlohmann::ordered_json;
    Json findings = Json::array();
    for (const Finding& finding : report.findings()) {
        findings.push_back({{"level", nameOf(finding.level).name},
                            {"place", finding.place},
                            {"line", finding.line},
                            {"what", finding.what},
                            {"todo", finding.todo}});
    }
    const Json all = {{"findings", findings}, {"count", report.count()}, {"fatal", report.countFatal()}};
    // A value of the file may hold any bytes.
    return all.dump(1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace vexo::check
