#ifndef VEXO_EXAMPLES_SPSC_RING_H
#define VEXO_EXAMPLES_SPSC_RING_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

/// A queue from exactly one thread, the producer, to exactly one other, the consumer. No locks; no allocation after the
/// constructor; neither side ever waits for the other.
template <typename T>
class SpscRing {
public:
    /// @param atLeast  number of elements; rounded up to a power of two. All are made, and their memory touched, now.
    explicit SpscRing(std::size_t atLeast) : m_slots(powerOfTwo(atLeast)), m_mask(m_slots.size() - 1) {}

    std::size_t capacity() const { return m_slots.size(); }

    /// Producer: the element to fill, or null when the ring is full. publish() hands it to the consumer.
    T* claim() {
        const std::uint64_t tail = m_tail.load(std::memory_order_relaxed);  // only this thread changes it
        if (tail - m_headSeen == capacity()) {
            // Acquire, with the release in pop(): the consumer has finished with an element before it is filled again.
            m_headSeen = m_head.load(std::memory_order_acquire);
            if (tail - m_headSeen == capacity()) return nullptr;
        }
        return &m_slots[tail & m_mask];
    }
    /// Producer, after claim() gave an element. Release: the consumer that sees the new tail sees the element filled.
    void publish() { m_tail.store(m_tail.load(std::memory_order_relaxed) + 1, std::memory_order_release); }

    /// Consumer: the oldest element, or null when the ring is empty. It stays there until pop().
    T* front() {
        const std::uint64_t head = m_head.load(std::memory_order_relaxed);  // only this thread changes it
        if (head == m_tailSeen) {
            m_tailSeen = m_tail.load(std::memory_order_acquire);  // with the release in publish()
            if (head == m_tailSeen) return nullptr;
        }
        return &m_slots[head & m_mask];
    }
    /// Consumer, after front() gave an element and all work on it is done.
    void pop() { m_head.store(m_head.load(std::memory_order_relaxed) + 1, std::memory_order_release); }

private:
    static std::size_t powerOfTwo(std::size_t atLeast) {
        std::size_t size = 1;
        while (size < atLeast) size *= 2;
        return size;
    }

    std::vector<T> m_slots;
    const std::size_t m_mask;
    // The counters only rise; they do not wrap in a lifetime. Each side has a cache line of its own. It remembers what
    // it last saw of the other side, and looks again only when the ring seems full or empty.
    alignas(64) std::atomic<std::uint64_t> m_tail{0};
    std::uint64_t m_headSeen = 0;
    alignas(64) std::atomic<std::uint64_t> m_head{0};
    std::uint64_t m_tailSeen = 0;
};

#endif
