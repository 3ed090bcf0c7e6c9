#include "tools/relay/Sender.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

namespace relay {
namespace {

constexpr std::uint64_t kAskEveryNs = 10'000'000;
constexpr std::size_t kAtATime = 1024;  // packets, before the look at what is due
// While nothing is due, packets lie in the queue for half the time of a message before this thread sees them.
constexpr std::uint64_t kLongestRestNs = 1'000'000;
constexpr std::uint64_t kShortestRestNs = 10'000;  // below, the system's own wake-up takes longer

}  // namespace

Sender::Sender(PacketQueue& queue, Batcher& batcher, Ask ask)
    : m_queue(queue), m_batcher(batcher), m_ask(std::move(ask)) {
    // The clock needs two readings, a millisecond apart.
    m_clock.sample();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    m_clock.sample();
}

bool Sender::step() {
    m_clock.sample();
    askCard(false);
    const bool any = drain();
    m_batcher.tick(nowNs());
    return any;
}

bool Sender::drain() {
    const std::uint64_t limit = m_queue.published();
    m_batcher.setDelivered(m_queue.delivered());
    QueuedPacket packet;
    std::size_t taken = 0;
    for (; taken < kAtATime && m_queue.front(limit, packet); ++taken) {
        m_batcher.add(packet.number, m_clock.at(packet.ticks), packet.data, packet.size, nowNs());
        m_queue.pop();
    }
    m_batcher.skipTo(m_queue.settled(), nowNs());
    return taken > 0;
}

void Sender::askCard(bool isDue) {
    const std::uint64_t now = nowNs();
    if (!isDue && now - m_askedNs < kAskEveryNs) return;
    m_askedNs = now;
    const std::optional<StreamCounts> counts = m_ask();
    m_isCardSilent = !counts;
    if (counts) m_batcher.setStreamCounts(counts->backPressure, counts->fifoErrors, counts->errors);
}

void Sender::rest() {
    const std::uint64_t longest = std::clamp(m_batcher.limits().timeNs / 2, kShortestRestNs, kLongestRestNs);
    const std::uint64_t due = std::min(m_batcher.dueIn(nowNs()), longest);
    if (m_batcher.limits().timeNs == 0 || due < kShortestRestNs) {
        std::this_thread::yield();
    } else {
        std::this_thread::sleep_for(std::chrono::nanoseconds(due));
    }
}

void Sender::finish(const std::function<bool()>& isOver) {
    while (!isOver() && drain()) {
    }
    m_batcher.skipTo(m_queue.delivered(), nowNs());  // what is left is lost
    m_batcher.flush(nowNs());
    askCard(true);
    m_batcher.sendHeartbeat(nowNs());
}

}  // namespace relay
