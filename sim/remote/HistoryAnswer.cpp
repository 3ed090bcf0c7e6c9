#include "sim/remote/HistoryAnswer.h"

namespace vexo_sim::remote {

bool HistoryAnswer::take(const void* data, std::size_t size) {
    if (wire::decodeHistoryEnd(data, size, m_end)) {
        m_isWhole = m_end.messages == m_messages.size();
        return true;
    }
    const wire::Message message = wire::decode(data, size);
    if (message.problem != wire::Problem::kNone || (message.head.flags & wire::kHistory) == 0) return false;
    m_bytes += size;
    if (m_bytes > m_mostBytes) return true;
    const auto* const bytes = static_cast<const unsigned char*>(data);
    m_messages.emplace_back(bytes, bytes + size);
    return false;
}

}  // namespace vexo_sim::remote
