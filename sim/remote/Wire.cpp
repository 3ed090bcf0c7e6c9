#include "sim/remote/Wire.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace vexo_sim::wire {
namespace {

constexpr std::size_t kMaxNameBytes = 64;

struct HelloRequest {
    char magic[4];
    std::uint16_t version;
    std::uint16_t reserved;
};
static_assert(sizeof(HelloRequest) == 8);

HeadBytes toBytes(const Head& head, std::uint32_t packetBytes) {
    HeadBytes bytes{};
    std::memcpy(bytes.magic, kMagic, sizeof kMagic);
    bytes.version = kVersion;
    bytes.headBytes = kHeadBytes;
    bytes.epoch = head.epoch;
    bytes.first = head.first;
    bytes.timeNs = head.timeNs;
    bytes.packets = head.packets;
    bytes.packetBytes = packetBytes;
    bytes.sentNs = head.sentNs;
    bytes.lostByRing = head.counts.lostByRing;
    bytes.fifoErrors = head.counts.fifoErrors;
    bytes.lostByRelay = head.counts.lostByRelay;
    bytes.delivered = head.counts.delivered;
    bytes.mtu = head.mtu;
    bytes.flags = head.flags;
    bytes.streamErrors = head.counts.streamErrors;
    return bytes;
}

Head fromBytes(const HeadBytes& bytes) {
    Head head;
    head.epoch = bytes.epoch;
    head.first = bytes.first;
    head.timeNs = bytes.timeNs;
    head.packets = bytes.packets;
    head.sentNs = bytes.sentNs;
    head.counts = {bytes.lostByRing, bytes.fifoErrors, bytes.lostByRelay, bytes.delivered, bytes.streamErrors};
    head.mtu = bytes.mtu;
    head.flags = bytes.flags;
    return head;
}

// Whether the packets fill the bytes exactly.
bool arePacketsWhole(Bytes bytes, std::uint32_t packets) {
    for (std::uint32_t n = 0; n < packets; ++n) {
        PacketPrefix prefix;
        if (bytes.size < sizeof prefix) return false;
        std::memcpy(&prefix, bytes.data, sizeof prefix);
        if (prefix.size > kMaxPacketBytes || bytes.size - sizeof prefix < prefix.size) return false;
        bytes.data += footprint(prefix.size);
        bytes.size -= footprint(prefix.size);
    }
    return bytes.size == 0;
}

// Head and version of a message, the bytes behind the head in `packets`, without a look at them.
Message decodeHead(const void* data, std::size_t size, HeadBytes& head) {
    Message message;
    if (size < offsetof(HeadBytes, epoch)) return message;
    std::memcpy(&head, data, std::min(size, sizeof head));
    if (std::memcmp(head.magic, kMagic, sizeof kMagic) != 0) return message;
    message.version = head.version;
    if (head.version != kVersion) {
        message.problem = Problem::kOtherVersion;
    } else if (size < kHeadBytes || head.headBytes != kHeadBytes) {
        message.problem = Problem::kDamaged;
    } else {
        message.problem = Problem::kNone;
        message.head = fromBytes(head);
        message.packets = {static_cast<const unsigned char*>(data) + kHeadBytes, size - kHeadBytes};
    }
    return message;
}

void append(std::vector<unsigned char>& bytes, const std::string& name) {
    const auto size = static_cast<std::uint16_t>(std::min(name.size(), kMaxNameBytes));
    const std::size_t at = bytes.size();
    bytes.resize(at + sizeof size + size);
    std::memcpy(bytes.data() + at, &size, sizeof size);
    std::memcpy(bytes.data() + at + sizeof size, name.data(), size);
}

bool isOrdinary(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
}

bool takeName(Bytes& bytes, std::string& name) {
    std::uint16_t size;
    if (bytes.size < sizeof size) return false;
    std::memcpy(&size, bytes.data, sizeof size);
    if (size > kMaxNameBytes || bytes.size - sizeof size < size) return false;
    const auto* text = reinterpret_cast<const char*>(bytes.data + sizeof size);
    name.assign(text, size);
    std::replace_if(
        name.begin(), name.end(), [](char c) { return !isOrdinary(c); }, '?');
    bytes.data += sizeof size + size;
    bytes.size -= sizeof size + size;
    return true;
}

}  // namespace

MessageWriter::MessageWriter(std::size_t limit)
    : m_limit(limit), m_bytes(std::max(limit, kHeadBytes + footprint(kMaxPacketBytes))) {}

void MessageWriter::add(std::uint64_t timeNs, const void* data, std::uint32_t size) {
    if (m_packets == 0) m_firstTimeNs = timeNs;
    constexpr std::uint64_t kLatest = std::numeric_limits<std::uint32_t>::max();
    const std::uint64_t after = timeNs > m_firstTimeNs ? timeNs - m_firstTimeNs : 0;  // the clock may step back
    const PacketPrefix prefix{size, static_cast<std::uint32_t>(std::min(after, kLatest))};
    std::memcpy(m_bytes.data() + m_used, &prefix, sizeof prefix);
    if (size > 0) std::memcpy(m_bytes.data() + m_used + sizeof prefix, data, size);
    m_used += footprint(size);
    ++m_packets;
}

