#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace vexo::data {

/// Where packets are lost, in the order of the columns: along the way from the exchange to the application, which is
/// the last cause although its losses happen in the ring.
enum class LossCause { kBeforeCard, kByCard, kByRing, kByTap, kByRelay, kByApplication };
inline constexpr std::size_t kLossCauses = 6;
inline constexpr std::array<LossCause, kLossCauses> kAllLossCauses = {
    LossCause::kBeforeCard, LossCause::kByCard,  LossCause::kByRing,
    LossCause::kByTap,      LossCause::kByRelay, LossCause::kByApplication};

/// A number that may not be known.
using Count = std::optional<std::uint64_t>;

/// Packets of one stream that were lost, by cause. Empty: nobody can know.
///
/// - kBeforeCard: numbers missing in the sequence that no other cause explains
/// - kByCard: FIFO and stream errors, as the card counts them; one error may cost any number of packets
/// - kByRing: back-pressure while the application kept polling
/// - kByTap: received by the application, but not recorded: the tap's ring or the disk was full
/// - kByRelay: received by a relay, but not sent on
/// - kByApplication: back-pressure while the application stayed away for longer than the ring lasts
struct Losses {
    std::array<Count, kLossCauses> counts;

    Count& operator[](LossCause cause) { return counts[static_cast<std::size_t>(cause)]; }
    const Count& operator[](LossCause cause) const { return counts[static_cast<std::size_t>(cause)]; }
};

/// What is known of a stream, on a statistics page or in a capture.
struct LossCounts {
    Count sequenceLost;               // numbers missing in the sequence
    Count lostBeforeCard;             // as the writer noted it while it counted; better than a difference at the end
    Count backPressure;               // packets lost because the ring was full
    Count backPressureByApplication;  // those of them that the application caused
    Count fifoErrors;
    Count errors;
    Count byTap;
    Count byRelay;
};

/// Counters of a hostile page or capture may have any value: a sum that does not fit is the largest number.
std::uint64_t sumOf(std::uint64_t one, std::uint64_t other);

/// The one rule that turns counters into causes, for all commands.
Losses lossesOf(const LossCounts& counts);

/// Those of several streams together. A cause is known if it is known of one of them.
Losses operator+(const Losses& one, const Losses& other);

/// All causes that are known together; errors of the card count as one packet each.
std::uint64_t totalOf(const Losses& losses);

/// "before the card", "by the tap": the head of a column.
const char* nameOf(LossCause cause);
/// "before_card", "by_tap": a key of JSON.
const char* keyOf(LossCause cause);
/// The number, or "-" for what is not known.
std::string lossText(const Count& count);
/// The number with a comma between thousands, or "-".
std::string groupedLossText(const Count& count);
/// One line: "before the card 40, by the card 17, by the ring -, ...".
std::string lossLine(const Losses& losses);

}  // namespace vexo::data
