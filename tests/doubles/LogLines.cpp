#include "tests/doubles/LogLines.h"

#include <sstream>

#include "src/log/elog.h"

namespace test_support {

namespace {

// "[INFO   ][fpga]text" to "INFO text".
std::string Plain(const std::string& line) {
    constexpr std::size_t kLevelSize = 9;
    const std::string tag = "[fpga]";
    if (line.size() < kLevelSize || line[0] != '[' || line.compare(kLevelSize, tag.size(), tag) != 0) return line;
    const std::string level = line.substr(1, line.find_first_of(" ]") - 1);
    return level + ' ' + line.substr(kLevelSize + tag.size());
}

}  // namespace

LogLines::LogLines() {
    for (std::uint8_t level = 0; level < ELOG_LVL_TOTAL; ++level) elog_set_fmt(level, ELOG_FMT_LVL | ELOG_FMT_TAG);
    elog_set_filter_lvl(ELOG_LVL_VERBOSE);
    elog_set_output_enabled(true);
}

LogLines::~LogLines() { elog_set_output_enabled(false); }

std::vector<std::string> LogLines::Take() {
    std::fflush(stdout);
    const std::string all = m_output.Text();
    std::istringstream text(all.substr(m_taken));
    m_taken = all.size();
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) lines.push_back(Plain(line));
    return lines;
}

std::string LogLines::TakeText() {
    std::string text;
    for (const std::string& line : Take()) text += line + '\n';
    return text;
}

}  // namespace test_support
