#pragma once

#include <VexoZceMdStatsPage.h>
#include <cstdint>
#include <optional>

namespace stats {

/// What a counter of 32 bits gained. It begins again at 0 when it passes its end, and when somebody resets the card.
constexpr std::uint32_t gained(std::uint32_t last, std::uint32_t now) {
    constexpr std::uint32_t kHalf = 1U << 31;
    return now < last && last < kHalf ? now : now - last;
}

/// The card's counters of a stream at one moment. Empty: the card did not tell.
struct CardReading {
    std::optional<std::uint32_t> packets;
    std::optional<std::uint32_t> backPressure;
    std::optional<std::uint32_t> fifoErrors;
    std::optional<std::uint32_t> errors;
};

/// Asks the card for the counters of an open stream. A real card answers by a read of its registers, which takes a
/// microsecond or two: so no polling thread asks.
CardReading askCard(const void* stream);

/// Adds up in a stream's block what the card counts. For one thread at a time.
class CardCounters {
public:
    /// The stream was opened: what the card had counted before, if it did, is nobody's loss here.
    /// @param missing    the block's sequenceLost at this moment
    /// @param lostInTap  packets that the application received, but that the count of numbers did not see
    void start(vexo_stats::Stream& counts, const CardReading& now, std::uint64_t missing, std::uint64_t lostInTap = 0);
    /// @param byApplication  whether the application caused the new back-pressure
    void add(vexo_stats::Stream& counts, const CardReading& now, bool byApplication);
    /// Notes which of the missing packets were lost before the card.
    /// @param missing  the block's sequenceLost, read before the card was asked: the card has counted the cause of each
    void noteLostBeforeCard(vexo_stats::Stream& counts, std::uint64_t missing, std::uint64_t lostInTap = 0) const;

private:
    CardReading m_last;
    // When the stream was opened. The last packets that a ring loses leave no gap, because none follows them.
    std::uint64_t m_missing = 0;
    std::uint64_t m_lostInTap = 0;
    std::uint64_t m_backPressure = 0;
    std::uint64_t m_lostBeforeCard = 0;
};

/// The shortest absence, on the page's clock, that counts as longer than the ring lasts: a power of two, because the
/// page counts callbacks in buckets.
std::uint64_t shortestAbsence(std::uint64_t ringLasts);

}  // namespace stats
