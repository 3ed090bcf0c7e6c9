#pragma once

#include <array>
#include <cstdint>

#include "sim/card/CardState.h"

namespace vexo_sim {

/// The two sides of the book after a step of the walk. The prices behind the best ones lie one tick apart.
struct BookEdge {
    std::int64_t bid;
    std::int64_t ask;
    std::array<std::uint32_t, 5> bidVolume;
    std::array<std::uint32_t, 5> askVolume;
};

/// Prices, limits and volumes at the open. They depend only on the instrument's id and the card's seed.
PriceWalk openingPrices(const char* id, std::uint64_t seed);

/// One trade: the price moves by a few ticks, volume and turnover grow. All five prices of both sides stay inside
/// the daily limits.
BookEdge walk(PriceWalk& prices, std::uint64_t& random);

/// Next number of the generator whose state is @p random.
std::uint64_t nextRandom(std::uint64_t& random);

}  // namespace vexo_sim
