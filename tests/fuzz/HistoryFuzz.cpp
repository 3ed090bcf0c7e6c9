// Requests for the past, to the archive of a relay; and its answers, through the receiving end of a remote card. Both
// are mixed with those of strangers, and messages get lost. Whatever comes: the archive answers requests alone, with
// packets that follow one another and are wanted. The packets of one run leave the stream in their order, each at most
// once, and those between are counted as lost.
//
// An input is a sequence of steps, each a byte and what it needs:
//     0  any bytes as a request: inbox, size (two bytes), bytes
//     1  a request: file and block of its cursor, run, number (two bytes), time (two bytes), bytes of the answer (two
//        bytes)
//     2  the receiver asks, and gets the answer: whole, or with a message left out, changed or twice; which one, and
//     the
//        place (two bytes) and the value of the change
//     3  any bytes as a message of an answer: size (two bytes), bytes
//     4  a message of an answer: run, number of its first packet (two bytes), packets
//     5  the end of an answer: run, number (two bytes), file and block of the cursor, messages, whether it is all
//     6  a live message: run, number of its first packet (two bytes), packets
//     7  the same, but it comes while the stream goes over to the live messages
//     8  the reader takes some packets: how many
//     9  the stream is closed and opened again, with another moment (two bytes)
//    10  time passes: tenths of a second
//    11  the archive has not answered for too long

#include <deque>
#include <iterator>
#include <optional>
#include <utility>
#include <vector>

#include "sim/remote/Handover.h"
#include "sim/remote/HistoryAnswer.h"
#include "tests/fuzz/ArchiveModel.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/fuzz/RemoteStream.h"

