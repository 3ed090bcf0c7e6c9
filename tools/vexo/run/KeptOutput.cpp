#include "tools/vexo/run/KeptOutput.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tools/vexo/Failure.h"

namespace vexo::run {
namespace {

constexpr mode_t kMode = 0640;  // it may name addresses and accounts

Failure failure(const std::string& file) { return {kFinding, file + ": " + std::strerror(errno)}; }

}  // namespace

std::string KeptOutput::older(unsigned starts) const {
    return starts == 0 ? m_name : m_name + "." + std::to_string(starts);
}

// Tried with a file of its own: the output may still be open in what the application left behind.
std::string KeptOutput::fault() const {
    std::string trial = m_name + ".XXXXXX";
    const int fd = ::mkostemp(trial.data(), O_CLOEXEC);
    if (fd < 0) return std::strerror(errno);
    ::unlink(trial.c_str());
    const std::vector<char> block(4096);
    const ssize_t written = ::write(fd, block.data(), block.size());
    const std::string why = written < 0 ? std::strerror(errno) : "";
    ::close(fd);
    return why;
}

int KeptOutput::openNext() const {
    // Also those that an earlier run with a larger count left.
    unsigned files = 0;
    while (::access(older(files).c_str(), F_OK) == 0) ++files;
    for (; files >= m_count; --files)
        if (::unlink(older(files - 1).c_str()) != 0) throw failure(older(files - 1));
    for (; files > 0; --files)
        if (std::rename(older(files - 1).c_str(), older(files).c_str()) != 0) throw failure(older(files - 1));
    // Whatever has the name now, a link for example, is not written.
    int fd = ::open(m_name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, kMode);
    if (fd < 0) throw failure(m_name);
    if (fd > STDERR_FILENO) return fd;
    const int other = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ::close(fd);
    if (other < 0) throw failure(m_name);
    return other;
}

}  // namespace vexo::run
