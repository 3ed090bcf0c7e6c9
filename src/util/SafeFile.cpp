#include "util/SafeFile.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace safe_file {

namespace {

// A FIFO or a device must not block or act on the open that finds out what it is.
constexpr int kCautious      = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr std::size_t kChunk = 65536;

class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0) ::close(m_fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int Get() const { return m_fd; }
    int Release() {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }

private:
    int m_fd;
};

std::string OpenError() {
    switch (errno) {
        case ENOENT: return kMissing;
        case ELOOP: return "it is a symbolic link, remove it";
        case ENXIO: return "it is not a regular file, remove it";  // a FIFO that nobody reads
        default: return std::strerror(errno);
    }
}

// Why the open file is not to be used; empty when it is.
std::string Distrust(int fd, bool ownerMatters) {
    struct stat status;
    if (::fstat(fd, &status) != 0) return std::strerror(errno);
    if (!S_ISREG(status.st_mode)) return "it is not a regular file, remove it";
    if (ownerMatters && status.st_uid != 0 && status.st_uid != ::geteuid()) return "another user owns it, remove it";
    return {};
}

}  // namespace

std::string OutputFile::Open(const std::string& path) {
    Close();
    Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | kCautious, 0666));
    if (file.Get() < 0) return OpenError();
    const std::string why = Distrust(file.Get(), false);
    if (!why.empty()) return why;
    if (::ftruncate(file.Get(), 0) != 0) return std::strerror(errno);
    m_fd = file.Release();
    return {};
}

bool OutputFile::Write(const char* data, std::size_t size) {
    while (m_fd >= 0 && size > 0) {
        const ssize_t written = ::write(m_fd, data, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) {
            const int why = written < 0 ? errno : EIO;
            Close();
            errno = why;
            return false;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

void OutputFile::Close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
}

std::string ReadWhole(const std::string& path, std::string& content) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | kCautious));
    if (file.Get() < 0) return OpenError();
    std::string why = Distrust(file.Get(), true);
    if (!why.empty()) return why;

    content.clear();
    std::size_t used = 0;
    for (;;) {
        content.resize(used + kChunk);
        const ssize_t got = ::read(file.Get(), &content[used], kChunk);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) why = std::strerror(errno);
        if (got <= 0) break;
        used += static_cast<std::size_t>(got);
    }
    content.resize(used);
    return why;
}

}  // namespace safe_file
