#pragma once

#include <VexoZceMdStatsPage.h>
#include <cstdint>

namespace stats {

/// Whether a program stayed away from a stream's ring for longer than the ring lasts. For the thread that reads the
/// card's counters.
class Absence {
public:
    /// The stream was opened: what was before does not count.
    void start(const vexo_stats::Stream& counts);
    /// @return whether it did since the last look, in the time before, or does now. Two looks, because the card may
    /// count
    ///         a packet as lost some time after its ring was full.
    bool look(const vexo_stats::Stream& counts);

private:
    void remember(std::uint64_t longCallbacks, std::uint64_t polls, std::uint64_t packet, std::uint64_t now);

    std::uint64_t m_longCallbacks = 0;
    std::uint64_t m_polls = 0;
    std::uint64_t m_packet = 0;
    std::uint64_t m_lookedAt = 0;
    bool m_wasAway = false;
};

}  // namespace stats
