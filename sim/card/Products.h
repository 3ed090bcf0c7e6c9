#pragma once

#include <cstddef>
#include <cstdint>

namespace vexo_sim {

/// A product of the exchange. Prices in yuan, ticks in 1/10000 yuan.
struct Product {
    char code[3];
    std::uint16_t months;  // bit n = has a contract delivered in month n, 1 to 12
    std::int32_t price;    // about where it trades
    std::int32_t tick;
    std::uint32_t lotSize;    // units of weight in a lot, for the turnover
    std::int32_t strikeStep;  // yuan between two strikes; 0 = no options
    std::int32_t optionTick;
};

inline constexpr std::size_t kProductCount = 27;
extern const Product kProducts[kProductCount];  // sorted by code

/// The product that an instrument's id begins with, or a generic one for a code that the exchange does not list.
const Product& productOf(const char* id);

/// Pairs of products that are traded against each other, as indexes into kProducts.
struct ProductPair {
    std::uint8_t first;
    std::uint8_t second;
};
inline constexpr std::size_t kPairCount = 8;
extern const ProductPair kPairs[kPairCount];

}  // namespace vexo_sim
