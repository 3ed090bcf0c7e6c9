#pragma once

#include <unistd.h>
#include <chrono>
#include <cstdint>
#include <string>
#include <utility>

#include "tools/cli/Progress.h"

namespace vexo::exporting {

/// How far an export, or another reader of captures, is: share, rows a second, time left. On a terminal only.
class Progress {
public:
    /// @param rows  what is counted
    explicit Progress(std::uint64_t allBytes, std::string rows = "rows")
        : m_allBytes(allBytes), m_rows(std::move(rows)) {}

    /// Cheap: looks at the clock every some thousand calls only.
    void update(std::uint64_t rows, std::uint64_t bytes) {
        if (m_isShown && (++m_calls & 4095) == 0) show(rows, bytes);
    }
    /// Looks at the clock.
    void show(std::uint64_t rows, std::uint64_t bytes);
    /// Removes the line, so that something else can be printed.
    void clear() { m_line.clear(); }

private:
    using Clock = std::chrono::steady_clock;

    cli::Progress m_line;
    const bool m_isShown = cli::isTerminal(STDERR_FILENO);
    std::uint64_t m_allBytes;
    std::string m_rows;
    std::uint64_t m_calls = 0;
    Clock::time_point m_start = Clock::now();
};

/// "45 %, 612000 rows/s, 12 s left". The share and the rest only if the size is known. For tests, too.
std::string progressText(std::uint64_t rows, std::uint64_t bytes, std::uint64_t allBytes, double seconds,
                         const std::string& name = "rows");

}  // namespace vexo::exporting
