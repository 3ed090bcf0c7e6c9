// Preloaded into a relay, in place of the card's packets: a stream at an even pace, each packet with the time at which
// the poll hands it out. That is when a program in the relay's place would have it.
//
//     VEXO_PACE="RATE PACKETS FILE"   packets a second, and how many; where to say at the end how late the polls were
//
// No packet is lost here. A poll that comes late finds all packets that are due, as on a card whose ring is large
// enough; the file tells how large it would have to be.

#include <enyx-hw-c/enyx_hw.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "bench/many/TimedPacket.h"

namespace {

constexpr std::uint64_t kSettleNs = 500'000'000;  // from the first poll to the first packet

class Pace {
public:
    Pace() {
        const char* const text = std::getenv("VEXO_PACE");
        if (text == nullptr || std::sscanf(text, "%lf %lu %255s", &m_rate, &m_packets, m_file) != 3) std::abort();
    }
    ~Pace() {
        std::FILE* const file = std::fopen(m_file, "w");
        if (file == nullptr) return;
        std::fprintf(file, "{\"handed_out\": %lu, \"most_waiting\": %lu}\n", m_next, m_mostWaiting);
        std::fclose(file);
    }
    Pace(const Pace&) = delete;
    Pace& operator=(const Pace&) = delete;

    int poll(enyx_hw_a2c_stream_handler handler, void* context) {
        if (m_next == m_packets) return 0;
        const std::uint64_t time = many::now();
        if (m_start == 0) m_start = time + kSettleNs;
        if (m_next >= m_due) {
            m_due = dueAt(time);
            if (m_next >= m_due) return 0;
            m_mostWaiting = std::max(m_mostWaiting, m_due - m_next);
        }
        const many::TimedPacket packet = many::packetOf(++m_next, time);
        handler(reinterpret_cast<const std::uint8_t*>(&packet), sizeof packet, context);
        return 1;
    }

private:
    // Packets that are due until then.
    std::uint64_t dueAt(std::uint64_t time) const {
        if (time < m_start) return 0;
        return std::min(m_packets, static_cast<std::uint64_t>(static_cast<double>(time - m_start) * m_rate / 1e9) + 1);
    }

    double m_rate = 0;
    std::uint64_t m_packets = 0;
    char m_file[256] = {};
    std::uint64_t m_start = 0;
    std::uint64_t m_next = 0;
    std::uint64_t m_due = 0;
    std::uint64_t m_mostWaiting = 0;
};

Pace g_pace;

}  // namespace

extern "C" int enyx_hw_a2c_stream_poll_once(enyx_hw_a2c_stream*, enyx_hw_a2c_stream_handler handler, void* context) {
    return g_pace.poll(handler, context);
}
