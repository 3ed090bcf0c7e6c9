#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "sim/remote/Wire.h"

namespace vexo_sim::remote {

/// What came last: packets of this run of the relay, up to the one before `next`.
struct Position {
    std::uint64_t epoch = 0;
    std::uint64_t next = 0;
};

/// A stream that begins in the past receives the archive's packets first. Live messages wait here meanwhile. This class
/// says when the archive has led up to them.
///
/// Only so many bytes wait; the oldest messages go first. What has gone is in the archive: the stream goes on receiving
/// from there. For one thread at a time.
class Handover {
public:
    explicit Handover(std::size_t mostBytes) : m_mostBytes(mostBytes) {}

    /// @param message  that wire::decode() found to be without a problem
    void keep(const wire::Message& message, const void* data, std::size_t size);

    enum class Next {
        kPull,  // ask the archive for what follows
        kWait,  // the same, a little later: the archive has nothing more, and does not lead up to a live message yet
        kLive,  // take() gives what follows
    };
    /// After an answer of the archive, all of whose packets were delivered.
    /// @param position  what came last; nothing before the first packet
    Next judge(const std::optional<Position>& position, const wire::HistoryEnd& end);

    enum class Taken {
        kMessage,
        kNone,  // there is none left: further ones need not wait here
        kGap,   // some that judge() knew of have gone: the archive is needed again
    };
    Taken take(std::vector<unsigned char>& message);
    /// take() never says kGap any more: the archive does not answer, so the gap stays.
    void giveUp() { m_isGapFine = true; }

    std::size_t bytes() const { return m_bytes; }

private:
    struct Waiting {
        std::uint64_t epoch;
        std::uint64_t first;
        std::vector<unsigned char> bytes;
    };
    void drop();

    const std::size_t m_mostBytes;
    std::deque<Waiting> m_waiting;
    std::size_t m_bytes = 0;
    bool m_hasDropped = false;  // since judge() said kLive
    bool m_isGapFine = false;
};

}  // namespace vexo_sim::remote