namespace {

using namespace vexo_sim;
using fuzz::ArchiveModel;

using Bytes = std::vector<unsigned char>;

constexpr std::size_t kRoom = 1024;             // for live messages that wait
constexpr std::size_t kMostAnswer = 64 * 1024;  // more than the archive has
constexpr std::uint32_t kMostPackets = 12;      // of a message
constexpr char kInbox[] = "_INBOX.receiver0001.1";
constexpr const char* kInboxes[] = {kInbox, "_INBOX.a", "_INBOX.*", "_INBOX.a b", "_INBOX.>", "vexo.local.0.3.stream",
                                    "",     nullptr};

std::uint64_t TimeOf(std::uint16_t step) { return ArchiveModel::kBegin + step * std::uint64_t{100'000}; }

std::uint64_t Cursor(fuzz::Input& input) {
    const std::uint64_t file = input.Byte();
    return file << 24 | input.Byte();
}

/// What a remote card does with one channel that begins in the past, without the network and the threads between.
class LateStream {
public:
    void Reset() {
        m_stream.Reset();
        Open(0);
    }
    void Open(std::uint16_t since) {
        m_stream.Open();
        m_handover.emplace(kRoom);
        m_answer = remote::HistoryAnswer(kMostAnswer);
        m_onTheWay.clear();
        m_request = {0, 0, 0, TimeOf(since), 0};
    }
    bool IsInThePast() const { return m_handover.has_value(); }
    wire::HistoryRequest& Request() { return m_request; }
    fuzz::RemoteStream& Stream() { return m_stream; }

    void Live(const Bytes& bytes) {
        const wire::Message message = wire::decode(bytes.data(), bytes.size());
        if (!m_handover) return m_stream.Receive(bytes.data(), bytes.size());
        m_handover->keep(message, bytes.data(), bytes.size());
        fuzz::Require(m_handover->bytes() <= kRoom || m_handover->bytes() == bytes.size(), "too many messages wait");
    }
    void LiveLater(const Bytes& bytes) {
        if (m_handover) m_onTheWay.push_back(bytes);
    }
    /// A message in the inbox of the receiver.
    void Take(const unsigned char* data, std::size_t size) {
        if (!m_handover || !m_answer.take(data, size)) return;
        const remote::HistoryAnswer answer = std::exchange(m_answer, remote::HistoryAnswer(kMostAnswer));
        if (answer.isWhole()) Follow(answer);
    }
    void GiveUp() {
        if (m_handover) GoLive(true);
    }

private:
    void Follow(const remote::HistoryAnswer& answer) {
        for (const Bytes& message : answer.messages()) m_stream.Receive(message.data(), message.size());
        m_request.cursor = answer.end().cursor;
        const auto position = m_stream.Receiver().position();
        if (position) {
            m_request.epoch = position->epoch;
            m_request.next = position->next;
        }
        if (m_handover->judge(position, answer.end()) == remote::Handover::Next::kLive) GoLive(false);
    }
    void GoLive(bool isGivenUp) {
        for (;;) {
            if (isGivenUp) m_handover->giveUp();
            if (!m_onTheWay.empty()) {
                Live(m_onTheWay.front());
                m_onTheWay.pop_front();
            }
            Bytes message;
            const remote::Handover::Taken taken = m_handover->take(message);
            if (taken == remote::Handover::Taken::kGap) return;
            if (taken == remote::Handover::Taken::kNone) return m_handover.reset();
            m_stream.Receive(message.data(), message.size());
        }
    }

    fuzz::RemoteStream m_stream;
    std::optional<remote::Handover> m_handover;
    remote::HistoryAnswer m_answer;
    wire::HistoryRequest m_request;
    std::deque<Bytes> m_onTheWay;
};

class Campaign {
public:
    void Run(fuzz::Input input) {
        m_late.Reset();
        while (!input.IsEmpty()) Step(input);
        m_late.GiveUp();
        m_late.Stream().TakeAll();
    }

private:
    void Step(fuzz::Input& input) {
        switch (input.Byte() % 12) {
            case 0: return RawRequest(input);
            case 1: return Request(input);
            case 2: return Pull(input);
            case 3: return RawAnswer(input);
            case 4: return Answer(Message(input, wire::kHistory));
            case 5: return Answer(End(input));
            case 6: return m_late.Live(Message(input, 0));
            case 7: return m_late.LiveLater(Message(input, 0));
            case 8: return m_late.Stream().Take(input.Byte());
            case 9: return m_late.Open(input.Word());
            case 10: return m_late.Stream().Pass(input.Byte() * std::uint64_t{100'000'000});
            default: return m_late.GiveUp();
        }
    }

    void RawRequest(fuzz::Input& input) {
        const char* const inbox = kInboxes[input.Byte() % std::size(kInboxes)];
        std::size_t size = input.Word();
        const std::uint8_t* const bytes = input.Bytes(size);
        m_archive.Ask(fuzz::ExactCopy(bytes, size).get(), size, inbox);
    }

    void Request(fuzz::Input& input) {
        wire::HistoryRequest request;
        request.cursor = Cursor(input);
        request.epoch = input.Byte();
        request.next = input.Word();
        request.timeNs = TimeOf(input.Word());
        request.mostBytes = input.Word();
        const Bytes bytes = wire::encodeHistoryRequest(request);
        m_archive.Ask(bytes.data(), bytes.size(), kInbox);
    }

    void Pull(fuzz::Input& input) {
        enum Fate : std::uint8_t { kWhole, kLost, kChanged, kTwice, kFates };
        const auto fate = static_cast<Fate>(input.Byte() % kFates);
        const std::size_t which = input.Byte();
        const std::size_t place = input.Word();
        const std::uint8_t value = input.Byte();
        if (!m_late.IsInThePast()) return;
        wire::HistoryRequest request = m_late.Request();
        request.mostBytes = value * 16U;
        const Bytes bytes = wire::encodeHistoryRequest(request);
        ArchiveModel::Messages answer = m_archive.Ask(bytes.data(), bytes.size(), kInbox);
        for (std::size_t n = 0; n < answer.size(); ++n) {
            const bool isIt = n == which % answer.size();
            if (isIt && fate == kLost) continue;
            if (isIt && fate == kChanged) {
                answer[n][place % answer[n].size()] ^= value;
                m_late.Stream().Unmark();
            }
            Answer(answer[n]);
            if (isIt && fate == kTwice) Answer(answer[n]);
        }
    }

    void RawAnswer(fuzz::Input& input) {
        std::size_t size = input.Word();
        const std::uint8_t* const bytes = input.Bytes(size);
        const auto copy = fuzz::ExactCopy(bytes, size);
        if (wire::decode(copy.get(), size).problem == wire::Problem::kNone) m_late.Stream().Unmark();
        m_late.Take(copy.get(), size);
    }

    void Answer(const Bytes& bytes) { m_late.Take(fuzz::ExactCopy(bytes.data(), bytes.size()).get(), bytes.size()); }

    static Bytes Message(fuzz::Input& input, std::uint32_t flags) {
        wire::Head head;
        head.epoch = input.Byte() % fuzz::RemoteStream::kRuns;
        head.first = input.Word();
        head.flags = flags;
        const std::uint32_t packets = input.Byte() % (kMostPackets + 1);
        return ArchiveModel::MessageOf(head, packets, ArchiveModel::kBegin);
    }

    static Bytes End(fuzz::Input& input) {
        wire::HistoryEnd end;
        end.head.epoch = input.Byte() % fuzz::RemoteStream::kRuns;
        end.head.first = input.Word();
        end.cursor = Cursor(input);
        end.messages = input.Byte();
        end.isAll = input.Byte() % 2 != 0;
        return wire::encodeHistoryEnd(end);
    }

    ArchiveModel m_archive;
    LateStream m_late;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Campaign campaign;
    campaign.Run({data, size});
    return 0;
}
