#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/relay/ArchiveBlock.h"

namespace relay {

/// A block's frame in a file.
struct FramePlace {
    std::uint64_t offset = 0;
    std::uint64_t bytes = 0;
};

/// An archive's file that is open for reading. One that is not there has no descriptor.
class ArchiveFile {
public:
    explicit ArchiveFile(int fd) : m_fd(fd) {}
    /// Opens it if it is a regular file.
    explicit ArchiveFile(const std::string& path);
    ~ArchiveFile();
    ArchiveFile(const ArchiveFile&) = delete;
    ArchiveFile& operator=(const ArchiveFile&) = delete;

    int fd() const { return m_fd; }
    std::uint64_t size() const;
    /// Fewer bytes when the file has no more, or cannot be read.
    capture::BlockBuffer read(const FramePlace& place) const;

private:
    const int m_fd;
};

/// Compresses content as one frame of zstd, with a checksum.
capture::BlockBuffer compress(const capture::BlockBuffer& content);
/// The block in the frame; nothing when it is damaged, or another one.
std::optional<ArchiveBlock> readBlock(const ArchiveFile& file, const FramePlace& place);

struct ScannedFile {
    struct Block {
        FramePlace place;
        BlockFacts facts;
    };
    std::vector<Block> blocks;
    std::uint64_t wholeBytes = 0;  // up to where the file consists of whole frames
};
/// Finds the blocks of a file by itself. It ends where the file is damaged or cut off.
/// @param begin  of a frame
ScannedFile scan(const ArchiveFile& file, std::uint64_t begin = 0);

}  // namespace relay
