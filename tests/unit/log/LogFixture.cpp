#include "tests/unit/log/LogFixture.h"

#include <filesystem>
#include <iterator>
#include <sstream>
#include <stdexcept>

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream rest(text);
    for (std::string line; std::getline(rest, line);) lines.push_back(line);
    return lines;
}

std::string LastLine(const std::string& text) {
    const std::vector<std::string> lines = Lines(text);
    return lines.empty() ? std::string() : lines.back();
}

std::size_t OpenDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

LogCore::LogCore() { Forget(); }

LogCore::~LogCore() { Forget(); }

void LogCore::Forget() {
    elog_fini();
    elog_set_output_enabled(false);
    elog_set_filter_lvl(0);
    for (std::uint8_t level = 0; level < ELOG_LVL_TOTAL; ++level) elog_set_fmt(level, 0);
    elog_assert_set_hook(nullptr);
    time_cache = 0;
    time_zone = 0;
    local_cfg = ElogFileCfg{};
    last_rotate_day = 0;
    is_rotating = false;
}

StartedLog::StartedLog() {
    if (elog_init("./", "fpga") != 0) throw std::runtime_error("the log could not be set up");
    elog_set_output_enabled(true);
}
