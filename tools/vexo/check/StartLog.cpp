#include "tools/vexo/check/StartLog.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace vexo::check {

namespace {

constexpr std::string_view kGap = "...";

struct LogLine {
    std::size_t number;
    std::string text;
};

template <typename Row>
const Row* find(const std::vector<Row>& rows, const std::string& line) {
    const auto row = std::find_if(rows.begin(), rows.end(), [&](const Row& one) { return matches(line, one.text); });
    return row != rows.end() ? &*row : nullptr;
}

// The lines of the last start-up, up to its success. A log without the beginning of one counts as a whole.
std::vector<LogLine> lastStart(const std::string& path) {
    std::ifstream file(path);
    if (!file) throw std::runtime_error(std::strerror(errno));
    std::vector<LogLine> lines;
    std::size_t number = 0;
    bool up = false;
    for (std::string text; std::getline(file, text);) {
        ++number;
        if (matches(text, stepLines().front().text)) {
            lines.clear();
            up = false;
        }
        if (up) continue;
        up = matches(text, stepLines().back().text);
        // Only lines of the tables count, so a long log takes no memory.
        if (find(stepLines(), text) != nullptr || find(startLines(), text) != nullptr) lines.push_back({number, text});
    }
    if (file.bad() || (number == 0 && !file.eof())) throw std::runtime_error("it cannot be read");
    return lines;
}

}  // namespace

bool matches(const std::string& line, const char* text) {
    const std::string_view pattern = text;
    std::size_t from = 0;
    for (std::size_t begin = 0; begin <= pattern.size();) {
        const std::size_t gap = std::min(pattern.find(kGap, begin), pattern.size());
        const std::string_view part = pattern.substr(begin, gap - begin);
        const std::size_t found = line.find(part, from);
        if (found == std::string::npos) return false;
        from = found + part.size();
        begin = gap + kGap.size();
    }
    return true;
}

void checkLog(const std::string& path, Report& report) {
    const std::vector<LogLine> lines = lastStart(path);
    if (lines.empty()) {
        report.add(
            {Level::kWarning, path, 0, "the log has no start-up in it", "give the log of the day, fpga_YYYYMMDD.log"});
        return;
    }
    const StepLine* reached = nullptr;
    for (const LogLine& line : lines) {
        if (const StepLine* step = find(stepLines(), line.text)) reached = step;
        const StartLine* failed = find(startLines(), line.text);
        if (failed == nullptr) continue;
        report.add({Level::kFatal, path, line.number,
                    std::string("the start-up ended while ") + failed->step + ": " + failed->why, failed->todo});
        return;
    }
    const std::size_t last = lines.back().number;
    if (reached == &stepLines().back())
        report.add({Level::kNote, path, last, "the last start-up succeeded: the channel's stream is open", ""});
    else
        report.add({Level::kError, path, last,
                    std::string("the log ends within a start-up, after ") +
                        (reached != nullptr ? reached->step : "nothing") +
                        ": it is still running, or the process was ended from outside",
                    "look whether the process runs; a log that ends here for good points to a kill or a crash"});
}

StartEnd endOfStart(const std::string& path) {
    std::ifstream file(path);
    if (!file) throw std::runtime_error(std::strerror(errno));
    StartEnd end;
    std::size_t number = 0;
    for (std::string text; std::getline(file, text);) {
        ++number;
        if (matches(text, stepLines().front().text)) end = StartEnd{};
        if (matches(text, stepLines().back().text)) end = StartEnd{nullptr, 0, true};
        if (end.line != nullptr) continue;
        if ((end.line = find(startLines(), text)) != nullptr) end.number = number;
    }
    return end;
}

}  // namespace vexo::check
