#pragma once

#include <cstdint>
#include <cstring>

#include "capture/Blocks.h"

namespace capture {

// The first frame of a compressed recording. Its content is stored as it is, so that a reader without a decompressor
// finds the file's mark behind the head of the frame:
//
//     0  magic number of zstd
//     4  1 byte: content size in 4 bytes, a single segment, no checksum, no dictionary
//     5  4 bytes: size of the content
//     9  3 bytes: last block, stored, and its size
inline constexpr std::uint32_t kStoredFrameHead = 12;
inline constexpr unsigned char kStoredFrameBegin[] = {0x28, 0xB5, 0x2F, 0xFD, 0xA0};

/// @param bytes  kStoredFrameHead of them
inline bool isStoredFrame(const unsigned char* bytes) {
    return std::memcmp(bytes, kStoredFrameBegin, sizeof kStoredFrameBegin) == 0 && (bytes[9] & 7U) == 1;
}

/// @param content  less than 128 KB
inline BlockBuffer storedFrame(const BlockBuffer& content) {
    BlockBuffer frame(kStoredFrameBegin, kStoredFrameBegin + sizeof kStoredFrameBegin);
    const auto size = static_cast<std::uint32_t>(content.size());
    for (unsigned shift = 0; shift < 32; shift += 8) frame.push_back(static_cast<unsigned char>(size >> shift));
    const std::uint32_t block = size << 3 | 1;
    for (unsigned shift = 0; shift < 24; shift += 8) frame.push_back(static_cast<unsigned char>(block >> shift));
    frame.insert(frame.end(), content.begin(), content.end());
    return frame;
}

}  // namespace capture
