#include "sim/host/CardRecorder.h"

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

CardRecorder::CardRecorder(const std::string& path, CardState& s) : m_files(settingsFor(path)) {
    const std::uint64_t now = wallClockNs();
    for (std::uint32_t channel = 0; channel < kStreams; ++channel) {
        m_files.addInterface({capture::kStreamLink, "channel " + std::to_string(channel), "as the card sent it"}, now);
        ring::keep(s.up[channel].ring);
    }
}

CardRecorder::~CardRecorder() {
    write();
    m_files.close(wallClockNs());
}

void CardRecorder::collect(CardState& s) {
    const std::uint64_t now = wallClockNs();
    for (std::uint32_t channel = 0; channel < kStreams; ++channel) {
        ring::forEachKept(s.up[channel].ring, [&](const PacketView& packet) {
            m_packets.push_back({channel, packet.size, now});
            m_bytes.insert(m_bytes.end(), packet.data, packet.data + packet.size);
        });
    }
}

void CardRecorder::write() {
    const unsigned char* bytes = m_bytes.data();
    for (const Packet& packet : m_packets) {
        m_files.addPacket(packet.channel, packet.timeNs, bytes, packet.size);
        bytes += packet.size;
    }
    m_packets.clear();
    m_bytes.clear();
    m_files.flush();
}

}  // namespace vexo_sim
