#include "tests/fuzz/ArchiveModel.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "tests/fuzz/Fuzz.h"
#include "tests/fuzz/RemoteStream.h"

namespace fuzz {

namespace {

constexpr std::uint64_t kSecond = 1'000'000'000;
constexpr std::size_t kMessageBytes = 1024;
constexpr std::size_t kLargestBlock = 8192;  // of this archive, as messages
constexpr char kOther[] = "_INBOX.other0000001.1";

bool IsInbox(const char* reply) {
    return reply != nullptr && std::string(reply).rfind("_INBOX.", 0) == 0 && std::strpbrk(reply, "*> ") == nullptr;
}

bool IsRequest(const unsigned char* data, std::size_t size) {
    constexpr unsigned char kHead[] = {'V', 'X', 'R', 'M', 1, 0, 48, 0};
    return size == 48 && std::memcmp(data, kHead, sizeof kHead) == 0 &&
           std::all_of(data + 44, data + 48, [](unsigned char byte) { return byte == 0; });
}

std::uint32_t SizeOf(std::uint64_t number) { return RemoteStream::kMark + static_cast<std::uint32_t>(number % 24); }

}  // namespace

ArchiveModel::ArchiveModel() {
    Start(1);
    Add(0, 20);
    Seal();
    Add(20, 20);
    Seal();
    Add(40, 20);
    Add(65, 15);
    Seal();
    wire::Counts counts;
    counts.lostByRing = 3;
    counts.delivered = 84;
    Add(82, 0, counts);
    Seal();
    m_store->close(m_nowNs);
    Start(kRun);
    Add(0, 25);
    Seal();
    Add(25, 25);
    Seal();
    Add(50, 20);
}

void ArchiveModel::Start(std::uint64_t run) {
    m_store.reset();
    m_run = run;
    relay::ArchiveSettings settings;
    settings.directory = m_dir.Path();
    settings.keepFreeBytes = 0;
    wire::Head stream;
    stream.epoch = run;
    m_store = std::make_unique<relay::ArchiveStore>(settings, vexo_sim::remote::Place{"local", 0, 3}, stream,
                                                    [](const std::string& line) {
                                                        if (line.rfind("writing ", 0) == 0) return;
                                                        std::fprintf(stderr, "%s\n", line.c_str());
                                                        Require(false, "the archive complains");
                                                    });
}

std::vector<unsigned char> ArchiveModel::MessageOf(wire::Head head, std::uint32_t packets, std::uint64_t timeNs) {
    wire::MessageWriter writer(wire::kHeadBytes + packets * wire::footprint(RemoteStream::kMark + 24));
    for (std::uint32_t n = 0; n < packets; ++n) {
        const auto packet = RemoteStream::Packet(head.epoch, head.first + n, SizeOf(head.first + n));
        writer.add(timeNs + n * kEveryNs, packet.data(), static_cast<std::uint32_t>(packet.size()));
    }
    head.timeNs = timeNs;
    const wire::Bytes message = writer.finish(head);
    return {message.data, message.data + message.size};
}

void ArchiveModel::Add(std::uint64_t first, std::uint32_t packets, const wire::Counts& counts) {
    wire::Head head;
    head.epoch = m_run;
    head.first = first;
    head.counts = counts;
    const std::uint64_t timeNs = m_nowNs + first * kEveryNs;
    const auto message = MessageOf(head, packets, timeNs);
    m_store->add(wire::decode(message.data(), message.size()), 0, m_nowNs);
    for (std::uint64_t n = first; n < first + packets; ++n)
        m_packets.push_back({m_run, n, timeNs + (n - first) * kEveryNs});
}

void ArchiveModel::Seal() {
    m_nowNs += kSecond;
    m_store->tick(m_nowNs);
}

bool ArchiveModel::publish(const std::string& subject, const void* data, std::size_t size) {
    const auto* const bytes = static_cast<const unsigned char*>(data);
    m_subjects.push_back(subject);
    m_sent.emplace_back(bytes, bytes + size);
    return true;
}

// The request of another receiver shows whether the first one was taken.
ArchiveModel::Messages ArchiveModel::Ask(const unsigned char* data, std::size_t size, const char* reply) {
    m_subjects.clear();
    m_sent.clear();
    relay::ArchiveHistory history(*m_store, *this, kMessageBytes);
    history.ask(data, size, reply);
    const std::vector<unsigned char> other = wire::encodeHistoryRequest({0, 0, 0, ~std::uint64_t{0}, 0});
    history.ask(other.data(), other.size(), kOther);
    history.answer();
    const bool isRequest = IsInbox(reply) && IsRequest(data, size);
    const std::string expected = isRequest ? reply : kOther;
    Require(!m_subjects.empty(), "an answer has no end");
    for (const std::string& subject : m_subjects) Require(subject == expected, "an answer goes to somebody else");
    if (!isRequest) return {};
    wire::HistoryRequest request;
    Require(wire::decodeHistoryRequest(data, size, request), "a request is none");
    Check(request);
    return std::move(m_sent);
}

std::size_t ArchiveModel::IndexOf(std::uint64_t run, std::uint64_t number) const {
    const auto found = std::find_if(m_packets.begin(), m_packets.end(),
                                    [=](const Packet& packet) { return packet.run == run && packet.number == number; });
    Require(found != m_packets.end(), "an answer has a packet that nobody has stored");
    return static_cast<std::size_t>(found - m_packets.begin());
}

void ArchiveModel::Find(std::size_t& begin, std::size_t& end) const {
    begin = end = m_packets.size();
    bool isFirst = true;
    for (std::size_t n = 0; n + 1 < m_sent.size(); ++n) {
        const wire::Message message = wire::decode(m_sent[n].data(), m_sent[n].size());
        Require(message.problem == wire::Problem::kNone, "a message of an answer is damaged");
        Require((message.head.flags & wire::kHistory) != 0, "a message of an answer passes for a live one");
        wire::forEachPacket(message, [&](const wire::PacketIn& packet) {
            if (std::exchange(isFirst, false)) begin = end = IndexOf(message.head.epoch, packet.number);
            Require(end < m_packets.size(), "an answer has packets that nobody has stored");
            const Packet& stored = m_packets[end];
            Require(stored.run == message.head.epoch && stored.number == packet.number,
                    "an answer leaves a packet out, or repeats one");
            const auto expected = RemoteStream::Packet(message.head.epoch, packet.number, SizeOf(packet.number));
            Require(expected == Bytes(packet.data, packet.data + packet.size), "an answer changes a packet");
            Require(packet.timeNs == stored.timeNs, "an answer changes the time of a packet");
            ++end;
        });
    }
}

// An answer without packets may end behind counts; the next one goes on.
void ArchiveModel::CheckBegin(const wire::HistoryRequest& request, std::size_t begin, bool isAll) const {
    if (begin == m_packets.size() && !isAll) return;
    if (request.cursor == 0) {
        const auto wanted = std::find_if(m_packets.begin(), m_packets.end(),
                                         [&](const Packet& packet) { return packet.timeNs >= request.timeNs; });
        Require(begin == static_cast<std::size_t>(wanted - m_packets.begin()),
                "an answer does not begin with its moment");
        return;
    }
    const bool hasPackets = wire::decode(m_sent[0].data(), m_sent[0].size()).head.packets > 0;
    if (begin == m_packets.size() || !hasPackets) return;
    const Packet& first = m_packets[begin];
    Require(first.run != request.epoch || first.number >= request.next, "an answer goes back");
}

void ArchiveModel::Check(const wire::HistoryRequest& request) const {
    wire::HistoryEnd last;
    Require(wire::decodeHistoryEnd(m_sent.back().data(), m_sent.back().size(), last), "an answer has no end");
    Require(last.messages == m_sent.size() - 1, "an answer has another number of messages than it says");
    Require(last.head.epoch == kRun && last.head.first == kNext, "an answer does not know where the stream is");
    std::size_t bytes = 0;
    for (const auto& message : m_sent) bytes += message.size();
    Require(bytes <= std::min(request.mostBytes, relay::ArchiveHistory::kMostBytes) + kLargestBlock,
            "an answer is longer than was asked for");
    std::size_t begin = 0;
    std::size_t end = 0;
    Find(begin, end);
    CheckBegin(request, begin, last.isAll);
    const bool isAll = request.cursor != 0 || end == m_packets.size();
    Require(!last.isAll || isAll, "an answer hides packets");
}

}  // namespace fuzz
