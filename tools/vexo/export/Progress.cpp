#include "tools/vexo/export/Progress.h"

#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vexo::exporting {
namespace {

constexpr std::chrono::milliseconds kBetweenLines(250);

bool isTerminal() {
    const char* kind = std::getenv("TERM");
    return ::isatty(STDERR_FILENO) == 1 && kind != nullptr && std::strcmp(kind, "dumb") != 0;
}

}  // namespace

std::string progressText(std::uint64_t rows, std::uint64_t bytes, std::uint64_t allBytes, double seconds) {
    const double rate = seconds > 0 ? static_cast<double>(rows) / seconds : 0;
    char text[128];
    if (allBytes == 0 || bytes == 0 || seconds <= 0) {
        std::snprintf(text, sizeof text, "%llu rows, %.0f rows/s", static_cast<unsigned long long>(rows), rate);
        return text;
    }
    const double share = std::min(1.0, static_cast<double>(bytes) / static_cast<double>(allBytes));
    std::snprintf(text, sizeof text, "%.0f %%, %.0f rows/s, %.0f s left", share * 100, rate, seconds / share - seconds);
    return text;
}

Progress::Progress(std::uint64_t allBytes)
    : m_isShown(isTerminal()), m_allBytes(allBytes), m_start(Clock::now()), m_last(m_start) {}

void Progress::show(std::uint64_t rows, std::uint64_t bytes) {
    const Clock::time_point now = Clock::now();
    if (now - m_last < kBetweenLines) return;
    m_last = now;
    m_hasLine = true;
    const double seconds = std::chrono::duration<double>(now - m_start).count();
    std::fprintf(stderr, "\r\033[K%s", progressText(rows, bytes, m_allBytes, seconds).c_str());
}

void Progress::clear() {
    if (m_hasLine) std::fputs("\r\033[K", stderr);
    m_hasLine = false;
}

}  // namespace vexo::exporting
