#include "tools/vexo/watch/Screen.h"

#include <sys/ioctl.h>
#include <unistd.h>
#include <cstdio>
#include <string>

#include "tools/vexo/show/Terminal.h"

namespace vexo::watch {
namespace {

constexpr Screen::Window kUsual = {80, 24};
constexpr char kEraseLine[] = "\033[K";
constexpr char kEraseBelow[] = "\033[J";
constexpr char kClear[] = "\033[H\033[2J";

}  // namespace

Screen::Window Screen::window() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return kUsual;
    return {size.ws_col != 0 ? size.ws_col : kUsual.columns, size.ws_row != 0 ? size.ws_row : kUsual.rows};
}

void Screen::paint(const std::vector<Line>& lines) {
    std::string all;
    if (m_clears) {
        all = kClear;
    } else if (m_shown != 0) {
        all = "\r\033[" + std::to_string(m_shown) + "A";
    }
    // Erased before it is written: behind a full line the cursor may still be on it.
    for (const Line& line : lines) all += kEraseLine + line.shown(m_colored) + "\n";
    all += kEraseBelow;
    m_shown = lines.size();
    m_clears = false;
    std::fwrite(all.data(), 1, all.size(), stdout);
    terminal::statusOfOutput(0);
}

}  // namespace vexo::watch
