// Messages of relays and of strangers, through the receiver of a remote card. Whatever comes: the packets of one run of
// a relay leave the stream in their order, each at most once, those between are counted as lost, and a reader that
// takes all of them gets a message to its end.
//
// An input is a sequence of steps, each a byte and what it needs:
//     0  any bytes as a message: size (two bytes), bytes
//     1  a relay's message: run, number of its first packet (two bytes), packets, size of each (two bytes), flags, four
//        counts, MTU (two bytes)
//     2  an answer to a hello: run, number (two bytes)
//     3  the reader takes some packets: how many
//     4  the stream is closed and opened again
//     5  time passes: tenths of a second

#include "sim/remote/Wire.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/fuzz/RemoteStream.h"

namespace {

using namespace vexo_sim;

constexpr std::uint32_t kMostPackets = 7;  // of a message

class Stream {
public:
    void Run(fuzz::Input input) {
        m_stream.Reset();
        while (!input.IsEmpty()) Step(input);
        m_stream.TakeAll();
    }

private:
    void Step(fuzz::Input& input) {
        switch (input.Byte() % 6) {
            case 0: return Raw(input);
            case 1: return Built(input);
            case 2: return Greet(input);
            case 3: return m_stream.Take(input.Byte());
            case 4: return m_stream.Open();
            default: m_stream.Pass(input.Byte() * std::uint64_t{100'000'000});
        }
    }

    void Raw(fuzz::Input& input) {
        std::size_t size = input.Word();
        const std::uint8_t* const bytes = input.Bytes(size);
        const auto copy = fuzz::ExactCopy(bytes, size);
        wire::decodeHello(copy.get(), size);
        wire::versionOfHelloRequest(copy.get(), size);
        if (wire::decode(copy.get(), size).problem == wire::Problem::kNone) m_stream.Unmark();
        m_stream.Receive(copy.get(), size);
    }

    void Built(fuzz::Input& input) {
        wire::Head head;
        head.epoch = input.Byte() % fuzz::RemoteStream::kRuns;
        head.first = input.Word();
        wire::MessageWriter writer(wire::kHeadBytes + kMostPackets * wire::footprint(wire::kMaxPacketBytes));
        const std::uint32_t packets = input.Byte() % (kMostPackets + 1);
        for (std::uint32_t n = 0; n < packets; ++n) {
            const auto packet = fuzz::RemoteStream::Packet(head.epoch, head.first + n, input.Word());
            writer.add(0, packet.data(), static_cast<std::uint32_t>(packet.size()));
        }
        head.flags = input.Byte();
        head.counts = {input.Byte(), input.Byte(), 0, input.Byte(), input.Byte()};
        head.mtu = input.Word();
        const wire::Bytes message = writer.finish(head);
        const auto copy = fuzz::ExactCopy(message.data, message.size);
        m_stream.Receive(copy.get(), message.size);
    }

    void Greet(fuzz::Input& input) {
        wire::Head head;
        head.epoch = input.Byte() % fuzz::RemoteStream::kRuns;
        head.first = input.Word();
        m_stream.Receiver().greet(head);
    }

    fuzz::RemoteStream m_stream;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Stream stream;
    stream.Run({data, size});
    return 0;
}
