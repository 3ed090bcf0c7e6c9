#include "tools/cli/Progress.h"

#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace cli {

namespace {

constexpr std::chrono::seconds kPatience(2);
constexpr std::chrono::seconds kBetween(1);

}  // namespace

bool isTerminal(int descriptor) {
    const char* const kind = std::getenv("TERM");
    return ::isatty(descriptor) == 1 && kind != nullptr && std::strcmp(kind, "dumb") != 0;
}

Progress::Progress() : m_wanted(isTerminal(STDERR_FILENO)), m_next(m_begin + kPatience) {}

Progress::~Progress() { clear(); }

void Progress::show(const std::string& text) {
    const Clock::time_point now = Clock::now();
    if (!m_wanted || now < m_next) return;
    m_next = now + kBetween;
    m_shown = true;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - m_begin).count();
    std::fprintf(stderr, "\r\033[K%s, %lld s", text.c_str(), static_cast<long long>(seconds));
    std::fflush(stderr);
}

void Progress::announce(const std::string& text) {
    if (!m_wanted) return;
    m_shown = true;
    std::fprintf(stderr, "\r\033[K%s", text.c_str());
    std::fflush(stderr);
}

void Progress::clear() {
    if (!m_shown) return;
    m_shown = false;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
}

}  // namespace cli
