#pragma once

#include <chrono>
#include <string>

namespace cli {

/// Whether a descriptor is a terminal that takes commands to move and colour: TERM says "dumb" of the others.
bool isTerminal(int descriptor);

/// One line on standard error that says how far a long piece of work is. It appears after two seconds, and only on a
/// terminal. It is gone before anything else is written.
class Progress {
public:
    Progress();
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Shows the text with the seconds since the beginning, at most once a second.
    void show(const std::string& text);
    /// Shows the text at once: for work that cannot tell how far it is.
    void announce(const std::string& text);
    /// Takes the line away.
    void clear();

private:
    using Clock = std::chrono::steady_clock;

    const bool m_wanted;
    const Clock::time_point m_begin = Clock::now();
    Clock::time_point m_next;
    bool m_shown = false;
};

}  // namespace cli
