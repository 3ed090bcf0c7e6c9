#include "tools/vexo/export/Progress.h"

#include <algorithm>
#include <cstdio>

namespace vexo::exporting {

std::string progressText(std::uint64_t rows, std::uint64_t bytes, std::uint64_t allBytes, double seconds,
                         const std::string& name) {
    const double rate = seconds > 0 ? static_cast<double>(rows) / seconds : 0;
    char text[128];
    if (allBytes == 0 || bytes == 0 || seconds <= 0) {
        std::snprintf(text, sizeof text, "%llu %s, %.0f %s/s", static_cast<unsigned long long>(rows), name.c_str(),
                      rate, name.c_str());
        return text;
    }
    const double share = std::min(1.0, static_cast<double>(bytes) / static_cast<double>(allBytes));
    std::snprintf(text, sizeof text, "%.0f %%, %.0f %s/s, %.0f s left", share * 100, rate, name.c_str(),
                  seconds / share - seconds);
    return text;
}

void Progress::show(std::uint64_t rows, std::uint64_t bytes) {
    const double seconds = std::chrono::duration<double>(Clock::now() - m_start).count();
    m_line.show(progressText(rows, bytes, m_allBytes, seconds, m_rows));
}

}  // namespace vexo::exporting