Bytes MessageWriter::finish(const Head& head) {
    Head whole = head;
    whole.packets = m_packets;
    if (m_packets > 0) whole.timeNs = m_firstTimeNs;
    const HeadBytes bytes = toBytes(whole, static_cast<std::uint32_t>(m_used - kHeadBytes));
    std::memcpy(m_bytes.data(), &bytes, sizeof bytes);
    return {m_bytes.data(), m_used};
}

void MessageWriter::clear() {
    m_used = kHeadBytes;
    m_packets = 0;
}

Message decode(const void* data, std::size_t size) {
    HeadBytes head{};
    Message message = decodeHead(data, size, head);
    if (message.problem != Problem::kNone) return message;
    const bool isWhole = head.packetBytes == message.packets.size && head.mtu <= kMaxPacketBytes &&
                         arePacketsWhole(message.packets, head.packets);
    // Beyond this, a number could not be counted on.
    const bool isNumbered = head.first <= std::numeric_limits<std::uint64_t>::max() - head.packets;
    if (!isWhole || !isNumbered) message.problem = Problem::kDamaged;
    return message;
}

std::string toText(const Message& message) {
    switch (message.problem) {
        case Problem::kNone: return "a relay's message";
        case Problem::kNotOurs: return "not a relay's message";
        case Problem::kOtherVersion:
            return "version " + std::to_string(message.version) + " of the relay's format, this program has version " +
                   std::to_string(kVersion);
        case Problem::kDamaged: return "a damaged message";
    }
    return {};
}

std::vector<unsigned char> encodeHelloRequest() {
    HelloRequest request{{}, kVersion, 0};
    std::memcpy(request.magic, kMagic, sizeof kMagic);
    std::vector<unsigned char> bytes(sizeof request);
    std::memcpy(bytes.data(), &request, sizeof request);
    return bytes;
}

std::uint16_t versionOfHelloRequest(const void* data, std::size_t size) {
    HelloRequest request;
    if (size < sizeof request) return 0;
    std::memcpy(&request, data, sizeof request);
    return std::memcmp(request.magic, kMagic, sizeof kMagic) == 0 ? request.version : std::uint16_t{0};
}

std::vector<unsigned char> encodeHello(const Head& head, const std::string& user, const std::string& host) {
    std::vector<unsigned char> bytes(kHeadBytes);
    append(bytes, user);
    append(bytes, host);
    Head whole = head;
    whole.packets = 0;
    const HeadBytes headBytes = toBytes(whole, static_cast<std::uint32_t>(bytes.size() - kHeadBytes));
    std::memcpy(bytes.data(), &headBytes, sizeof headBytes);
    return bytes;
}

Hello decodeHello(const void* data, std::size_t size) {
    Hello hello;
    HeadBytes head{};
    hello.message = decodeHead(data, size, head);
    Message& message = hello.message;
    if (message.problem != Problem::kNone) return hello;
    Bytes names = message.packets;
    message.packets = {};
    const bool isWhole = head.packets == 0 && head.packetBytes == names.size && head.mtu <= kMaxPacketBytes;
    if (!isWhole || !takeName(names, hello.user) || !takeName(names, hello.host) || names.size != 0)
        message.problem = Problem::kDamaged;
    return hello;
}

std::vector<unsigned char> encodeHistoryRequest(const HistoryRequest& request) {
    HistoryRequestBytes whole{{},
                              kVersion,
                              sizeof(HistoryRequestBytes),
                              request.cursor,
                              request.epoch,
                              request.next,
                              request.timeNs,
                              request.mostBytes,
                              0};
    std::memcpy(whole.magic, kMagic, sizeof kMagic);
    std::vector<unsigned char> bytes(sizeof whole);
    std::memcpy(bytes.data(), &whole, sizeof whole);
    return bytes;
}

bool decodeHistoryRequest(const void* data, std::size_t size, HistoryRequest& request) {
    HistoryRequestBytes whole;
    if (size != sizeof whole) return false;
    std::memcpy(&whole, data, sizeof whole);
    const bool isOurs = std::memcmp(whole.magic, kMagic, sizeof kMagic) == 0 && whole.version == kVersion &&
                        whole.bytes == sizeof whole && whole.reserved == 0;
    request = {whole.cursor, whole.epoch, whole.next, whole.timeNs, whole.mostBytes};
    return isOurs;
}

std::vector<unsigned char> encodeHistoryEnd(const HistoryEnd& end) {
    Head head = end.head;
    head.packets = 0;
    head.flags |= kHistory | kHeartbeat;
    const HistoryEndBytes whole{toBytes(head, sizeof(HistoryEndBytes) - kHeadBytes), end.cursor, end.messages,
                                end.isAll ? 1U : 0U};
    std::vector<unsigned char> bytes(sizeof whole);
    std::memcpy(bytes.data(), &whole, sizeof whole);
    return bytes;
}

bool decodeHistoryEnd(const void* data, std::size_t size, HistoryEnd& end) {
    HistoryEndBytes whole;
    if (size != sizeof whole) return false;
    HeadBytes head{};
    const Message message = decodeHead(data, size, head);
    std::memcpy(&whole, data, sizeof whole);
    constexpr std::uint32_t kFlags = kHistory | kHeartbeat;
    if (message.problem != Problem::kNone || (head.flags & kFlags) != kFlags || head.packets != 0 ||
        head.packetBytes != sizeof whole - kHeadBytes || head.mtu > kMaxPacketBytes || whole.isAll > 1)
        return false;
    end = {message.head, whole.cursor, whole.messages, whole.isAll == 1};
    return true;
}

}  // namespace vexo_sim::wire
