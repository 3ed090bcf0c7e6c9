#include "tests/unit/log/LogFixture.h"

#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "src/log/LocalSecond.h"
#include "src/log/StandardWrite.h"

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

void WaitUntilAsleep(pid_t tid) {
    const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
    for (;;) {
        std::ifstream file(path);
        std::string stat;
        std::getline(file, stat);
        const std::size_t name = stat.rfind(") ");
        if (name == std::string::npos) throw std::runtime_error("no such thread");
        if (stat[name + 2] == 'S') return;
        ::sched_yield();
    }
}

Redirected::Redirected(int fd, int target) : m_fd(fd), m_saved(::fcntl(fd, F_DUPFD_CLOEXEC, 3)) {
    std::fflush(nullptr);
    ::dup2(target, fd);
}

Redirected::~Redirected() {
    std::fflush(nullptr);
    ::dup2(m_saved, m_fd);
    ::close(m_saved);
}

StalledPipe::StalledPipe() {
    if (::pipe2(m_ends, O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("no pipe");
    const std::vector<char> block(4096, '.');
    while (::write(m_ends[1], block.data(), block.size()) > 0) {
    }
    ::fcntl(m_ends[1], F_SETFL, 0);
    std::fflush(stdout);
    m_savedStdout = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    ::dup2(m_ends[1], STDOUT_FILENO);
}

StalledPipe::~StalledPipe() {
    ::dup2(m_savedStdout, STDOUT_FILENO);
    for (const int fd : {m_savedStdout, m_ends[0], m_ends[1]}) ::close(fd);
}

std::string StalledPipe::Drain() {
    std::string all;
    char block[4096];
    for (ssize_t got = 0; (got = ::read(m_ends[0], block, sizeof block)) > 0;)
        all.append(block, static_cast<std::size_t>(got));
    all.erase(std::remove(all.begin(), all.end(), '.'), all.end());
    return all;
}

int StalledPipe::Flags() const { return ::fcntl(m_ends[1], F_GETFL); }

Zone::Zone(const char* name) {
    if (const char* old = ::getenv("TZ")) m_old = old;
    ::setenv("TZ", name, 1);
    ::tzset();
}

Zone::~Zone() {
    if (m_old) {
        ::setenv("TZ", m_old->c_str(), 1);
    } else {
        ::unsetenv("TZ");
    }
    ::tzset();
}

LogCore::LogCore() { Forget(); }

LogCore::~LogCore() { Forget(); }

void LogCore::Forget() {
    standard_write::forgetStop();
    g_lineSecond.forget();
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
