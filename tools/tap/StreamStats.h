#pragma once

#include <VexoZceMdStatsPage.h>
#include <cstdint>
#include <vector>

#include "capture/CardCounts.h"
#include "tools/data/Sequence.h"
#include "tools/stats/CardCounters.h"
#include "tools/tap/PacketRing.h"
#include "tools/tap/Presence.h"

namespace tap {

/// What the writer's thread counts of a stream that is recorded: the stream's block of the statistics page. The polling
/// thread counts nothing.
class StreamStats {
public:
    /// @param process  whose steps are noted
    /// @param layouts  may be null
    StreamStats(vexo_stats::Process& process, vexo_stats::Stream& counts, const vexo::data::Layouts* layouts)
        : m_process(process), m_counts(counts), m_layouts(layouts) {}

    // ---- whoever holds the lock of the streams ----
    enum class When { kOpening, kOpen, kClosed };
    /// @param lostInRing  how many packets the ring had lost by then
    void note(const stats::CardReading& reading, When when, std::uint64_t lostInRing) {
        m_noted.push_back({reading, when, lostInRing, false});
    }
    /// @param isMarked  whether the ring has a mark of it
    void noteOpening(const stats::CardReading& reading, std::uint64_t lostInRing, bool isMarked) {
        m_noted.push_back({reading, When::kOpening, lostInRing, isMarked});
    }

    // ---- the writer's thread ----
    /// In the order of the ring.
    void take(const PacketRing::Record& record);

    struct Noted {
        stats::CardReading reading;
        When when;
        std::uint64_t lostInRing;
        bool isMarked;
    };
    /// First step of a look at the card: before its counters are read.
    void beginLook(const Presence& presence, const PacketRing& ring);
    /// Second: what was noted, the newest last. Under the lock of the streams. An opening whose mark has not come
    /// through the ring waits for it, with all that follows.
    std::vector<Noted> takeNoted();
    /// Third.
    /// @param lostInRing  packets that did not come this far
    /// @param lostByTap   those, and packets that could not be written
    void endLook(const std::vector<Noted>& noted, std::uint64_t lostInRing, std::uint64_t lostByTap);
    capture::CardCounts card() const;

private:
    void noteStep(vexo_stats::Step step, std::uint64_t clock);
    void countTime(const PacketRing::Record& record, std::uint64_t clock);

    vexo_stats::Process& m_process;
    vexo_stats::Stream& m_counts;
    const vexo::data::Layouts* const m_layouts;
    vexo::data::SequenceCounter m_sequence;
    stats::CardCounters m_card;
    std::vector<Noted> m_noted;
    std::uint64_t m_marksSeen = 0;  // of openings, in the ring
    std::uint64_t m_marksUsed = 0;
    bool m_isFirst = true;  // the next packet is the first one after the stream was opened

    // Absences of the program that were longer than the ring lasts: ended ones, and what the last look found.
    std::uint64_t m_absences = 0;
    std::uint64_t m_absencesBefore = 0;
    std::uint64_t m_packetBefore = 0;
    std::uint64_t m_lookedAt = 0;
    bool m_isAway = false;
    bool m_wasAway = false;
    std::uint64_t m_missing = 0;           // at the last look
    std::uint64_t m_missingAtOpening = 0;  // when the last mark of an opening came
};

}  // namespace tap
