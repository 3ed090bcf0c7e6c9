#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "sim/card/Card.h"
#include "sim/card/ZeroedMemory.h"
#include "sim/remote/Receiver.h"

namespace fuzz {

/// A channel of a remote card, without the network: messages go in, and a reader takes the packets. Each packet says
/// its run and its number. So the reader checks that the packets of one run come in their order, each at most once, and
/// that the stream has counted those between.
class RemoteStream {
public:
    static constexpr std::uint64_t kRuns = 4;  // fewer than a receiver remembers
    static constexpr std::uint32_t kMark = 9;  // bytes of a packet: its run and its number
    static constexpr std::uint64_t kNowNs = 1'000'000'000'000;

    RemoteStream();

    /// As at the start of a process: what an earlier input has left is gone.
    void Reset();
    void Open();
    /// A message through the receiver. Its bytes stay until nothing of them is held back: a reader takes what is in the
    /// way.
    void Receive(const unsigned char* data, std::size_t size);
    /// The reader takes some packets, and checks them.
    void Take(std::uint32_t packets);
    void TakeAll() { Take(~0U); }
    void Pass(std::uint64_t ns) { m_nowNs += ns; }
    /// From now on packets may say anything.
    void Unmark() { m_isMarked = false; }

    vexo_sim::remote::Receiver& Receiver() { return m_receiver; }

    /// @param size  at least kMark is taken
    static std::vector<unsigned char> Packet(std::uint64_t run, std::uint64_t number, std::uint32_t size);

private:
    void Check(const vexo_sim::PacketView& packet);

    const vexo_sim::ZeroedMemory<vexo_sim::CardState> m_memory;
    vexo_sim::Card m_card;
    vexo_sim::remote::Receiver m_receiver;
    std::uint64_t m_nowNs = kNowNs;
    std::array<std::uint64_t, kRuns> m_last{};  // one more than the last number of each run
    std::uint64_t m_missing = 0;                // between the packets of a run
    bool m_isMarked = true;                     // all packets come from Packet()
};

}  // namespace fuzz
