#include "tools/relay/ArchiveHistory.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace relay {
namespace {

constexpr std::uint64_t kMostSpanNs = 4'000'000'000;  // a packet's time in its message has 32 bits
constexpr char kInbox[] = "_INBOX.";
constexpr std::size_t kMostReply = 128;
constexpr std::size_t kReceiverBytes = 12;  // of an inbox's name, behind kInbox: they are the same for one connection

// An answer goes to inboxes alone: a stranger must not make the archive send to the subject of a stream.
bool isInbox(const char* reply) {
    return reply != nullptr && std::strncmp(reply, kInbox, sizeof kInbox - 1) == 0 &&
           ::strnlen(reply, kMostReply) < kMostReply && std::strpbrk(reply, "*> ") == nullptr;
}

std::string receiverOf(const std::string& reply) { return reply.substr(0, sizeof kInbox - 1 + kReceiverBytes); }

bool isOld(const wire::HistoryRequest& request, const BlockFacts& facts, const ArchiveBlock::Packet& packet) {
    if (request.cursor == 0) return packet.timeNs < request.timeNs;
    return facts.epoch == request.epoch && packet.number < request.next;
}

wire::Head headOf(const BlockFacts& facts, const wire::HistoryEnd& end) {
    wire::Head head;
    head.epoch = facts.epoch;
    head.counts = facts.counts;
    head.mtu = facts.mtu;
    head.flags = facts.flags | wire::kHistory;
    head.first = facts.end;
    head.timeNs = facts.lastNs;
    head.sentNs = end.head.sentNs;
    return head;
}

}  // namespace

ArchiveHistory::ArchiveHistory(ArchiveStore& store, Network& network, std::size_t messageBytes)
    : m_store(store), m_network(network), m_message(messageBytes) {}

void ArchiveHistory::ask(const void* data, std::size_t size, const char* reply) {
    wire::HistoryRequest request;
    if (!isInbox(reply) || !wire::decodeHistoryRequest(data, size, request)) return;
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto isSame = [receiver = receiverOf(reply)](const Waiting& one) {
        return receiverOf(one.reply) == receiver;
    };
    const auto earlier = std::find_if(m_waiting.begin(), m_waiting.end(), isSame);
    if (earlier != m_waiting.end()) {
        *earlier = {reply, request};
    } else if (m_waiting.size() < kMostRequests) {
        m_waiting.push_back({reply, request});
    }
    m_changed.notify_one();
}

void ArchiveHistory::close() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isClosed = true;
    m_changed.notify_one();
}

bool ArchiveHistory::answer() {
    Waiting waiting;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_isClosed || !m_waiting.empty(); });
        if (m_isClosed) return false;
        waiting = std::move(m_waiting.front());
        m_waiting.pop_front();
    }
    answer(waiting);
    return true;
}

void ArchiveHistory::answer(const Waiting& waiting) {
    wire::HistoryRequest request = waiting.request;
    const std::uint32_t most = std::min(request.mostBytes, kMostBytes);
    wire::HistoryEnd end;
    m_bytes = 0;
    m_message.clear();
    for (std::size_t blocks = 0; blocks < kMostBlocks && m_bytes <= most; ++blocks) {
        // Before the look: what comes after it is above this number.
        end.head = m_store.live();
        const auto found = m_store.find(request);
        end.isAll = !found;
        if (!found) break;
        if (!sendBegin(waiting.reply, *found, request, end)) return;
        if (!send(waiting.reply, *found->block, request, end)) return;
        request.cursor = found->ordinal;
        request.epoch = found->block->facts().epoch;
        request.next = found->block->facts().end;
    }
    end.cursor = request.cursor;
    const std::vector<unsigned char> last = wire::encodeHistoryEnd(end);
    if (m_network.publish(waiting.reply, last.data(), last.size())) ++m_answers;
}

// In front of the first packets, the numbers and the counts that the epoch had reached: what is lost from there on, the
// receiver counts, and nothing that was lost before.
bool ArchiveHistory::sendBegin(const std::string& reply, const ArchiveStore::Found& found,
                               const wire::HistoryRequest& request, wire::HistoryEnd& end) {
    if (request.cursor != 0 || !found.before) return true;
    const BlockFacts& facts = found.block->facts();
    wire::Head head = headOf(facts, end);
    head.flags |= wire::kHeartbeat;
    head.timeNs = facts.firstNs;
    head.counts = found.before->counts;
    head.first = found.before->end;
    bool isPast = true;
    found.block->forEachPacket([&](const ArchiveBlock::Packet& packet) {
        isPast = isPast && isOld(request, facts, packet);
        if (isPast) head.first = packet.number + 1;
    });
    return flush(reply, head, end);
}

// What the request wants of a block: all from the first packet on that is not old. A clock that was set back may make
// later ones look old; the receiver would count them as lost.
bool ArchiveHistory::send(const std::string& reply, const ArchiveBlock& block, const wire::HistoryRequest& request,
                          wire::HistoryEnd& end) {
    const BlockFacts& facts = block.facts();
    wire::Head head = headOf(facts, end);
    if (block.isEmpty()) {
        head.flags |= wire::kHeartbeat;
        return flush(reply, head, end);
    }
    bool isSent = true;
    bool isPast = true;
    block.forEachPacket([&](const ArchiveBlock::Packet& packet) {
        isPast = isPast && isOld(request, facts, packet);
        if (!isSent || isPast) return;
        const std::uint64_t spanNs = packet.timeNs - m_message.firstTimeNs();  // huge when the clock was set back
        const bool fits = m_message.hasRoomFor(packet.size) && packet.number == head.first + m_message.packets() &&
                          spanNs < kMostSpanNs;
        if (!m_message.isEmpty() && !fits) isSent = flush(reply, head, end);
        if (m_message.isEmpty()) head.first = packet.number;
        m_message.add(packet.timeNs, packet.data, packet.size);
    });
    return isSent && (m_message.isEmpty() || flush(reply, head, end));
}

bool ArchiveHistory::flush(const std::string& reply, wire::Head head, wire::HistoryEnd& end) {
    const wire::Bytes message = m_message.finish(head);
    const bool isSent = m_network.publish(reply, message.data, message.size);
    m_message.clear();
    m_bytes += message.size;
    ++end.messages;
    return isSent;
}

}  // namespace relay
