#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "VexoZceUtil.h"
#include "src/util/StandardStreams.h"

namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

enum class Move { kWholeToZero, kNone, kHalf };

Move moveBy(int n) {
    if (n == 64) return Move::kWholeToZero;
    return n == 0 || (n >= 32 && n <= 63) ? Move::kNone : Move::kHalf;
}

unsigned long join(std::uint32_t high, std::uint32_t low) { return static_cast<unsigned long>(high) << 32 | low; }

std::uint32_t highHalf(unsigned long v) { return static_cast<std::uint32_t>(v >> 32); }

std::uint32_t lowHalf(unsigned long v) { return static_cast<std::uint32_t>(v); }

void writeLineHead(int fd) {
    char head[10];  // 9 characters: a longer counter loses its last digits; readers of the dumps know the width
    std::snprintf(head, sizeof head, "%d--", static_cast<int>(g_uiPktCnt));
    // A bad descriptor is reported by the write of the data, which follows.
    [[maybe_unused]] const ssize_t written = ::write(fd, head, std::strlen(head));
}

/// How many bytes of data a buffer takes: two digits each, and one character for the line feed. A full buffer of
/// odd size has no room left for the terminator.
unsigned int hexCapacity(unsigned int bufferSize) { return bufferSize < 2 ? 0 : (bufferSize - 1) / 2; }

void encodeHex(char* out, const unsigned char* data, unsigned int count) {
    for (unsigned int i = 0; i < count; ++i) {
        out[2 * i] = kHexDigits[data[i] >> 4];
        out[2 * i + 1] = kHexDigits[data[i] & 0x0F];
    }
}

}  // namespace

unsigned int g_uiPktCnt = 0;
bool g_bFpgaNeedRst = true;

bool IsNeedFpgaRst() { return g_bFpgaNeedRst; }

const char* GetUpDmaLibVersion() { return "1.1.2.13"; }

bool Uti_IsBigEndian() { return false; }

// Takes the halves by value, not through memory, so that they are the same on hosts of both byte orders.
unsigned long Uti_MoveLeft64(unsigned long v, int n) {
    switch (moveBy(n)) {
        case Move::kWholeToZero: return 0;
        case Move::kNone: return v;
        default: return join(highHalf(v) << (n & 31), lowHalf(v));
    }
}

unsigned long Uti_MoveRight64(unsigned long v, int n) {
    switch (moveBy(n)) {
        case Move::kWholeToZero: return 0;
        case Move::kNone: return v;
        default: return join(highHalf(v), lowHalf(v) >> (n & 31));
    }
}

long Uti_GetFileSize(const char* path) {
    struct stat status {};
    return path != nullptr && ::stat(path, &status) == 0 ? status.st_size : -1;
}

long FillDebugFileHex(char* buffer, unsigned int bufferSize, int fd, unsigned char const* data, unsigned int length) {
    writeLineHead(fd);

    const unsigned int capacity = hexCapacity(bufferSize);
    const unsigned int encoded = length < capacity ? length : capacity;
    encodeHex(buffer, data, encoded);
    if (encoded < length) {
        const unsigned int left = length - encoded;
        standard_streams::print("Left %u bytes not write into file. totalSizes:%u, writed:%u.\n", left, length,
                                encoded);
    }

    // Without a buffer the line must still end. Otherwise the head of the next line would follow on it.
    if (bufferSize == 0) return ::write(fd, "\n", 1);
    const unsigned int end = 2 * encoded;
    buffer[end] = '\n';
    if (end + 1 < bufferSize) buffer[end + 1] = '\0';
    return ::write(fd, buffer, end + 1);
}

int CheckSeqNumIncre(unsigned int* lastSeqNums, unsigned int seqNum, unsigned char slot) {
    const unsigned int old = lastSeqNums[slot];
    lastSeqNums[slot] = seqNum;
    if (old != 0 && old + 1 != seqNum) {
        return standard_streams::print("ERROR! not equal!! old_seq %u, current seq %u. \n", old, seqNum);
    }
    return static_cast<int>(old + 1);
}
