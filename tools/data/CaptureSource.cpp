#include "tools/data/CaptureSource.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>
#include <zstd_errors.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <streambuf>
#include <vector>

#include "capture/StandardStreams.h"
#include "tools/cli/Values.h"
#include "tools/vexo/show/Harmless.h"

namespace vexo::data {
namespace {

constexpr std::size_t kBufferBytes = 1U << 20;
constexpr unsigned char kZstdMagic[] = {0x28, 0xB5, 0x2F, 0xFD};
constexpr char kStandardInput[] = "-";
constexpr char kDoubt[] =
    "packets before this byte may be wrong, too, and nobody can tell which (use another copy of the file)";

std::string shownName(const std::string& path) { return path == kStandardInput ? "standard input" : harmless(path); }

[[noreturn]] void failFor(const std::string& path, const std::string& what) {
    throw SourceError(shownName(path) + ": " + what);
}

// Never under the number of a standard stream: that would get what others print, or read what is meant for them.
int openToRead(const std::string& path) {
    if (path == kStandardInput) return STDIN_FILENO;
    const capture::StandardNumbersTaken taken;
    return ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

}  // namespace

/// Reads a descriptor. A failure is kept, and thrown: the stream then goes bad and throws nothing itself.
class CaptureSource::FileBuffer : public std::streambuf {
public:
    FileBuffer(int fd, std::string& failure) : m_fd(fd), m_failure(failure), m_bytes(kBufferBytes) {}
    ~FileBuffer() override {
        if (m_fd != STDIN_FILENO) ::close(m_fd);
    }
    FileBuffer(const FileBuffer&) = delete;
    FileBuffer& operator=(const FileBuffer&) = delete;

    std::uint64_t readBytes() const { return m_readBytes; }
    /// Whether the file begins with these bytes. Before anything else is read.
    template <std::size_t n>
    bool beginsWith(const unsigned char (&magic)[n]) {
        std::size_t have = 0;
        while (have < n) {
            const std::size_t more = readSome(m_bytes.data() + have, m_bytes.size() - have);
            if (more == 0) break;
            have += more;
        }
        setg(m_bytes.data(), m_bytes.data(), m_bytes.data() + have);
        return have >= n && std::memcmp(m_bytes.data(), magic, n) == 0;
    }
    /// What is in the buffer, or the next piece of the file; empty at its end.
    ZSTD_inBuffer takePiece() {
        if (gptr() == egptr()) underflow();
        const ZSTD_inBuffer piece = {gptr(), static_cast<std::size_t>(egptr() - gptr()), 0};
        setg(egptr(), egptr(), egptr());
        return piece;
    }

protected:
    int_type underflow() override {
        const std::size_t count = readSome(m_bytes.data(), m_bytes.size());
        setg(m_bytes.data(), m_bytes.data(), m_bytes.data() + count);
        return count == 0 ? traits_type::eof() : traits_type::to_int_type(*gptr());
    }

private:
    std::size_t readSome(char* to, std::size_t most) {
        ssize_t count = 0;
        do {
            count = ::read(m_fd, to, most);
        } while (count < 0 && errno == EINTR);
        if (count < 0) {
            m_failure = std::strerror(errno);
            throw SourceError(m_failure);
        }
        m_readBytes += static_cast<std::uint64_t>(count);
        return static_cast<std::size_t>(count);
    }

    int m_fd;
    std::string& m_failure;
    std::vector<char> m_bytes;
    std::uint64_t m_readBytes = 0;
};

/// The unpacked bytes of a compressed file. Several frames one after the other are one file.
class CaptureSource::ZstdBuffer : public std::streambuf {
public:
    ZstdBuffer(FileBuffer& file, std::string& failure)
        : m_file(file),
          m_failure(failure),
          m_unpacker(ZSTD_createDCtx(), ZSTD_freeDCtx),
          m_bytes(ZSTD_DStreamOutSize()) {
        if (m_unpacker == nullptr) throw SourceError("memory is short");
    }

