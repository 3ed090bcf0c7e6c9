#include "tools/tap/PacketRing.h"

#include <sys/mman.h>
#include <algorithm>

namespace tap {
namespace {

constexpr std::size_t kMinCapacity = 4096;

std::size_t powerOfTwo(std::size_t bytes) {
    std::size_t capacity = kMinCapacity;
    while (capacity < bytes && capacity < PacketRing::kMaxCapacity) capacity *= 2;
    return capacity;
}

constexpr std::size_t kPage = 4096;
constexpr std::size_t kUsualPacket = 64 * 1024;

}  // namespace

PacketRing::PacketRing(std::size_t capacity) : m_capacity(powerOfTwo(capacity)), m_mask(m_capacity - 1) {
    void* memory = ::mmap(nullptr, 2 * m_capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE,
                          -1, 0);
    if (memory == MAP_FAILED) return;
    m_bytes = static_cast<unsigned char*>(memory);
    // Touches all pages that packets of usual size use. Writing a zero makes the kernel allocate the page.
    const std::size_t touched = m_capacity + std::min<std::size_t>(m_capacity, kUsualPacket);
    for (std::size_t at = 0; at < touched; at += kPage) static_cast<volatile unsigned char*>(m_bytes)[at] = 0;
}

PacketRing::~PacketRing() {
    if (m_bytes != nullptr) ::munmap(m_bytes, 2 * m_capacity);
}

unsigned char* PacketRing::reserveSlow(std::uint64_t ticks, std::uint32_t size, std::uint32_t cut,
                                       std::uint32_t marks) {
    refreshLimit();
    unsigned char* room = reserve(ticks, size, cut, marks);
    if (room == nullptr) m_lost.store(m_lost.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return room;
}

bool PacketRing::put(std::uint64_t ticks, const void* data, std::uint32_t size, std::uint32_t cut,
                     std::uint32_t marks) {
    unsigned char* room = reserve(ticks, size, cut, marks);
    if (room == nullptr) room = reserveSlow(ticks, size, cut, marks);
    if (room == nullptr) return false;
    if (size > 0) std::memcpy(room, data, size);
    commit();
    return true;
}

bool PacketRing::putOpening(std::uint64_t ticks) {
    refreshLimit();
    if (reserve(ticks, 0, kOpening, 0) == nullptr) return false;
    commit();
    return true;
}

}  // namespace tap
