#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "capture/Reader.h"
#include "tools/data/Sequence.h"
#include "tools/vexo/info/Summary.h"
#include "tools/vexo/info/Timeline.h"

namespace vexo::info {

/// Counts the sequence numbers of one stream, through all captures.
///
/// A capture may follow on the one before, as the files of a rotation do; then a jump between them is a loss, and a
/// step back means packets that came late. It may be a recording of its own; then neither is. Or both were recorded at
/// the same time; then what the later one has again is late. Its end tells which, or a packet of the earlier one that
/// comes meanwhile. Until then the numbers behind a step back are counted in both ways: see Doubt.
class StreamNumbers {
public:
    static constexpr std::size_t kMostDoubts = 64;  // captures in doubt at the same time, of all streams

    /// What all streams share.
    struct Shared {
        Timeline& timeline;
        std::size_t doubts = 0;
        std::size_t nextLane;  // of the timeline, for doubts
    };

    /// A capture whose first number lies behind the expected one. The stream's numbers count it as a recording of its
    /// own. This counts it as if it followed on.
    struct Doubt {
        data::SequenceCounter sequence;
        vexo_stats::Stream numbers{};  // what that one has counted
        data::SequenceWords own;       // what the stream's numbers had counted then, of the same packets
        bool isOpen = false;           // the next number may mean different things
        std::uint64_t bases = 0;       // numbers that are the first of a recording of its own
        std::size_t lane = 0;          // in the timeline: losses as a recording of its own
        std::uint64_t lost = 0;        // losses as if it followed on, in the same time
        std::uint64_t timeNs = 0;      // of the first packet
    };

    /// What a capture has of the stream. It stays where it is until its end.
    struct Part {
        std::size_t order = 0;       // the first one of the stream that had a number is 1
        std::uint32_t numbered = 0;  // bit n: it had a packet with a number of slot n
        // Jumps at the first of these numbers. Whether they are losses, or restarts, can be told at the end.
        std::uint64_t jumps = 0;
        std::uint64_t jumped = 0;
        std::uint64_t jumpNs = 0;
        std::uint64_t restarts = 0;
        std::unique_ptr<Doubt> doubt;
        bool isBeside = false;  // an earlier capture went on when this one had begun
    };

    /// @param layouts, shared  must outlive this object
    /// @param lane             of the timeline: losses
    StreamNumbers(const data::Layouts& layouts, Shared& shared, std::size_t lane)
        : m_shared(shared), m_lane(lane), m_sequence(&layouts) {}

    void take(Part& part, const capture::Packet& packet);
    /// The capture has ended. @param followsOn  nothing lies between it and the one before
    void end(Part& part, bool followsOn);
    /// Nothing without a layout that has a sequence number.
    std::optional<SequenceCounts> counts() const;

private:
    void takeFirst(Part& part, const capture::Packet& packet, std::uint32_t slot, const data::SequenceWords& before,
                   std::uint64_t lost);
    void beginAnew(Part& part, const capture::Packet& packet, std::uint32_t slot);
    void takeInDoubt(Doubt& doubt, const capture::Packet& packet, const data::SequenceWords& before, bool isFirst);
    void rejoinLaterThan(const Part& part);
    void settle(Part& part, bool followsOn);

    Shared& m_shared;
    std::size_t m_lane;
    data::SequenceCounter m_sequence;
    vexo_stats::Stream m_numbers{};  // what it counts
    std::uint64_t m_unrecorded = 0;
    std::size_t m_parts = 0;        // that had a number
    std::vector<Part*> m_doubtful;  // in their order
};

}  // namespace vexo::info
