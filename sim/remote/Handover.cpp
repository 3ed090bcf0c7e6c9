#include "sim/remote/Handover.h"

#include <utility>

namespace vexo_sim::remote {

void Handover::drop() {
    m_bytes -= m_waiting.front().bytes.size();
    m_waiting.pop_front();
}

void Handover::keep(const wire::Message& message, const void* data, std::size_t size) {
    const auto* const bytes = static_cast<const unsigned char*>(data);
    m_waiting.push_back({message.head.epoch, message.head.first, {bytes, bytes + size}});
    m_bytes += size;
    while (m_bytes > m_mostBytes && m_waiting.size() > 1) {
        drop();
        m_hasDropped = true;
    }
}

// When the archive has told all, its relay is the one that sends live: messages of another epoch are older than all
// that the archive told.
Handover::Next Handover::judge(const std::optional<Position>& position, const wire::HistoryEnd& end) {
    while (end.isAll && !m_waiting.empty() && m_waiting.front().epoch != end.head.epoch) drop();
    const Next more = end.isAll ? Next::kWait : Next::kPull;
    if (m_waiting.empty()) return more;
    const Waiting& live = m_waiting.front();
    const bool follows = position && position->epoch == live.epoch && live.first <= position->next;
    // What the archive does not have, and will not get, is a gap.
    const bool isLost = end.isAll && live.first <= end.head.first;
    if (!follows && !isLost) return more;
    m_hasDropped = false;
    return Next::kLive;
}

Handover::Taken Handover::take(std::vector<unsigned char>& message) {
    if (m_hasDropped && !m_isGapFine) return Taken::kGap;
    if (m_waiting.empty()) return Taken::kNone;
    m_bytes -= m_waiting.front().bytes.size();
    message = std::move(m_waiting.front().bytes);
    m_waiting.pop_front();
    return Taken::kMessage;
}

}  // namespace vexo_sim::remote
