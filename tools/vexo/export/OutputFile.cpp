#include "tools/vexo/export/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>

#include "capture/StandardStreams.h"
#include "tools/cli/Output.h"
#include "tools/vexo/Failure.h"
#include "tools/vexo/show/Harmless.h"

namespace vexo::exporting {
namespace {

constexpr char kPackedEnding[] = ".zst";
constexpr char kPartEnding[] = ".part";
constexpr mode_t kMode = 0666;  // less the umask

std::string openName(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

}  // namespace

bool OutputFile::isCompressedName(const std::string& path) {
    const std::size_t length = sizeof kPackedEnding - 1;
    return path.size() > length && path.compare(path.size() - length, length, kPackedEnding) == 0;
}

OutputFile::OutputFile(const std::string& path, std::string option) : m_path(path), m_option(std::move(option)) {
    if (path == "-") {
        m_fd = STDOUT_FILENO;
        return;
    }
    struct stat state {};
    if (::lstat(path.c_str(), &state) == 0) {
        throw Failure(kUsage,
                      m_option + " " + harmless(path) + ": it exists, and vexo never overwrites; give another name");
    }
    open();
    if (!isCompressedName(path)) return;
    m_packer.reset(ZSTD_createCCtx());
    if (m_packer == nullptr) throw Failure(kFinding, "memory is short");
    ZSTD_CCtx_setParameter(m_packer.get(), ZSTD_c_checksumFlag, 1);
    m_packed.resize(ZSTD_CStreamOutSize());
}

// A file without a name needs /proc to get one, too.
void OutputFile::open() {
    const capture::StandardNumbersTaken taken;
    std::filesystem::path folder = std::filesystem::path(m_path).parent_path();
    if (folder.empty()) folder = ".";
    m_fd = ::open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, kMode);
    if (m_fd >= 0 && ::access(openName(m_fd).c_str(), F_OK) == 0) return;
    if (m_fd >= 0) ::close(m_fd);
    m_part = m_path + kPartEnding;
    m_fd = ::open(m_part.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, kMode);
    if (m_fd >= 0) return;
    const int error = errno;
    const std::string part = std::exchange(m_part, {});
    if (error != EEXIST) throw Failure(kUsage, m_option + " " + harmless(m_path) + ": " + std::strerror(error));
    throw Failure(kUsage, m_option + " " + harmless(m_path) + ": " + harmless(part) +
                              " is of an export that runs, or was killed; remove it, or give another name");
}

OutputFile::~OutputFile() {
    if (m_path == "-" || m_isFinished) return;
    if (m_fd >= 0) ::close(m_fd);
    if (!m_part.empty()) ::unlink(m_part.c_str());
}

void OutputFile::fail(const char* what) const {
    const int error = errno;
    if (m_path == "-") throw Failure(kFinding, cli::faultOfOutput(error));
    throw Failure(kFinding, harmless(m_path) + ": " + what + ": " + std::strerror(error));
}

void OutputFile::writeAll(const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t count = ::write(m_fd, data, size);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) fail("cannot be written");
        data += count;
        size -= static_cast<std::size_t>(count);
    }
}

void OutputFile::pack(const void* data, std::size_t size, bool isEnd) {
    ZSTD_inBuffer in = {data, size, 0};
    std::size_t left = 0;
    do {
        ZSTD_outBuffer out = {m_packed.data(), m_packed.size(), 0};
        left = ZSTD_compressStream2(m_packer.get(), &out, &in, isEnd ? ZSTD_e_end : ZSTD_e_continue);
        if (ZSTD_isError(left) != 0)
            throw Failure(kFinding, std::string("compressing failed: ") + ZSTD_getErrorName(left));
        writeAll(m_packed.data(), out.pos);
    } while (isEnd ? left != 0 : in.pos < in.size);
}

void OutputFile::write(const void* data, std::size_t size) {
    m_written += size;
    if (m_packer != nullptr) return pack(data, size, false);
    writeAll(static_cast<const char*>(data), size);
}

void OutputFile::rewriteHead(const void* data, std::size_t size) {
    if (::lseek(m_fd, 0, SEEK_SET) != 0) fail("cannot be written again");
    writeAll(static_cast<const char*>(data), size);
}

// A network file system may report a failed write here.
bool OutputFile::closeFile() { return ::close(std::exchange(m_fd, -1)) == 0 || errno == EINTR; }

// Only close() tells of a write that a network file system could not do. The descriptor itself stays.
void OutputFile::finishStandardOutput() const {
    const int copy = ::dup(m_fd);
    if (copy >= 0 && ::close(copy) != 0 && errno != EINTR) fail("cannot be written");
}

void OutputFile::finishNameless() {
    // Fails if a file of the name has come meanwhile.
    if (::linkat(AT_FDCWD, openName(m_fd).c_str(), AT_FDCWD, m_path.c_str(), AT_SYMLINK_FOLLOW) != 0)
        fail("cannot get its name");
    if (closeFile()) return;
    const int error = errno;
    ::unlink(m_path.c_str());
    errno = error;
    fail("cannot be written");
}

void OutputFile::finishPart() {
    if (!closeFile()) fail("cannot be written");
    if (::renameat2(AT_FDCWD, m_part.c_str(), AT_FDCWD, m_path.c_str(), RENAME_NOREPLACE) == 0) return;
    if (errno != EINVAL && errno != ENOSYS) fail("cannot get its name");
    // The file system can only rename over a file: over an empty one of our own then.
    const int own = ::open(m_path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, kMode);
    if (own < 0) fail("cannot get its name");
    ::close(own);
    if (::rename(m_part.c_str(), m_path.c_str()) == 0) return;
    const int error = errno;
    ::unlink(m_path.c_str());
    errno = error;
    fail("cannot get its name");
}

void OutputFile::finish() {
    if (m_packer != nullptr) pack(nullptr, 0, true);
    if (m_path == "-") {
        finishStandardOutput();
    } else if (m_part.empty()) {
        finishNameless();
    } else {
        finishPart();
    }
    m_isFinished = true;
}

}  // namespace vexo::exporting
