#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tap {

/// Bounded ring between the thread that polls a stream and the thread that writes the file. The poller never waits: a
/// packet that does not fit is counted as lost. One producer, one consumer.
///
/// A packet is always in one piece. A packet that begins before the end of the ring may continue behind the end, where
/// there is as much memory again. The bytes that it would have used at the start stay unused.
class PacketRing {
public:
    static constexpr std::size_t kMaxCapacity = std::size_t{4} << 30;

    struct Record {
        std::uint64_t ticks;
        const unsigned char* data;
        std::uint32_t size;
        std::uint32_t trueSize;  // greater than size when the packet was cut
        bool isAtOnce;           // its poll was the first one since the packet before
        bool isOpening;          // no packet: the stream was opened here
    };

    /// @param capacity  bytes, rounded up to a power of two; the memory is touched here, so that no poll waits for it
    explicit PacketRing(std::size_t capacity);
    ~PacketRing();
    PacketRing(const PacketRing&) = delete;
    PacketRing& operator=(const PacketRing&) = delete;

    /// False when there was no memory; nothing else may be called then.
    bool isUsable() const { return m_bytes != nullptr; }

    /// Added to a packet's size: see Record::isAtOnce.
    static constexpr std::uint32_t kAtOnce = 1U << 31;

    // ---- producer: one packet is reserve(), its bytes, commit() ----
    /// Room for the packet's bytes. Null when there may be none: then try reserveSlow().
    /// @param size   less than 1 GB
    /// @param cut    bytes of the packet that are left out behind the @p size that are kept
    /// @param marks  kAtOnce or 0
    unsigned char* reserve(std::uint64_t ticks, std::uint32_t size, std::uint32_t cut, std::uint32_t marks) {
        const std::uint64_t head = m_head.load(std::memory_order_relaxed);
        m_end = head + footprint(size);
        if (m_end > m_limit) return nullptr;
        unsigned char* at = m_bytes + (head & m_mask);
        const Prefix prefix{ticks, (size | marks) | std::uint64_t{cut} << 32};
        std::memcpy(at, &prefix, sizeof prefix);
        return at + sizeof prefix;
    }
    /// The same, but reads the consumer's present position first. Null: there is no room, and the packet is counted as
    /// lost.
    unsigned char* reserveSlow(std::uint64_t ticks, std::uint32_t size, std::uint32_t cut, std::uint32_t marks);
    void commit() { m_head.store(m_end, std::memory_order_release); }
    /// Reserves, copies and commits. @return false: there was no room
    bool put(std::uint64_t ticks, const void* data, std::uint32_t size, std::uint32_t cut = 0, std::uint32_t marks = 0);
    /// Marks that the stream is opened. @return false: a full ring takes no mark
    bool putOpening(std::uint64_t ticks);

    // ---- consumer ----
    /// The end of the packets that are there now.
    std::uint64_t published() const { return m_head.load(std::memory_order_acquire); }
    /// The oldest packet, when it lies before @p limit.
    bool front(std::uint64_t limit, Record& record) const {
        const std::uint64_t tail = m_tail.load(std::memory_order_relaxed);
        if (tail == limit) return false;
        const unsigned char* at = m_bytes + (tail & m_mask);
        Prefix prefix;
        std::memcpy(&prefix, at, sizeof prefix);
        const auto kept = static_cast<std::uint32_t>(prefix.sizes);
        const std::uint32_t size = kept & kSizeBits;
        const auto cut = static_cast<std::uint32_t>(prefix.sizes >> 32);
        const bool isOpening = size == 0 && cut == kOpening;
        record = {prefix.ticks, at + sizeof prefix, size, size + cut, (kept & ~kSizeBits) != 0, isOpening};
        return true;
    }
    void pop(const Record& record) {
        const std::uint64_t tail = m_tail.load(std::memory_order_relaxed);
        m_tail.store(tail + footprint(record.size), std::memory_order_release);
    }
    bool isEmpty() const { return m_tail.load(std::memory_order_relaxed) == published(); }
    /// Since the ring was made.
    std::uint64_t lost() const { return m_lost.load(std::memory_order_relaxed); }

private:
    struct Prefix {
        std::uint64_t ticks;
        std::uint64_t sizes;  // the size, and in the upper half what was cut: one store where nothing was
    };
    static_assert(sizeof(Prefix) == 16);

    static constexpr std::uint32_t kSizeBits = (1U << 30) - 1;
    static constexpr std::uint32_t kOpening = ~0U;  // cut off a packet of which nothing is kept

    void refreshLimit() { m_limit = m_tail.load(std::memory_order_acquire) + m_capacity; }

    static constexpr std::uint64_t footprint(std::uint32_t size) {
        return sizeof(Prefix) + ((std::uint64_t{size} + 15) & ~std::uint64_t{15});
    }

    unsigned char* m_bytes = nullptr;
    std::uint64_t m_capacity = 0;
    std::uint64_t m_mask = 0;
    alignas(64) std::atomic<std::uint64_t> m_head{0};  // producer's line
    std::uint64_t m_end = 0;                           // of the packet that is being written
    std::uint64_t m_limit = 0;                         // end of the free room, as far as the producer knows
    std::atomic<std::uint64_t> m_lost{0};
    alignas(64) std::atomic<std::uint64_t> m_tail{0};  // consumer's line
};

}  // namespace tap
