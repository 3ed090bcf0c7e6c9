#include "tools/relay/Batcher.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace relay {
namespace {

// Zero when the time is over, also when the clock was set back behind its begin.
std::uint64_t leftOf(std::uint64_t durationNs, std::uint64_t sinceNs, std::uint64_t nowNs) {
    if (nowNs < sinceNs || nowNs - sinceNs >= durationNs) return 0;
    return durationNs - (nowNs - sinceNs);
}

}  // namespace

Batcher::Batcher(Network& network, std::string subject, StreamFacts stream, BatchLimits limits)
    : m_network(network),
      m_subject(std::move(subject)),
      m_stream(stream),
      m_limits(limits),
      m_message(limits.bytes),
      m_contractMessage(limits.bytes) {}

void Batcher::add(std::uint64_t number, std::uint64_t timeNs, const void* data, std::uint32_t size,
                  std::uint64_t nowNs) {
    skipTo(number, nowNs);
    if (size > wire::kMaxPacketBytes) return skipTo(number + 1, nowNs);
    if (!m_message.hasRoomFor(size)) flush(nowNs);
    if (m_contracts != nullptr) {
        const std::uint32_t contract = m_contracts->find(static_cast<const unsigned char*>(data), size);
        if (contract != Contracts::kNone) m_contractPackets.push_back({contract, m_message.packets()});
    }
    m_message.add(timeNs, data, size);
    m_next = number + 1;
    if (m_limits.timeNs == 0) flush(nowNs);
}

// The packets of a message have consecutive numbers, so a gap ends one. Its head does not count the gap yet.
void Batcher::skipTo(std::uint64_t number, std::uint64_t nowNs) {
    if (number <= m_next) return;
    flush(nowNs);
    lose(number - m_next);
    m_next = number;
}

void Batcher::setStreamCounts(std::uint64_t lostByRing, std::uint64_t fifoErrors, std::uint64_t streamErrors) {
    m_counts.lostByRing = lostByRing;
    m_counts.fifoErrors = fifoErrors;
    m_counts.streamErrors = streamErrors;
}

void Batcher::tick(std::uint64_t nowNs) {
    if (dueIn(nowNs) > 0) return;
    m_message.isEmpty() ? sendHeartbeat(nowNs) : flush(nowNs);
}

std::uint64_t Batcher::dueIn(std::uint64_t nowNs) const {
    return m_message.isEmpty() ? leftOf(kHeartbeatNs, m_lastSentNs, nowNs)
                               : leftOf(m_limits.timeNs, m_message.firstTimeNs(), nowNs);
}

wire::Head Batcher::head(std::uint64_t nowNs) const {
    wire::Head head;
    head.epoch = m_stream.epoch;
    head.first = m_next - m_message.packets();
    head.timeNs = nowNs;
    head.sentNs = nowNs;
    head.counts = m_counts;
    head.counts.delivered = std::max(m_counts.delivered, m_next);  // packets may have come since it was set
    head.mtu = m_stream.mtu;
    head.flags = m_stream.flags;
    return head;
}

void Batcher::flush(std::uint64_t nowNs) {
    if (m_message.isEmpty()) return;
    const wire::Head head = this->head(nowNs);
    const wire::Bytes message = m_message.finish(head);
    if (publish(m_subject, message)) {
        m_sent.packets += m_message.packets();
    } else {
        lose(m_message.packets());
    }
    if (!m_contractPackets.empty()) publishContracts(head, message);
    m_message.clear();
    m_lastSentNs = nowNs;
}

void Batcher::sendHeartbeat(std::uint64_t nowNs) {
    flush(nowNs);
    wire::Head head = this->head(nowNs);
    head.flags |= wire::kHeartbeat;
    publish(m_subject, m_message.finish(head));
    m_lastSentNs = nowNs;
}

bool Batcher::publish(const std::string& subject, wire::Bytes message) {
    if (!m_network.publish(subject, message.data, message.size)) return false;
    ++m_sent.messages;
    m_sent.bytes += message.size;
    return true;
}

// One message for each contract of the stream's message. It is in order, because the sort is stable.
void Batcher::publishContracts(const wire::Head& streamHead, wire::Bytes message) {
    m_contracts->locate(message, m_contractPackets);
    std::stable_sort(m_contractPackets.begin(), m_contractPackets.end(),
                     [](const ContractPacket& a, const ContractPacket& b) { return a.contract < b.contract; });
    wire::Head head = streamHead;
    head.flags |= wire::kSelection;
    const auto send = [&](std::uint32_t contract) {
        head.first = m_contracts->take(contract, m_contractMessage.packets());
        publish(m_contracts->subject(contract), m_contractMessage.finish(head));
        m_contractMessage.clear();
    };
    for (std::size_t n = 0; n < m_contractPackets.size(); ++n) {
        const ContractPacket& packet = m_contractPackets[n];
        m_contractMessage.add(packet.timeNs, packet.bytes.data, static_cast<std::uint32_t>(packet.bytes.size));
        const bool isLast = n + 1 == m_contractPackets.size() || m_contractPackets[n + 1].contract != packet.contract;
        if (isLast) send(packet.contract);
    }
    m_contractPackets.clear();
}

}  // namespace relay
