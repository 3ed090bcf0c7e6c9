#include "sim/remote/Receiver.h"

#include <algorithm>
#include <utility>

namespace vexo_sim::remote {
namespace {

// A relay sends ten heartbeats in this time. When its run is silent for so long, an earlier one may go on.
constexpr std::uint64_t kSilentNs = 1'000'000'000;

// The counters of a card are 32 bits wide and go round.
void add(std::uint32_t& counter, std::uint64_t packets) { counter += static_cast<std::uint32_t>(packets); }

std::uint64_t growth(std::uint64_t before, std::uint64_t now) { return now > before ? now - before : 0; }

}  // namespace

void Receiver::restart() { *this = Receiver(m_channel); }

Receiver::Run* Receiver::find(std::uint64_t epoch) {
    const auto end = m_runs.begin() + static_cast<std::ptrdiff_t>(m_known);
    const auto found = std::find_if(m_runs.begin(), end, [=](const Run& run) { return run.epoch == epoch; });
    return found != end ? &*found : nullptr;
}

// @param isNew  its packets count from the first one on; otherwise from the head on
Receiver::Run& Receiver::add(const wire::Head& head, bool isNew) {
    if (m_known < kRuns) ++m_known;
    Run& run = m_runs[m_oldest];
    m_oldest = (m_oldest + 1) % kRuns;
    run = Run{head.epoch, isNew ? 0 : head.first, true, isNew ? wire::Counts{} : head.counts};
    return run;
}

void Receiver::greet(const wire::Head& hello) {
    if (m_run != nullptr) return;  // a message came first
    m_run = &add(hello, false);
    m_run->isNextCertain = false;
}

Notice Receiver::ignore(Notice notice) {
    ++m_ignored;
    const bool isTold = std::exchange(m_isTold[notice.kind], true);
    return isTold ? Notice{} : notice;
}

// Two relays may run when the stream is opened. Within this time both have sent: what they sent before is not lost.
bool Receiver::isBeginning(std::uint64_t nowNs) const {
    return !m_hasBegun && (!m_firstHeardNs || nowNs - *m_firstHeardNs < kSilentNs);
}

// The run that the message belongs to becomes the present one, unless the message is to be ignored.
bool Receiver::choose(const wire::Head& head, std::uint64_t nowNs, Notice& notice) {
    Run* const run = find(head.epoch);
    if (run != nullptr && run == m_run) return true;
    if (run != nullptr) {
        if (nowNs - m_heardNs < kSilentNs) {
            notice = ignore({Notice::kSecondRelay});
            return false;
        }
        m_run = run;
        return true;
    }
    if (m_run == nullptr || isBeginning(nowNs)) {
        m_run = &add(head, false);
        return true;
    }
    // What the old run took and did not send any more is lost, and what the new one sent before this message.
    notice.kind = Notice::kRestarted;
    notice.lost = growth(m_run->next, m_run->seen.delivered);
    m_run->next = std::max(m_run->next, m_run->seen.delivered);
    m_run = &add(head, true);
    notice.lost += head.first;
    return true;
}

void Receiver::count(UpStreamState& stream, const wire::Counts& counts) {
    wire::Counts& seen = m_run->seen;
    remote::add(stream.backPressure, growth(seen.lostByRing, counts.lostByRing));
    remote::add(stream.fifoErrors, growth(seen.fifoErrors, counts.fifoErrors));
    remote::add(stream.errors, growth(seen.streamErrors, counts.streamErrors));
    seen.lostByRing = std::max(seen.lostByRing, counts.lostByRing);
    seen.fifoErrors = std::max(seen.fifoErrors, counts.fifoErrors);
    seen.streamErrors = std::max(seen.streamErrors, counts.streamErrors);
    seen.delivered = std::max(seen.delivered, counts.delivered);
}

// False when there is no room for the packet yet.
bool Receiver::deliver(Card& card, const wire::PacketIn& packet) {
    UpStreamState& stream = card.state().up[m_channel];
    const std::uint32_t largest = std::min(safeMtu(card.state().config.mtu),
                                           ring::largestPacket(static_cast<std::uint32_t>(stream.ring.capacity)));
    if (packet.size > largest || card.state().faults.stopped) {
        ++stream.backPressure;
        return true;
    }
    return ring::reserve(stream.ring, packet.size) != nullptr && card.deliver(m_channel, packet.data, packet.size);
}

void Receiver::resume(Card& card) {
    bool isFull = false;
    wire::forEachPacket(m_held, [&](const wire::PacketIn& packet) {
        // A number below came before, or was counted as lost.
        if (isFull || packet.number < m_run->next) return;
        isFull = !deliver(card, packet);
        if (!isFull) m_run->next = packet.number + 1;
    });
    if (!isFull) m_held = {};
}

Notice Receiver::receive(Card& card, const void* data, std::size_t size, std::uint64_t nowNs) {
    const wire::Message message = wire::decode(data, size);
    const wire::Head& head = message.head;
    if (message.problem == wire::Problem::kOtherVersion) return ignore({Notice::kOtherVersion, message.version});
    if (message.problem != wire::Problem::kNone || (head.flags & wire::kSelection) != 0)
        return ignore({Notice::kNotARelays});
    Notice notice;
    if (!choose(head, nowNs, notice)) return notice;
    m_heardNs = nowNs;
    if (!m_firstHeardNs) m_firstHeardNs = nowNs;
    m_hasBegun = m_hasBegun || head.packets > 0 || (head.flags & wire::kHistory) != 0;

    UpStreamState& stream = card.state().up[m_channel];
    if (notice.kind == Notice::kRestarted) remote::add(stream.backPressure, notice.lost - head.first);
    if (head.mtu != 0) card.state().config.mtu = safeMtu(head.mtu);
    count(stream, head.counts);
    if (!m_run->isNextCertain) m_run->next = std::min(m_run->next, head.first);
    m_run->isNextCertain = true;
    remote::add(stream.backPressure, growth(m_run->next, head.first));
    m_run->next = std::max(m_run->next, head.first);
    m_held = message;
    resume(card);
    return notice;
}

}  // namespace vexo_sim::remote
