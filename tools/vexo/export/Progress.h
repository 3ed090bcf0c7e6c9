#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace vexo::exporting {

/// A line on standard error that tells how far a long job is: share, rows a second, time left. Only on a terminal.
class Progress {
public:
    explicit Progress(std::uint64_t allBytes);
    ~Progress() { clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Cheap: looks at the clock every some thousand calls only.
    void update(std::uint64_t rows, std::uint64_t bytes) {
        if (m_isShown && (++m_calls & 4095) == 0) show(rows, bytes);
    }
    /// Removes the line, so that something else can be printed.
    void clear();

private:
    void show(std::uint64_t rows, std::uint64_t bytes);

    using Clock = std::chrono::steady_clock;
    bool m_isShown;
    bool m_hasLine = false;
    std::uint64_t m_allBytes;
    std::uint64_t m_calls = 0;
    Clock::time_point m_start;
    Clock::time_point m_last;
};

/// "45 %, 612000 rows/s, 12 s left". The share and the rest only if the size is known. For tests, too.
std::string progressText(std::uint64_t rows, std::uint64_t bytes, std::uint64_t allBytes, double seconds);

}  // namespace vexo::exporting
