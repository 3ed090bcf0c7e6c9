// Messages of relays and of strangers, through the receiver of a remote card. Whatever comes: the packets of one run of
// a relay leave the stream in their order, each at most once, and a reader that takes all of them gets a message to its
// end.
//
// An input is a sequence of steps, each a byte and what it needs:
//     0  any bytes as a message: size (two bytes), bytes
//     1  a relay's message: run, number of its first packet (two bytes), packets, size of each (two bytes), flags, four
//        counts, MTU (two bytes)
//     2  an answer to a hello: run, number (two bytes)
//     3  the reader takes some packets: how many
//     4  the stream is closed and opened again
//     5  time passes: tenths of a second

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "sim/card/Card.h"
#include "sim/card/ZeroedMemory.h"
#include "sim/remote/Receiver.h"
#include "sim/remote/Wire.h"
#include "tests/fuzz/Fuzz.h"

namespace {

using namespace vexo_sim;

constexpr std::uint32_t kChannel = 3;
constexpr std::uint64_t kRuns = 4;         // fewer than a receiver remembers
constexpr std::uint32_t kMostPackets = 7;  // of a message
constexpr std::uint32_t kMark = 9;         // bytes of a packet: its run and its number

class Stream {
public:
    Stream() {
        CardConfig config;
        config.instruments = InstrumentChoice::kNone;
        config.ringBytes = kMinRingBytes * 4;
        config.mtu = kMinMtu;
        m_card.powerOn(config, {1'000'000'000, 20250303, 120000, 0});
        m_card.pauseFeed(true);
    }

    void Run(fuzz::Input input) {
        m_card.state().config.mtu = kMinMtu;
        m_nowNs = 1'000'000'000'000;
        Open();
        while (!input.IsEmpty()) Step(input);
        TakeAll();
    }

private:
    void Step(fuzz::Input& input) {
        switch (input.Byte() % 6) {
            case 0: return Raw(input);
            case 1: return Built(input);
            case 2: return Greet(input);
            case 3: return Take(input.Byte());
            case 4: return Open();
            default: m_nowNs += input.Byte() * std::uint64_t{100'000'000};
        }
    }

    void Open() {
        m_card.closeUp(kChannel);
        m_card.openUp(kChannel);
        m_receiver.restart();
        m_last.fill(0);
        m_isMarked = true;
    }

    void Raw(fuzz::Input& input) {
        std::size_t size = input.Word();
        const std::uint8_t* const bytes = input.Bytes(size);
        const auto copy = fuzz::ExactCopy(bytes, size);
        wire::decodeHello(copy.get(), size);
        wire::versionOfHelloRequest(copy.get(), size);
        if (wire::decode(copy.get(), size).problem == wire::Problem::kNone) m_isMarked = false;
        Receive(copy.get(), size);
    }

    void Built(fuzz::Input& input) {
        wire::Head head;
        head.epoch = input.Byte() % kRuns;
        head.first = input.Word();
        wire::MessageWriter writer(wire::kHeadBytes + kMostPackets * wire::footprint(wire::kMaxPacketBytes));
        const std::uint32_t packets = input.Byte() % (kMostPackets + 1);
        for (std::uint32_t n = 0; n < packets; ++n) Add(writer, head.epoch, head.first + n, input.Word());
        head.flags = input.Byte();
        head.counts = {input.Byte(), input.Byte(), 0, input.Byte(), input.Byte()};
        head.mtu = input.Word();
        const wire::Bytes message = writer.finish(head);
        const auto copy = fuzz::ExactCopy(message.data, message.size);
        Receive(copy.get(), message.size);
    }

    static void Add(wire::MessageWriter& writer, std::uint64_t run, std::uint64_t number, std::uint32_t size) {
        std::vector<unsigned char> packet(std::max(size, kMark));
        packet[0] = static_cast<unsigned char>(run);
        std::memcpy(&packet[1], &number, sizeof number);
        writer.add(0, packet.data(), static_cast<std::uint32_t>(packet.size()));
    }

    void Greet(fuzz::Input& input) {
        wire::Head head;
        head.epoch = input.Byte() % kRuns;
        head.first = input.Word();
        m_receiver.greet(head);
    }

    // The bytes stay until nothing of them is held back: a reader takes what is in the way.
    void Receive(const unsigned char* data, std::size_t size) {
        m_receiver.receive(m_card, data, size, m_nowNs);
        while (m_receiver.isHoldingBack()) {
            fuzz::Require(m_card.peek(kChannel).data != nullptr, "a message is held back by an empty stream");
            TakeAll();
            m_receiver.resume(m_card);
        }
    }

    void TakeAll() { Take(~0U); }
    void Take(std::uint32_t packets) {
        for (; packets > 0; --packets) {
            const PacketView packet = m_card.peek(kChannel);
            if (packet.data == nullptr) return;
            Check(packet);
            m_card.release(kChannel);
        }
    }

    void Check(const PacketView& packet) {
        fuzz::Require(packet.size <= kMaxMtu, "a packet is larger than any card sends");
        if (!m_isMarked) return;
        fuzz::Require(packet.size >= kMark && packet.data[0] < kRuns, "a packet was changed");
        std::uint64_t number = 0;
        std::memcpy(&number, packet.data + 1, sizeof number);
        std::uint64_t& last = m_last[packet.data[0]];
        fuzz::Require(number + 1 > last, "a packet came twice or too late");
        last = number + 1;
    }

    const ZeroedMemory<CardState> m_memory;
    Card m_card{*m_memory.get()};
    remote::Receiver m_receiver{kChannel};
    std::uint64_t m_nowNs = 0;
    std::array<std::uint64_t, kRuns> m_last{};  // one more than the last number of each run
    bool m_isMarked = true;                     // all packets come from Built()
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Stream stream;
    stream.Run({data, size});
    return 0;
}
