#pragma once

#include <fcntl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

/// A terminal with a program on it, and what one sees there.
namespace terminal_test {

/// What the window shows. It knows the commands that the view uses; any other is counted as strange.
class Screen {
public:
    Screen(std::size_t columns, std::size_t rows) : m_columns(columns), m_rows(rows) {}

    void write(const std::string& bytes) {
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            m_pending += bytes[i];
            if (takePending()) m_pending.clear();
        }
    }
    /// The size that the window has from now on. The text stays where it is.
    void resize(std::size_t columns, std::size_t rows) {
        m_columns = columns;
        m_rows = rows;
    }

    std::string text() const {
        std::string all;
        for (const std::string& line : m_lines) all += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
        return all;
    }
    std::size_t longestLine() const { return m_longest; }
    std::size_t column() const { return m_column; }
    std::size_t colors() const { return m_colors; }
    bool isColored() const { return m_isColored; }  ///< now
    const std::string& strange() const { return m_strange; }
    /// How many lines the cursor was moved up, at most; a view that is higher than the window cannot be repainted.
    std::size_t highestMove() const { return m_highestMove; }

private:
    // @return whether the sequence is complete
    bool takePending() {
        if (m_pending[0] != '\033') {
            put(m_pending[0]);
            return true;
        }
        if (m_pending.size() < 3) return false;
        const char last = m_pending.back();
        if (last < '@' || last > '~') return m_pending.size() > 16;
        command(last, std::atoi(m_pending.c_str() + 2));
        return true;
    }
    void command(char name, int number) {
        switch (name) {
            case 'A':
                m_highestMove = std::max(m_highestMove, static_cast<std::size_t>(number));
                m_row -= std::min<std::size_t>(m_row, static_cast<std::size_t>(number));
                break;
            case 'H': m_row = m_column = 0; break;
            case 'J': erase(number == 2 ? 0 : m_row, number == 2 ? 0 : m_column); break;
            case 'K': line().resize(std::min(line().size(), m_column)); break;
            case 'm':
                ++m_colors;
                m_isColored = number != 0;
                break;
            default: m_strange += m_pending + "\n";
        }
    }
    void erase(std::size_t row, std::size_t column) {
        if (row < m_lines.size()) m_lines[row].resize(std::min(m_lines[row].size(), column));
        if (row + 1 < m_lines.size()) m_lines.resize(row + 1);
    }
    void put(char c) {
        if (c == '\r') {
            m_column = 0;
        } else if (c == '\n') {
            ++m_row;
        } else if (static_cast<unsigned char>(c) < ' ' || c == '\x7F') {
            m_strange += c;
        } else {
            if (line().size() <= m_column) line().resize(m_column + 1, ' ');
            line()[m_column++] = c;
            m_longest = std::max(m_longest, m_column);
        }
    }
    std::string& line() {
        if (m_lines.size() <= m_row) m_lines.resize(m_row + 1);
        return m_lines[m_row];
    }

    std::size_t m_columns;
    std::size_t m_rows;
    std::vector<std::string> m_lines;
    std::size_t m_row = 0;
    std::size_t m_column = 0;
    std::size_t m_longest = 0;
    std::size_t m_colors = 0;
    std::size_t m_highestMove = 0;
    bool m_isColored = false;
    std::string m_pending;
    std::string m_strange;
};

inline winsize sizeOf(std::size_t columns, std::size_t rows) {
    winsize size{};
    size.ws_col = static_cast<unsigned short>(columns);
    size.ws_row = static_cast<unsigned short>(rows);
    return size;
}

/// A terminal of that size, and a shell command on it as if somebody had typed it. isThere() is false where the system
/// gives none.
class Terminal {
public:
    Terminal(const std::string& command, std::size_t columns, std::size_t rows) : screen(columns, rows) {
        winsize size = sizeOf(columns, rows);
        int theirs = -1;
        if (::openpty(&m_ours, &theirs, nullptr, nullptr, &size) != 0) return;
        ::fcntl(m_ours, F_SETFD, FD_CLOEXEC);
        ::tcgetattr(theirs, &m_before);
        m_pid = ::fork();
        if (m_pid == 0) become(command, theirs);
        m_theirs = theirs;
    }
    ~Terminal() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
        hangUp();
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    bool isThere() const { return m_ours >= 0; }
    /// Waits until the window shows the text so many times. False when the program has ended instead.
    bool shows(const std::string& text, std::size_t times = 1) {
        for (;;) {
            const bool isOver = hasEnded();
            take();
            if (timesShown(text) >= times) return true;
            if (isOver) return false;
            ::usleep(10000);
        }
    }
    /// Waits until a view took the place of the one before. False when the program has ended instead.
    bool showsAnotherView() {
        while (screen.highestMove() == 0) {
            const bool isOver = hasEnded();
            take();
            if (isOver) return screen.highestMove() > 0;
            ::usleep(10000);
        }
        return true;
    }
    std::size_t timesShown(const std::string& text) const {
        const std::string all = screen.text();
        std::size_t times = 0;
        for (std::size_t at = 0; (at = all.find(text, at)) != std::string::npos; ++at) ++times;
        return times;
    }
    /// Takes all that has been written up to the end. @return the exit status, or 128 + signal
    int wait() {
        while (!hasEnded()) {
            take();
            ::usleep(10000);
        }
        take();
        return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : 128 + WTERMSIG(m_status);
    }
    void signal(int number) const { ::kill(m_pid, number); }
    void type(const std::string& keys) const {
        [[maybe_unused]] const ssize_t n = ::write(m_ours, keys.data(), keys.size());
    }
    void resize(std::size_t columns, std::size_t rows) {
        take();
        winsize size = sizeOf(columns, rows);
        ::ioctl(m_ours, TIOCSWINSZ, &size);
        screen.resize(columns, rows);
    }
    /// As a lost connection does.
    void hangUp() {
        for (int* fd : {&m_ours, &m_theirs}) {
            if (*fd >= 0) ::close(*fd);
            *fd = -1;
        }
    }
    /// Whether the terminal works as before: echo, line by line, signals.
    bool hasItsModes() const {
        termios now{};
        return ::tcgetattr(m_theirs, &now) == 0 && now.c_lflag == m_before.c_lflag && now.c_iflag == m_before.c_iflag &&
               now.c_oflag == m_before.c_oflag;
    }

    Screen screen;

private:
    [[noreturn]] static void become(const std::string& command, int terminal) {
        ::login_tty(terminal);
        ::execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
        ::_exit(127);
    }
    bool hasEnded() {
        if (m_pid > 0 && ::waitpid(m_pid, &m_status, WNOHANG) == m_pid) m_pid = 0;
        return m_pid <= 0;
    }
    void take() {
        char part[4096];
        ::fcntl(m_ours, F_SETFL, O_NONBLOCK);
        for (ssize_t n; (n = ::read(m_ours, part, sizeof part)) > 0;) screen.write({part, static_cast<std::size_t>(n)});
    }

    int m_ours = -1;
    int m_theirs = -1;
    termios m_before{};
    pid_t m_pid = 0;
    int m_status = 0;
};

}  // namespace terminal_test
