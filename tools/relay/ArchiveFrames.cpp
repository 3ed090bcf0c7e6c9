#include "tools/relay/ArchiveFrames.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>
#include <algorithm>
#include <cerrno>
#include <memory>
#include <stdexcept>

#include "capture/StandardStreams.h"

namespace relay {
namespace {

constexpr int kLevel = 1;  // about 400 MB/s
constexpr std::size_t kWindowBytes = 4 * ArchiveBlock::kMostBytes;

struct FreeCompressor {
    void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
};
struct FreeDecompressor {
    void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

// The first bytes of a frame's content.
std::optional<BlockFacts> factsIn(const unsigned char* frame, std::size_t size) {
    const std::unique_ptr<ZSTD_DCtx, FreeDecompressor> context(ZSTD_createDCtx());
    if (context == nullptr) return std::nullopt;
    unsigned char begin[ArchiveBlock::kFactsBytes];
    ZSTD_outBuffer out = {begin, sizeof begin, 0};
    ZSTD_inBuffer in = {frame, size, 0};
    while (out.pos < out.size && in.pos < in.size) {
        const std::size_t left = ZSTD_decompressStream(context.get(), &out, &in);
        if (ZSTD_isError(left) != 0 || left == 0) break;
    }
    return ArchiveBlock::decodeFacts(begin, out.pos);
}

}  // namespace

ArchiveFile::ArchiveFile(const std::string& path)
    : m_fd([&] {
          const capture::StandardNumbersTaken taken;
          return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
      }()) {}

ArchiveFile::~ArchiveFile() {
    if (m_fd >= 0) ::close(m_fd);
}

std::uint64_t ArchiveFile::size() const {
    struct stat state {};
    return m_fd >= 0 && ::fstat(m_fd, &state) == 0 ? static_cast<std::uint64_t>(state.st_size) : 0;
}

capture::BlockBuffer ArchiveFile::read(const FramePlace& place) const {
    capture::BlockBuffer bytes(place.bytes);
    std::size_t done = 0;
    while (m_fd >= 0 && done < bytes.size()) {
        const ssize_t count = ::pread(m_fd, bytes.data() + done, bytes.size() - done,
                                      static_cast<off_t>(place.offset + done));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        done += static_cast<std::size_t>(count);
    }
    bytes.resize(done);
    return bytes;
}

capture::BlockBuffer compress(const capture::BlockBuffer& content) {
    static thread_local const std::unique_ptr<ZSTD_CCtx, FreeCompressor> context(ZSTD_createCCtx());
    if (context == nullptr) throw std::bad_alloc();
    ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel, kLevel);
    ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, 1);
    capture::BlockBuffer frame(ZSTD_compressBound(content.size()));
    const std::size_t size = ZSTD_compress2(context.get(), frame.data(), frame.size(), content.data(), content.size());
    if (ZSTD_isError(size) != 0) throw std::runtime_error(std::string("zstd: ") + ZSTD_getErrorName(size));
    frame.resize(size);
    return frame;
}

std::optional<ArchiveBlock> readBlock(const ArchiveFile& file, const FramePlace& place) {
    if (place.bytes > ZSTD_COMPRESSBOUND(ArchiveBlock::kMostBytes)) return std::nullopt;
    const capture::BlockBuffer frame = file.read(place);
    if (frame.size() != place.bytes) return std::nullopt;
    const unsigned long long size = ZSTD_getFrameContentSize(frame.data(), frame.size());
    if (size > ArchiveBlock::kMostBytes) return std::nullopt;  // that it is not known is a larger number, too
    capture::BlockBuffer content(size);
    const std::size_t done = ZSTD_decompress(content.data(), content.size(), frame.data(), frame.size());
    if (ZSTD_isError(done) != 0 || done != size) return std::nullopt;
    return ArchiveBlock::decode(std::move(content));
}

ScannedFile scan(const ArchiveFile& file, std::uint64_t begin) {
    ScannedFile scanned;
    scanned.wholeBytes = begin;
    const std::uint64_t end = file.size();
    capture::BlockBuffer window;  // what the file has from `begin` on
    while (scanned.wholeBytes < end) {
        std::size_t at = scanned.wholeBytes - begin;
        const bool isShort = window.size() - std::min(at, window.size()) < ZSTD_COMPRESSBOUND(ArchiveBlock::kMostBytes);
        if (isShort && begin + window.size() < end) {
            begin = scanned.wholeBytes;
            window = file.read({begin, std::min<std::uint64_t>(kWindowBytes, end - begin)});
            at = 0;
        }
        if (at >= window.size()) break;
        const unsigned char* const frame = window.data() + at;
        const std::size_t size = ZSTD_findFrameCompressedSize(frame, window.size() - at);
        if (ZSTD_isError(size) != 0 || size == 0) break;
        const auto facts = factsIn(frame, size);
        if (facts) scanned.blocks.push_back({{scanned.wholeBytes, size}, *facts});
        scanned.wholeBytes += size;
    }
    return scanned;
}

}  // namespace relay
