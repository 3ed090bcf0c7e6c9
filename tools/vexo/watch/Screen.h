#pragma once

#include <cstddef>
#include <vector>

#include "tools/vexo/watch/Frame.h"

namespace vexo::watch {

/// Paints one view over the other on standard output, a terminal. It changes no mode of the terminal, so there is
/// nothing to restore, however the process ends: each painting ends without a colour, on the line below the view.
class Screen {
public:
    explicit Screen(bool colored) : m_colored(colored) {}

    struct Window {
        std::size_t columns;
        std::size_t rows;
    };
    static Window window();

    /// @param lines  fewer than the window has rows
    void paint(const std::vector<Line>& lines);
    /// Others have written to the terminal: the next view comes below.
    void leave() { m_shown = 0; }
    /// The window has another size, so nobody knows where the view is now: the next painting clears it.
    void resized() { m_clears = true; }

private:
    const bool m_colored;
    std::size_t m_shown = 0;  // lines above the cursor that are ours
    bool m_clears = false;
};

}  // namespace vexo::watch
