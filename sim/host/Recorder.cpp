#include "host/Recorder.h"

#include <cstdio>
#include <ctime>

namespace vexo_sim {
namespace {

std::uint64_t wallClockNs() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

capture::CaptureFiles::Settings settingsFor(const std::string& path) {
    capture::CaptureFiles::Settings settings;
    settings.path = path;
    settings.section = {"simulated card", "", "vexo-simcard"};
    settings.report = [](const std::string& text) { std::fprintf(stderr, "vexo-simcard: %s\n", text.c_str()); };
    return settings;
}

}  // namespace

Recorder::Recorder(const std::string& path, const CardState& s) : m_files(settingsFor(path)) {
    const std::uint64_t now = wallClockNs();
    for (std::uint32_t channel = 0; channel < kStreams; ++channel) {
        m_files.addInterface({capture::kStreamLink, "channel " + std::to_string(channel), "as the card sent it"}, now);
        m_seen[channel] = ring::putPosition(s.up[channel].ring);
    }
}

Recorder::~Recorder() { m_files.close(wallClockNs()); }

void Recorder::collect(CardState& s) {
    for (std::uint32_t channel = 0; channel < kStreams; ++channel)
        if (m_seen[channel] != ring::putPosition(s.up[channel].ring)) collect(s.up[channel].ring, channel);
}

void Recorder::collect(RingState& ring, std::uint32_t channel) {
    // Only a process that pushes packets of its own faster than the host looks can get around the ring.
    if (ring::putPosition(ring) - m_seen[channel] > ring.capacity) {
        std::fprintf(stderr, "vexo-simcard: packets of channel %u are missing in the record.\n", channel);
        m_seen[channel] = ring::putPosition(ring);
        return;
    }
    const std::uint64_t now = wallClockNs();
    m_seen[channel] = ring::forEachPut(ring, m_seen[channel], [&](const PacketView& packet) {
        m_files.addPacket(channel, now, packet.data, packet.size);
    });
}

}  // namespace vexo_sim
