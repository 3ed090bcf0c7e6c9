#include "tools/vexo/check/SimulatedMap.h"

#include <unistd.h>
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <system_error>
#include <vector>

#include "sim/card/InstrumentList.h"
#include "sim/shm/CardPlaces.h"
#include "src/dayfile/DayLines.h"
#include "src/util/LocalTime.h"
#include "src/util/SafeFile.h"

namespace vexo::check {

namespace {

namespace fs = std::filesystem;
using vexo_sim::InstrumentChoice;

constexpr int kMonths = 3;                // that a hosted card may have been running
constexpr std::size_t kFewestLines = 50;  // a real card may have some contracts in the same rows by chance

// The built-in lists change with the month.
std::uint32_t monthBefore(std::time_t when, int months) {
    std::tm day{};
    local_time::breakDown(when, day);
    const int month = day.tm_year * 12 + day.tm_mon - months;
    return static_cast<std::uint32_t>((1900 + month / 12) * 10000 + (month % 12 + 1) * 100 + 1);
}

bool isPartOf(const std::set<std::string_view>& lines, InstrumentChoice choice, std::uint32_t date) {
    std::vector<vexo_sim::Instrument> list(vexo_sim::kMaxInstruments);
    list.resize(vexo_sim::makeInstrumentList(choice, date, list.data()));
    if (lines.size() > list.size()) return false;
    const auto found = std::count_if(list.begin(), list.end(), [&](const vexo_sim::Instrument& one) {
        return lines.count(std::to_string(one.row) + "," + one.id) != 0;
    });
    return static_cast<std::size_t>(found) == lines.size();
}

bool isKept(const std::set<std::string_view>& lines) {
    const std::vector<std::string> files = keptDayFiles();
    return std::any_of(files.begin(), files.end(), [&](const std::string& file) {
        std::string content;
        std::string refusal;
        return safe_file::readWhole(file, content, refusal) && instrumentLines(content) == lines;
    });
}

}  // namespace

std::vector<std::string> keptDayFiles() {
    std::vector<std::string> files;
    const std::string name = "/vexo-day-files-" + std::to_string(::geteuid());
    for (const std::string& directory : vexo_sim::cardDirectories(::geteuid())) {
        std::error_code error;
        for (const fs::directory_entry& file : fs::recursive_directory_iterator(directory + name, error))
            if (file.is_regular_file(error)) files.push_back(file.path().string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::set<std::string_view> instrumentLines(std::string_view content) {
    std::set<std::string_view> lines;
    day_file::forEachLine(
        content, [&](std::string_view line, std::string_view, unsigned short) { lines.insert(line); }, [] {},
        [](std::string_view) {});
    return lines;
}

bool isSimulatedMap(const std::set<std::string_view>& lines, std::time_t written) {
    if (lines.empty()) return false;
    for (int months = 0; months < kMonths && lines.size() >= kFewestLines; ++months)
        for (const InstrumentChoice choice : {InstrumentChoice::kDefault, InstrumentChoice::kFull})
            if (isPartOf(lines, choice, monthBefore(written, months))) return true;
    return isKept(lines);
}

}  // namespace vexo::check
