#pragma once

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>
#include <cstdlib>
#include <ctime>
#include <string>

/// What the benchmarks change about their host. Replaces functions of the C library: one source of a program includes
/// it.

/// The day files lie in /tmp for every process of the host: each program has a day of its own, some centuries ahead. As
/// cheap as the C library's own, and the clocks that measure are not touched.
extern "C" std::time_t time(std::time_t* out) noexcept {
    constexpr std::time_t kDay = 86400;
    static const std::time_t ahead = (std::time_t{300} * 365 + ::getpid() % 30000) * kDay;
    std::timespec now{};
    ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    const std::time_t result = now.tv_sec + ahead;
    if (out != nullptr) *out = result;
    return result;
}

/// A second of the card's reset is no work of ours.
extern "C" unsigned int sleep(unsigned int) { return 0; }

namespace bench {

/// Path of the day file that a start at this moment uses.
inline std::string DayFilePath() {
    const std::time_t now = ::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char path[64];
    std::strftime(path, sizeof path, "/tmp/.zce_%Y%m%d", &local);
    return std::string(path) + (local.tm_hour < 17 ? "_am" : "_pm");
}

/// Standard output goes into an empty file of the working directory while it lives: the lines of one run are not in the
/// way of the next, and the reporter's own output is not lost.
class StdoutToFile {
public:
    StdoutToFile() : m_saved(::dup(STDOUT_FILENO)) {
        const int fd = ::open("stdout.txt", O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0644);
        if (fd < 0 || m_saved < 0 || ::dup2(fd, STDOUT_FILENO) < 0) std::abort();
        ::close(fd);
    }
    ~StdoutToFile() {
        ::dup2(m_saved, STDOUT_FILENO);
        ::close(m_saved);
    }
    StdoutToFile(const StdoutToFile&) = delete;
    StdoutToFile& operator=(const StdoutToFile&) = delete;

private:
    int m_saved;
};

/// What an earlier run has freed is tidied up now, not inside the next measurement, and the memory stays with the
/// process: every run finds the heap alike.
inline void SettleHeap() {
    constexpr int kNever = 1 << 30;
    ::mallopt(M_TRIM_THRESHOLD, kNever);
    ::mallopt(M_MMAP_THRESHOLD, kNever);
    void* volatile large = std::malloc(std::size_t{1} << 20);  // a large request makes the heap join its free pieces
    std::free(large);
}

}  // namespace bench
