#include "src/util/SafeFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

#include "src/util/StandardStreams.h"

namespace safe_file {

namespace {

// A FIFO or a device must not block or act on the open that finds out what it is.
constexpr int kCautious = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr std::size_t kChunk = 65536;
constexpr std::size_t kMaxSize = 64U << 20;  // both tables full take half a megabyte

class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0) ::close(m_fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return m_fd; }
    int Release() {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }

private:
    int m_fd;
};

bool isTrusted(uid_t owner) { return owner == 0 || owner == ::geteuid(); }

// Why the open file is not to be used; empty when it is.
std::string distrust(int fd) {
    struct stat status;
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return "it is not a regular file, remove it";
    if (!isTrusted(status.st_uid)) return "another user owns it, remove it";
    if (status.st_nlink != 1) return "it has another name too, remove it";
    return {};
}

// A lock of the process, not of the descriptor: a later user of the library in the same process gets it again.
bool lockForWriting(int fd) {
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    return ::fcntl(fd, F_SETLK, &whole) == 0;
}

void removeForeignFile(const char* path) {
    struct stat status;
    if (::lstat(path, &status) == 0 && S_ISREG(status.st_mode) && !isTrusted(status.st_uid)) ::unlink(path);
}

}  // namespace

bool OutputFile::open(const std::string& path) {
    close();
    removeForeignFile(path.c_str());
    Descriptor file(standard_streams::moveAbove(::open(path.c_str(), O_WRONLY | O_CREAT | kCautious, 0644)));
    if (file.get() < 0 || !distrust(file.get()).empty()) return false;
    if (!lockForWriting(file.get()) || ::ftruncate(file.get(), 0) != 0) return false;
    m_fd = file.Release();
    return true;
}

bool OutputFile::write(const char* data, std::size_t size) {
    while (m_fd >= 0 && size > 0) {
        const ssize_t written = ::write(m_fd, data, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) {
            const int why = written < 0 ? errno : EIO;
            close();
            errno = why;
            return false;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

void OutputFile::close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
}

bool readWhole(const std::string& path, std::string& content, std::string& refusal) {
    const Descriptor file(standard_streams::moveAbove(::open(path.c_str(), O_RDONLY | kCautious)));
    if (file.get() < 0) {
        if (errno == ELOOP) refusal = "it is a symbolic link, remove it";
        return false;
    }
    refusal = distrust(file.get());
    content.clear();
    std::size_t used = 0;
    while (refusal.empty()) {
        content.resize(used + kChunk);
        const ssize_t got = ::read(file.get(), &content[used], kChunk);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        used += static_cast<std::size_t>(got);
        content.resize(used);
        if (got == 0) return true;
        if (used > kMaxSize) refusal = "it is far too large, remove it";
    }
    return false;
}

}  // namespace safe_file
