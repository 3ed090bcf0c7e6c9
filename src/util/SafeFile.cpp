#include "src/util/SafeFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <utility>

#include "src/util/StandardStreams.h"

namespace safe_file {

namespace {

// The first open only finds out what the file is. It must not block on a FIFO or make a device act.
constexpr int kCautious = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr std::size_t kChunk = 65536;
constexpr std::size_t kMaxSize = 64U << 20;  // both tables full take half a megabyte
constexpr int kAttempts = 10;                // where another process may interfere between two calls

constexpr char kSymbolicLink[] = "it is a symbolic link, remove it";
constexpr char kNotRegular[] = "it is not a regular file, remove it";

class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0) ::close(m_fd);
    }
    Descriptor(Descriptor&& other) noexcept : m_fd(other.release()) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return m_fd; }
    int release() { return std::exchange(m_fd, -1); }

private:
    int m_fd;
};

// Why the open file is not a regular file with one name; empty when it is.
std::string oddity(const struct stat& status) {
    if (!S_ISREG(status.st_mode)) return kNotRegular;
    if (status.st_nlink != 1) return "it has another name too, remove it";
    return {};
}

// Why the open file must not be written.
std::string objectionToWriting(int fd) {
    struct stat status;
    return ::fstat(fd, &status) == 0 ? oddity(status) : kNotRegular;
}

// Why the content of the open file must not be trusted.
std::string distrust(int fd) {
    struct stat status;
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return kNotRegular;
    if (status.st_uid != 0 && status.st_uid != ::geteuid()) return "another user owns it, remove it";
    return oddity(status);
}

enum class Lock { kHeld, kNotHeld, kOtherWriter };

// The lock belongs to the process, not to the descriptor: a later user of the library in the same process gets it
// again. Whoever may read the file can take a read lock, which prevents a write lock. The writer then continues without
// its lock.
Lock lockForWriting(int fd, pid_t& writer) {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        struct flock whole {};
        whole.l_type = F_WRLCK;
        whole.l_whence = SEEK_SET;
        if (::fcntl(fd, F_SETLK, &whole) == 0) return Lock::kHeld;
        if (::fcntl(fd, F_GETLK, &whole) != 0 || whole.l_type == F_RDLCK) return Lock::kNotHeld;
        writer = whole.l_pid;
        if (whole.l_type == F_WRLCK) return Lock::kOtherWriter;
    }
    return Lock::kNotHeld;
}

std::string writtenBy(pid_t writer) {
    // The kernel gives no id for a process outside this one's namespace.
    return (writer > 0 ? "process " + std::to_string(writer) : std::string("another process")) + " is writing it";
}

// Why this process does not open the file; empty when the system does not let it.
std::string openRefusal() {
    if (errno == ELOOP) return kSymbolicLink;
    return errno == ENXIO ? kNotRegular : "";
}

// The first open has no O_CREAT: where fs.protected_regular is set, O_CREAT stops root from opening another user's file
// in /tmp.
int openToWrite(const char* path) {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const int fd = openAboveStandard(path, O_WRONLY | kCautious);
        if (fd >= 0 || errno != ENOENT) return fd;
        const int created = openAboveStandard(path, O_WRONLY | O_CREAT | O_EXCL | kCautious, 0644);
        if (created >= 0 || errno != EEXIST) return created;
    }
    return -1;
}

}  // namespace

Placeholders::Placeholders() {
    for (int& fd : m_fds) {
        const int next = static_cast<int>(&fd - m_fds);
        fd = ::fcntl(next, F_GETFD) < 0 ? ::open("/", O_PATH | O_CLOEXEC) : -1;
    }
}

Placeholders::~Placeholders() {
    for (const int fd : m_fds) {
        if (fd >= 0) ::close(fd);
    }
}

int openAboveStandard(const char* path, int flags, mode_t mode) {
    // Reading needs no placeholders, because nobody can write to the descriptor. Placeholders would also turn a closed
    // /dev/stdin into "/".
    if ((flags & O_ACCMODE) == O_RDONLY) return standard_streams::moveAbove(::open(path, flags, mode));
    int fd = -1;
    int why = 0;
    {
        const Placeholders placeholders;
        fd = standard_streams::moveAbove(::open(path, flags, mode));
        why = errno;
    }
    if (fd < 0) errno = why;
    return fd;
}

bool OutputFile::open(const std::string& path, std::string& refusal) {
    close();
    Descriptor file(openToWrite(path.c_str()));
    refusal = file.get() < 0 ? openRefusal() : objectionToWriting(file.get());
    if (file.get() < 0 || !refusal.empty()) return false;
    pid_t writer = 0;
    const Lock lock = lockForWriting(file.get(), writer);
    if (lock == Lock::kOtherWriter) {
        refusal = writtenBy(writer);
        return false;
    }
    if (::ftruncate(file.get(), 0) != 0) return false;
    m_locked = lock == Lock::kHeld;
    m_fd = file.release();
    m_size = 0;
    return true;
}

// Without the lock, a second process may empty the file too. Then the size is no longer what this process wrote.
bool OutputFile::isOnlyWriter() {
    if (m_locked) return true;
    pid_t writer = 0;
    m_locked = lockForWriting(m_fd, writer) == Lock::kHeld;
    struct stat status;
    return ::fstat(m_fd, &status) == 0 && status.st_size == static_cast<off_t>(m_size);
}

const char* OutputFile::write(const char* data, std::size_t size) {
    if (!isOnlyWriter()) return "another process writes it too";
    while (size > 0) {
        const ssize_t written = ::write(m_fd, data, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return std::strerror(written < 0 ? errno : EIO);
        data += written;
        size -= static_cast<std::size_t>(written);
        m_size += static_cast<std::size_t>(written);
    }
    return nullptr;
}

bool OutputFile::cut(std::size_t size) {
    const auto end = static_cast<off_t>(size);
    if (!isOnlyWriter()) return false;  // another process writes the file now
    if (::ftruncate(m_fd, end) != 0 || ::lseek(m_fd, end, SEEK_SET) != end) return false;
    m_size = size;
    return true;
}

void OutputFile::close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
}

bool readWhole(const std::string& path, std::string& content, std::string& refusal) {
    const Descriptor file(openAboveStandard(path.c_str(), O_RDONLY | kCautious));
    if (file.get() < 0) {
        if (errno == ELOOP) refusal = kSymbolicLink;
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