    void readToChecksum() {
        while (m_isInFrame) underflow();
    }

protected:
    int_type underflow() override {
        ZSTD_outBuffer out = {m_bytes.data(), m_bytes.size(), 0};
        while (out.pos == 0) {
            if (m_in.pos == m_in.size) m_in = m_file.takePiece();
            if (m_in.size == 0) {
                if (m_isInFrame) fail("the compressed file is cut off");
                return traits_type::eof();
            }
            ZSTD_inBuffer step = {m_in.src, std::min(m_in.size, m_in.pos + m_step), m_in.pos};
            const std::size_t left = ZSTD_decompressStream(m_unpacker.get(), &out, &step);
            m_in.pos = step.pos;
            if (ZSTD_isError(left) != 0) fail("the compressed file is damaged: " + faultOf(left));
            m_isInFrame = left != 0;
            m_step = left > kBlockHead ? left - kBlockHead : kBlockHead;
        }
        setg(m_bytes.data(), m_bytes.data(), m_bytes.data() + out.pos);
        return traits_type::to_int_type(*gptr());
    }

private:
    static constexpr std::size_t kBlockHead = 3;  // bytes

    // Most wrong bytes decode without a complaint, and only the checksum at the end of the frame shows them. So nothing
    // before is sure, whatever shows the damage.
    static std::string faultOf(std::size_t result) {
        const bool isChecksum = ZSTD_getErrorCode(result) == ZSTD_error_checksum_wrong;
        return std::string(isChecksum ? "its checksum is wrong" : ZSTD_getErrorName(result)) + "; " + kDoubt;
    }
    [[noreturn]] void fail(const std::string& what) {
        m_failure = what;
        throw SourceError(what);
    }

    FileBuffer& m_file;
    std::string& m_failure;
    std::unique_ptr<ZSTD_DCtx, std::size_t (*)(ZSTD_DCtx*)> m_unpacker;
    std::vector<char> m_bytes;
    ZSTD_inBuffer m_in = {nullptr, 0, 0};
    // A call that finds damage returns nothing of the blocks before it. So a call gets one block at most, or the head
    // of one. The decoder asks for the rest of a block and the head of the next one together.
    std::size_t m_step = kBlockHead;
    bool m_isInFrame = false;
};

std::uint64_t CaptureSource::check(const std::string& path) {
    struct stat state {};
    const bool isThere = path == kStandardInput ? ::fstat(STDIN_FILENO, &state) == 0
                                                : ::stat(path.c_str(), &state) == 0;
    if (!isThere) failFor(path, cli::faultOfReading(errno));
    if (S_ISDIR(state.st_mode)) failFor(path, "this is a directory, not a capture");
    if (!S_ISREG(state.st_mode)) return 0;
    const int fd = openToRead(path);
    if (fd < 0) failFor(path, cli::faultOfReading(errno));
    if (fd != STDIN_FILENO) ::close(fd);
    return static_cast<std::uint64_t>(state.st_size);
}

CaptureSource::CaptureSource(const std::string& path) {
    const int fd = openToRead(path);
    if (fd < 0) failFor(path, cli::faultOfReading(errno));
    m_file = std::make_unique<FileBuffer>(fd, m_failure);
    struct stat state {};
    if (::fstat(fd, &state) == 0 && S_ISDIR(state.st_mode)) failFor(path, "this is a directory, not a capture");
    if (S_ISREG(state.st_mode)) m_fileBytes = static_cast<std::uint64_t>(state.st_size);
    try {
        if (m_file->beginsWith(kZstdMagic)) m_unpacked = std::make_unique<ZstdBuffer>(*m_file, m_failure);
    } catch (const SourceError& error) {
        failFor(path, error.what());
    }
    std::streambuf* const bytes = m_unpacked != nullptr ? static_cast<std::streambuf*>(m_unpacked.get()) : m_file.get();
    m_stream = std::make_unique<std::istream>(bytes);
}

CaptureSource::~CaptureSource() = default;

std::uint64_t CaptureSource::readBytes() const { return m_file->readBytes(); }

void CaptureSource::readToChecksum() {
    if (m_unpacked == nullptr || !m_failure.empty()) return;
    try {
        m_unpacked->readToChecksum();
    } catch (const SourceError&) {  // failure() has it
    }
}

std::string faultOf(const capture::Reader& reader, CaptureSource& source) {
    if (!reader.damage()) return "";
    source.readToChecksum();
    return reader.damage()->text + (source.failure().empty() ? "" : ": " + source.failure());
}

}  // namespace vexo::data
