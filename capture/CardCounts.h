#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace capture {

/// What the card counted for a stream. Empty: nobody could tell.
struct CardCounts {
    std::optional<std::uint64_t> packets;       // put into the ring
    std::optional<std::uint64_t> backPressure;  // lost because the ring was full
    std::optional<std::uint64_t> fifoErrors;
    std::optional<std::uint64_t> errors;
    std::optional<std::uint64_t> byApplication;  // of the back-pressure: while the application stayed away too long
    std::optional<std::uint64_t> beforeCard;     // numbers missing in the sequence that no other cause explains

    bool operator==(const CardCounts& other) const;
};

/// The longest text of textOf().
inline constexpr std::size_t kMostCardText = 208;

/// "card: packets=1 back_pressure=2 fifo_errors=3 errors=4 by_application=5 before_card=6"; "-" stands for what is not
/// known. The comment of an interface's statistics.
std::string textOf(const CardCounts& counts);
/// @return nothing for a text of another form. Keys may be missing, and unknown ones are left out.
std::optional<CardCounts> cardCountsOf(const std::string& text);

/// Whether any of them is known and not 0.
bool hasCounts(const CardCounts& counts);

/// What was added from @p before to @p now.
CardCounts operator-(const CardCounts& now, const CardCounts& before);

}  // namespace capture
