#include "tests/fuzz/RemoteStream.h"

#include <algorithm>
#include <cstring>

#include "tests/fuzz/Fuzz.h"

namespace fuzz {

using namespace vexo_sim;

namespace {

constexpr std::uint32_t kChannel = 3;

}  // namespace

RemoteStream::RemoteStream() : m_card(*m_memory.get()), m_receiver(kChannel) {
    CardConfig config;
    config.instruments = InstrumentChoice::kNone;
    config.ringBytes = kMinRingBytes * 4;
    config.mtu = kMinMtu;
    m_card.powerOn(config, {1'000'000'000, 20250303, 120000, 0});
    m_card.pauseFeed(true);
}

void RemoteStream::Reset() {
    m_card.state().config.mtu = kMinMtu;
    m_nowNs = kNowNs;
    Open();
}

void RemoteStream::Open() {
    m_card.closeUp(kChannel);
    m_card.openUp(kChannel);
    m_receiver.restart();
    m_last.fill(0);
    m_missing = 0;
    m_isMarked = true;
}

void RemoteStream::Receive(const unsigned char* data, std::size_t size) {
    m_receiver.receive(m_card, data, size, m_nowNs);
    while (m_receiver.isHoldingBack()) {
        Require(m_card.peek(kChannel).data != nullptr, "a message is held back by an empty stream");
        TakeAll();
        m_receiver.resume(m_card);
    }
}

void RemoteStream::Take(std::uint32_t packets) {
    for (; packets > 0; --packets) {
        const PacketView packet = m_card.peek(kChannel);
        if (packet.data == nullptr) return;
        Check(packet);
        m_card.release(kChannel);
    }
}

void RemoteStream::Check(const PacketView& packet) {
    Require(packet.size <= kMaxMtu, "a packet is larger than any card sends");
    if (!m_isMarked) return;
    Require(packet.size >= kMark && packet.data[0] < kRuns, "a packet was changed");
    std::uint64_t number = 0;
    std::memcpy(&number, packet.data + 1, sizeof number);
    std::uint64_t& last = m_last[packet.data[0]];
    Require(number + 1 > last, "a packet came twice or too late");
    if (last != 0) m_missing += number - last;
    Require(m_missing <= m_card.state().up[kChannel].backPressure, "packets are missing and were not counted");
    last = number + 1;
}

std::vector<unsigned char> RemoteStream::Packet(std::uint64_t run, std::uint64_t number, std::uint32_t size) {
    std::vector<unsigned char> packet(std::max(size, kMark));
    packet[0] = static_cast<unsigned char>(run);
    std::memcpy(&packet[1], &number, sizeof number);
    return packet;
}

}  // namespace fuzz
