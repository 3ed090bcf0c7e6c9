#pragma once

#include <array>
#include <vector>

#include "tools/vexo/run/PollReader.h"

namespace vexo::run {

/// Says how long polls have stood still. Each open stream counts by itself: the thread of one channel may hang while
/// those of the others poll. Packets do not count: a quiet market sends none.
class Watchdog {
public:
    /// Compares the streams with those of the look before.
    /// @param seconds  since then
    /// @param longest  seconds that one look may count for at most. After a longer break the supervisor itself stood
    ///                 still, and then the application may have, too.
    void look(const std::vector<StreamPolls>& streams, double seconds, double longest);

    /// Seconds since the open stream that has waited longest was polled; 0 when no stream is open.
    double standingStill() const;

private:
    struct Stream {
        StreamPolls last;
        double still = 0;
    };
    std::array<Stream, polls::kStreams> m_streams;
};

/// How long to wait before each restart: twice as long each time, up to a limit.
class BackOff {
public:
    BackOff(double first, double limit) : m_first(first), m_limit(limit), m_next(first) {}

    /// @param ran  seconds that the application ran with its stream open. After a run longer than the limit, the waits
    ///             begin anew.
    double next(double ran);

private:
    double m_first;
    double m_limit;
    double m_next;
};

}  // namespace vexo::run
