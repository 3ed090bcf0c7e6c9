#include "src/config/IniSource.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "src/util/SafeFile.h"

namespace {

constexpr std::size_t kLargestStream = 64U << 20;  // bytes; a regular file has an end, whatever its size

}  // namespace

IniSource::~IniSource() {
    if (m_fd >= 0) ::close(m_fd);
}

IniSource::Kind IniSource::kindOf(int fd) {
    struct stat status;
    if (::fstat(fd, &status) != 0 || S_ISREG(status.st_mode)) return Kind::kRegular;
    if (S_ISDIR(status.st_mode)) return Kind::kDirectory;
    if (S_ISFIFO(status.st_mode)) {
        // A pipe, such as /dev/fd/N or /dev/stdin, had its writer before. A FIFO may still wait for its first one.
        struct statfs system;
        return ::fstatfs(fd, &system) == 0 && system.f_type == PIPEFS_MAGIC ? Kind::kPipe : Kind::kFifo;
    }
    return ::isatty(fd) != 0 ? Kind::kTerminal : Kind::kDevice;
}

bool IniSource::open(const char* path) {
    // O_NONBLOCK finds out whether a FIFO has a writer. Without it the open would wait for one.
    m_fd = safe_file::openAboveStandard(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (m_fd < 0) return false;
    m_kind = kindOf(m_fd);
    if (m_kind == Kind::kDirectory) {
        m_atEnd = true;  // iniparser takes a directory for an empty file
        return true;
    }
    const ssize_t got = readBlock();
    const bool mustWait = got < 0 && errno == EAGAIN && m_kind != Kind::kDevice;
    if (got == 0 && m_kind == Kind::kFifo) {
        m_failure = "nobody writes to this FIFO";
    } else if (!mustWait) {
        take(got);
    }
    if (m_kind != Kind::kDevice) ::fcntl(m_fd, F_SETFL, 0);
    return true;
}

ssize_t IniSource::readBlock() {
    ssize_t got = 0;
    do {
        got = ::read(m_fd, m_block, sizeof m_block);
    } while (got < 0 && errno == EINTR);
    return got;
}

// What a read returned. False at the end of the text and after a failure.
bool IniSource::take(ssize_t got) {
    m_next = 0;
    m_size = got > 0 ? static_cast<std::size_t>(got) : 0;
    m_total += m_size;
    m_atEnd = got == 0;
    if (got < 0) m_failure = errno == EAGAIN ? "this device has nothing to read" : std::strerror(errno);
    if (m_kind != Kind::kRegular && m_total > kLargestStream) m_failure = "it does not end";
    return m_size > 0 && m_failure == nullptr;
}

bool IniSource::fill() {
    if (m_next < m_size) return true;
    return !m_atEnd && m_failure == nullptr && take(readBlock());
}

bool IniSource::readLine(char* line, std::size_t room) {
    std::size_t length = 0;
    bool ended = false;
    while (!ended && length + 1 < room) {
        if (!fill()) {
            if (length == 0) return false;
            break;
        }
        const char* const text = m_block + m_next;
        std::size_t count = std::min(m_size - m_next, room - 1 - length);
        if (const void* feed = std::memchr(text, '\n', count)) {
            count = static_cast<std::size_t>(static_cast<const char*>(feed) - text) + 1;
            ended = true;
        }
        std::memcpy(line + length, text, count);
        length += count;
        m_next += count;
    }
    line[length] = '\0';
    return m_failure == nullptr;
}
