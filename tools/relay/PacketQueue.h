#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "tools/tap/PacketRing.h"

namespace relay {

/// A packet on its way to the network.
struct QueuedPacket {
    std::uint64_t number = 0;  // of all that the stream has delivered, from 0 on
    std::uint64_t ticks = 0;   // when it came, see tools/tap/TapClock.h
    const unsigned char* data = nullptr;
    std::uint32_t size = 0;
};

/// Bounded queue between the thread that polls the stream and the thread that sends. The polling thread never waits: a
/// packet that does not fit is lost, but it has its number, so that the gap is known to the packet.
class PacketQueue {
public:
    /// @param first  number of the first packet
    explicit PacketQueue(std::size_t bytes, std::uint64_t first = 0)
        : m_ring(bytes), m_delivered(first), m_next(first) {}

    /// False when there was no memory; nothing else may be called then.
    bool isUsable() const { return m_ring.isUsable(); }

    // ---- the polling thread ----
    void put(std::uint64_t ticks, const void* data, std::uint32_t size) {
        const std::uint64_t number = m_delivered.load(std::memory_order_relaxed);
        m_ring.put(ticks, data, size, static_cast<std::uint32_t>(number));
        // Behind the packet: who reads this number finds every packet below it in the ring, unless it is lost.
        m_delivered.store(number + 1, std::memory_order_release);
    }
    /// Packets whose bytes cannot be had.
    void lose(std::uint64_t packets = 1) {
        m_delivered.store(m_delivered.load(std::memory_order_relaxed) + packets, std::memory_order_release);
    }

    // ---- any thread ----
    /// Packets that the stream has delivered, those included that did not fit.
    std::uint64_t delivered() const { return m_delivered.load(std::memory_order_acquire); }

    // ---- the sending thread ----
    /// The end of the packets that are there now.
    std::uint64_t published() const { return m_ring.published(); }
    /// The oldest packet, when it lies before @p limit. Valid until pop().
    bool front(std::uint64_t limit, QueuedPacket& packet) {
        if (!m_ring.front(limit, m_record)) return false;
        // The ring keeps half of a number, where a tap keeps how much of the packet was cut off.
        const std::uint32_t half = m_record.trueSize - m_record.size;
        m_next += static_cast<std::uint32_t>(half - static_cast<std::uint32_t>(m_next));
        packet = {m_next, m_record.ticks, m_record.data, m_record.size};
        return true;
    }
    void pop() {
        m_ring.pop(m_record);
        ++m_next;
    }
    /// The number up to which no packet will come any more. When the queue is empty, the packets at the end that did
    /// not fit count too.
    std::uint64_t settled() {
        const std::uint64_t delivered = this->delivered();
        QueuedPacket packet;
        if (front(published(), packet)) return packet.number;
        m_next = std::max(m_next, delivered);  // a packet is there before it is counted
        return m_next;
    }

private:
    tap::PacketRing m_ring;
    alignas(64) std::atomic<std::uint64_t> m_delivered;
    // The sending thread's.
    alignas(64) tap::PacketRing::Record m_record{};
    std::uint64_t m_next;  // no packet below this number is in the queue
};

}  // namespace relay
