#include "tools/vexo/export/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

#include "tools/vexo/Command.h"
#include "tools/vexo/show/Harmless.h"

namespace vexo::exporting {
namespace {

constexpr char kPackedEnding[] = ".zst";
constexpr mode_t kMode = 0666;  // less the umask

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

void OutputFile::open() {
    std::filesystem::path folder = std::filesystem::path(m_path).parent_path();
    if (folder.empty()) folder = ".";
    m_fd = ::open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, kMode);
    if (m_fd >= 0) return;
    m_hasName = true;
    m_fd = ::open(m_path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, kMode);
    if (m_fd < 0) throw Failure(kUsage, m_option + " " + harmless(m_path) + ": " + std::strerror(errno));
}

OutputFile::~OutputFile() {
    if (m_fd <= STDERR_FILENO) return;
    ::close(m_fd);
    if (m_hasName && !m_isFinished) ::unlink(m_path.c_str());
}

void OutputFile::fail(const char* what) const {
    const std::string name = m_path == "-" ? "standard output" : harmless(m_path);
    throw Failure(kFinding, name + ": " + what + ": " + std::strerror(errno));
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

void OutputFile::finish() {
    if (m_packer != nullptr) pack(nullptr, 0, true);
    m_isFinished = true;
    if (m_fd <= STDERR_FILENO || m_hasName) return;
    const std::string open = "/proc/self/fd/" + std::to_string(m_fd);
    // Fails if a file of the name has come meanwhile.
    if (::linkat(AT_FDCWD, open.c_str(), AT_FDCWD, m_path.c_str(), AT_SYMLINK_FOLLOW) != 0) fail("cannot get its name");
}

}  // namespace vexo::exporting
