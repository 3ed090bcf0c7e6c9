#pragma once

#include <cstdint>

namespace stats {

// Environment variable; the command `vexo tap` sets it.
inline constexpr char kRingLastsVariable[] = "VEXO_STATS_RING_LASTS_US";

inline constexpr std::uint64_t kDefaultRingLastsUs = 1000;
inline constexpr std::uint64_t kMaxRingLastsUs = 60'000'000;

/// How long a stream's ring takes to fill up. Reports an invalid value on standard error and uses the default instead.
std::uint64_t ringLastsMicroseconds();

}  // namespace stats
