#include "tools/relay/ArchiveBlock.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "capture/Format.h"

namespace relay {
namespace {

namespace format = capture::format;

constexpr char kMagic[] = {'V', 'X', 'A', 'B'};
constexpr std::uint16_t kLayout = 1;
constexpr std::uint32_t kStream = 0;  // a file has one interface

std::uint64_t timeOf(const format::PacketHead& head) { return std::uint64_t{head.timeHigh} << 32 | head.timeLow; }

}  // namespace

struct ArchiveBlock::HeadBytes {
    std::uint32_t type;
    std::uint32_t length;  // of this block of pcapng; it stands behind the runs again
    char magic[4];
    std::uint16_t layout;
    std::uint16_t reserved;
    std::uint64_t epoch;
    std::uint64_t first;
    std::uint64_t end;
    std::uint64_t packets;
    std::uint64_t firstNs;
    std::uint64_t lastNs;
    std::uint64_t lostByRing;
    std::uint64_t fifoErrors;
    std::uint64_t lostByRelay;
    std::uint64_t delivered;
    std::uint64_t streamErrors;
    std::uint64_t lostByArchive;
    std::uint32_t mtu;
    std::uint32_t flags;
    std::uint64_t runs;
    std::uint64_t reservedToo[5];
};

void ArchiveBlock::add(const wire::Message& message) {
    static_assert(sizeof(HeadBytes) == kFactsBytes);
    const wire::Head& head = message.head;
    const std::uint64_t end = head.first + head.packets;
    if (m_facts.epoch == 0) {
        m_facts.epoch = head.epoch;
        m_facts.first = m_facts.end = head.first;
        m_facts.firstNs = m_facts.lastNs = head.timeNs;
    }
    if (isEmpty() && head.packets > 0) {
        m_facts.first = head.first;
        m_facts.firstNs = head.timeNs;
    }
    if (isEmpty()) m_facts.lastNs = head.timeNs;
    m_facts.counts = head.counts;
    m_facts.mtu = head.mtu;
    m_facts.flags = head.flags & wire::kSimulated;
    if (isEmpty() && head.packets == 0) m_facts.first = m_facts.end = end;
    if (head.packets == 0) return;
    const bool continues = !m_runs.empty() && m_facts.end == head.first;
    if (!continues) m_runs.push_back({head.first, 0, 0});
    m_runs.back().packets += head.packets;
    m_facts.end = end;
    m_facts.packets += head.packets;
    wire::forEachPacket(message, [&](const wire::PacketIn& packet) {
        capture::appendPacket(m_packets, kStream, packet.timeNs, packet.data, packet.size);
        m_facts.lastNs = packet.timeNs;
    });
}

capture::BlockBuffer ArchiveBlock::encode() const {
    const BlockFacts& facts = m_facts;
    const wire::Counts& counts = facts.counts;
    HeadBytes head{};
    const std::size_t runBytes = m_runs.size() * sizeof(Run);
    head.type = format::kArchiveBlock;
    head.length = static_cast<std::uint32_t>(sizeof head + runBytes + sizeof head.length);
    std::memcpy(head.magic, kMagic, sizeof kMagic);
    head.layout = kLayout;
    head.epoch = facts.epoch;
    head.first = facts.first;
    head.end = facts.end;
    head.packets = facts.packets;
    head.firstNs = facts.firstNs;
    head.lastNs = facts.lastNs;
    head.lostByRing = counts.lostByRing;
    head.fifoErrors = counts.fifoErrors;
    head.lostByRelay = counts.lostByRelay;
    head.delivered = counts.delivered;
    head.streamErrors = counts.streamErrors;
    head.lostByArchive = facts.lostByArchive;
    head.mtu = facts.mtu;
    head.flags = facts.flags;
    head.runs = m_runs.size();

    capture::BlockBuffer bytes(head.length + m_packets.size());
    unsigned char* at = bytes.data();
    const auto append = [&at](const void* data, std::size_t size) {
        if (size > 0) std::memcpy(at, data, size);
        at += size;
    };
    append(&head, sizeof head);
    append(m_runs.data(), runBytes);
    append(&head.length, sizeof head.length);
    append(m_packets.data(), m_packets.size());
    return bytes;
}

std::optional<BlockFacts> ArchiveBlock::decodeFacts(const unsigned char* bytes, std::size_t size) {
    HeadBytes head;
    if (size < sizeof head) return std::nullopt;
    std::memcpy(&head, bytes, sizeof head);
    if (head.type != format::kArchiveBlock || std::memcmp(head.magic, kMagic, sizeof kMagic) != 0 ||
        head.layout != kLayout || head.runs > kMostRuns + 1 ||
        head.length != sizeof head + head.runs * sizeof(Run) + sizeof head.length)
        return std::nullopt;
    const bool isCounted = head.epoch != 0 && head.first <= head.end && head.packets <= head.end - head.first &&
                           (head.packets == 0) == (head.runs == 0) && head.mtu <= wire::kMaxPacketBytes;
    if (!isCounted) return std::nullopt;
    BlockFacts facts;
    facts.epoch = head.epoch;
    facts.first = head.first;
    facts.end = head.end;
    facts.packets = head.packets;
    facts.firstNs = head.firstNs;
    facts.lastNs = head.lastNs;
    facts.counts = {head.lostByRing, head.fifoErrors, head.lostByRelay, head.delivered, head.streamErrors};
    facts.lostByArchive = head.lostByArchive;
    facts.mtu = head.mtu;
    facts.flags = head.flags & wire::kSimulated;
    return facts;
}

std::optional<ArchiveBlock> ArchiveBlock::decode(capture::BlockBuffer bytes) {
    const auto facts = decodeFacts(bytes.data(), bytes.size());
    if (!facts) return std::nullopt;
    HeadBytes head;
    std::memcpy(&head, bytes.data(), sizeof head);
    if (head.length > bytes.size()) return std::nullopt;
    ArchiveBlock block;
    block.m_facts = *facts;
    block.m_runs.resize(head.runs);
    if (head.runs > 0) std::memcpy(block.m_runs.data(), bytes.data() + sizeof head, head.runs * sizeof(Run));
    bytes.erase(bytes.begin(), bytes.begin() + head.length);
    block.m_packets = std::move(bytes);
    if (!block.arePacketsWhole()) return std::nullopt;
    return block;
}

bool ArchiveBlock::isPacketAt(std::size_t offset) const {
    format::PacketHead head;
    if (m_packets.size() - offset < sizeof head) return false;
    std::memcpy(&head, m_packets.data() + offset, sizeof head);
    return head.type == format::kEnhancedPacket && head.interface == kStream &&
           head.capturedLength <= wire::kMaxPacketBytes &&
           head.length == capture::packetBlockBytes(head.capturedLength) && m_packets.size() - offset >= head.length;
}

// Whether the runs are in order, and their packets fill the bytes exactly.
bool ArchiveBlock::arePacketsWhole() const {
    std::size_t at = 0;
    std::uint64_t next = m_facts.first;
    std::uint64_t packets = 0;
    for (const Run& run : m_runs) {
        if (run.packets == 0 || run.first < next || run.first > m_facts.end || run.packets > m_facts.end - run.first)
            return false;
        next = run.first + run.packets;
        packets += run.packets;
        for (std::uint32_t n = 0; n < run.packets; ++n) {
            if (!isPacketAt(at)) return false;
            at += capture::packetBlockBytes(packetAt(at).size);
        }
    }
    return packets == m_facts.packets && at == m_packets.size();
}

ArchiveBlock::Packet ArchiveBlock::packetAt(std::size_t offset) const {
    format::PacketHead head;
    std::memcpy(&head, m_packets.data() + offset, sizeof head);
    return {0, timeOf(head), m_packets.data() + offset + sizeof head, head.capturedLength};
}

}  // namespace relay
