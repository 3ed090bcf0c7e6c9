#include "sim/shm/StateHome.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace vexo_sim {
namespace {

constexpr std::uint64_t kNone = ~std::uint64_t{0};

static_assert(offsetof(CardBlock, state) % kPageBytes == 0 && sizeof(CardState) % kPageBytes == 0);

// Place 0 is in the block, the others follow it.
std::size_t offsetOf(std::uint32_t place) {
    return place == 0 ? offsetof(CardBlock, state) : sizeof(CardBlock) + (place - 1U) * sizeof(CardState);
}

// The parts of the state between the rings: visit(offset, length) until it returns false.
template <typename Visit>
bool forEachMovingPart(Visit visit) {
    std::size_t begin = 0;
    for (std::size_t channel = 0; channel < kStreams; ++channel) {
        const std::size_t ring = offsetof(CardState, up) + channel * sizeof(UpStreamState) +
                                 offsetof(UpStreamState, ring);
        if (!visit(begin, ring - begin)) return false;
        begin = ring + sizeof(RingState);
    }
    return begin == sizeof(CardState) || visit(begin, sizeof(CardState) - begin);
}

bool copyBytes(int fd, std::size_t from, std::size_t to, std::size_t length) {
    char bytes[4 * kPageBytes];
    while (length > 0) {
        const std::size_t wanted = std::min(length, sizeof bytes);
        if (pread(fd, bytes, wanted, static_cast<off_t>(from)) != static_cast<ssize_t>(wanted)) return false;
        if (pwrite(fd, bytes, wanted, static_cast<off_t>(to)) != static_cast<ssize_t>(wanted)) return false;
        from += wanted;
        to += wanted;
        length -= wanted;
    }
    return true;
}

}  // namespace

// A place that the file does not reach was written by a foreign hand. To map it would end this process at its first
// use.
bool StateHome::map(std::uint32_t place) {
    struct stat status {};
    if (fstat(m_file.descriptor(), &status) != 0) return false;
    const auto size = static_cast<std::size_t>(status.st_size);
    m_place = kNone;
    const bool isMapped = forEachMovingPart([&](std::size_t offset, std::size_t length) {
        if (offsetOf(place) + offset + length > size) return false;
        unsigned char* at = reinterpret_cast<unsigned char*>(&m_block.state) + offset;
        return mmap(at, length, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, m_file.descriptor(),
                    static_cast<off_t>(offsetOf(place) + offset)) != MAP_FAILED;
    });
    if (isMapped) m_place = place;
    return isMapped;
}

bool StateHome::prepare() {
    if (m_spare != 0) return true;
    const std::uint32_t place = m_block.places.fetch_add(1) + 1;
    if (place == 0) return false;
    const bool isReserved = forEachMovingPart(
        [&](std::size_t offset, std::size_t length) { return m_file.reserve(offsetOf(place) + offset, length); });
    if (isReserved) m_spare = place;
    return isReserved;
}

bool StateHome::copy(std::uint32_t from) {
    return forEachMovingPart([&](std::size_t offset, std::size_t length) {
        return copyBytes(m_file.descriptor(), offsetOf(from) + offset, offsetOf(m_spare) + offset, length);
    });
}

bool StateHome::publish(std::uint32_t from) {
    const std::uint32_t place = std::exchange(m_spare, 0);
    if (!map(place)) return false;
    Card(m_block.state).repair();
    return m_block.place.compare_exchange_strong(from, place);
}

}  // namespace vexo_sim
