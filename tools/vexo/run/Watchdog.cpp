#include "tools/vexo/run/Watchdog.h"

#include <algorithm>

namespace vexo::run {

void Watchdog::look(const std::vector<StreamPolls>& streams, double seconds, double longest) {
    for (std::size_t i = 0; i < m_streams.size() && i < streams.size(); ++i) {
        Stream& stream = m_streams[i];
        const bool same = streams[i].owner == stream.last.owner && streams[i].polls == stream.last.polls;
        stream.still = same && streams[i].owner != 0 ? stream.still + std::min(seconds, longest) : 0;
        stream.last = streams[i];
    }
}

double Watchdog::standingStill() const {
    return std::max_element(m_streams.begin(), m_streams.end(),
                            [](const Stream& a, const Stream& b) { return a.still < b.still; })
        ->still;
}

double BackOff::next(double ran) {
    if (ran > m_limit) m_next = m_first;
    const double wait = std::min(m_next, m_limit);
    m_next = std::min(2 * wait, m_limit);
    return wait;
}

}  // namespace vexo::run
