#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// Moments as users write and read them: in the exchange's zone, which is eight hours ahead of UTC.
namespace vexo_sim::remote {

/// Reads "2026-11-22 09:00", with seconds and their fraction if wanted, or with a 'T' between; "2026-11-22" or
/// "20261122" alone, its midnight; "09:00", the last time that the exchange's clock showed it; or seconds since 1970.
/// @param nowNs  nanoseconds since 1970, as the result
/// @return nothing for another text, and for a moment after @p nowNs
std::optional<std::uint64_t> pastMomentOf(const std::string& text, std::uint64_t nowNs);

/// What the forms are called in an error.
inline constexpr char kMomentForms[] =
    "write 09:00, 20261122 or \"2026-11-22 09:00\", in the exchange's zone, or seconds since 1970; it must be in the "
    "past";

/// "2026-11-22 09:00:00.123" of the exchange's zone.
std::string momentText(std::uint64_t ns);

/// Nanoseconds since 1970 as seconds with nine places, which pastMomentOf() reads.
std::string secondsText(std::uint64_t ns);

}  // namespace vexo_sim::remote
