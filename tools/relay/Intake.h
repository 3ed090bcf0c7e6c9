#pragma once

#include <cstdint>

#include "tools/relay/PacketQueue.h"
#include "tools/relay/RelayPage.h"

namespace relay {

/// What the polling thread does with a packet: counts it on the statistics page, and queues it for the network.
class Intake {
public:
    Intake(PacketQueue& queue, RelayPage& page) : m_queue(queue), m_page(page) {}

    void take(std::uint64_t ticks, const std::uint8_t* data, std::uint32_t size) {
        m_page.packet(ticks, data, size);
        m_queue.put(ticks, data, size);
    }
    /// Packets whose bytes cannot be had.
    void lose(std::uint64_t packets = 1) {
        m_page.packetsWithoutBytes(packets);
        m_queue.lose(packets);
    }
    void noteIdlePoll() { m_page.idlePoll(); }
    void noteFailedPoll() { m_page.failedPoll(); }
    void beginAnew() { m_page.beginAnew(); }

private:
    PacketQueue& m_queue;
    RelayPage& m_page;
};

}  // namespace relay
