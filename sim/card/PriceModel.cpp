#include "sim/card/PriceModel.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "enyx-sim/md_payload.h"
#include "sim/card/Products.h"

namespace vexo_sim {
namespace {

constexpr std::int64_t kLimitPercent = 7;              // of the underlying price, either way
constexpr std::int64_t kMostTurnover = INT64_MAX / 2;  // no day reaches it, but a benchmark may: it stays there
constexpr std::int64_t kEdgeTicks = 6;  // the last price keeps that far from the limits: five prices fit behind it
constexpr std::int64_t kMostPrice = 100'000'000'000'000;
constexpr std::int64_t kMostTick = 1'000'000'000;
constexpr std::uint32_t kMostLotSize = 1000;

std::uint64_t hashOf(const char* text, std::size_t length, std::uint64_t seed) {
    std::uint64_t hash = 0xCBF29CE484222325U ^ seed;
    for (std::size_t i = 0; i < length; ++i) hash = (hash ^ static_cast<unsigned char>(text[i])) * 0x100000001B3U;
    return hash ^ hash >> 29;
}

std::int64_t toTick(std::int64_t price, std::int64_t tick) { return price / tick * tick; }

// Up to 2 % around the product's usual price.
std::int64_t futurePrice(const char* id, std::size_t length, std::uint64_t seed) {
    const Product& product = productOf(id);
    const std::int64_t usual = std::int64_t{product.price} * enyx_sim::kPriceScale;
    const std::int64_t shift = static_cast<std::int64_t>(hashOf(id, length, seed) % 401) - 200;
    return toTick(usual + usual * shift / 10000, product.tick);
}

// Letters and digits of the leading contract of an id: SR505 of SR505C6000.
std::size_t contractLength(const char* id) {
    std::size_t n = 0;
    while (std::isalpha(static_cast<unsigned char>(id[n])) != 0) ++n;
    while (std::isdigit(static_cast<unsigned char>(id[n])) != 0) ++n;
    return n;
}

bool isOption(const char* id, std::size_t contract) {
    const char side = id[contract];
    return (side == 'C' || side == 'P') && std::isdigit(static_cast<unsigned char>(id[contract + 1])) != 0;
}

struct Opening {
    std::int64_t price;
    std::int64_t tick;
    std::int64_t reach;  // how far the day's limits are from the price
    std::int64_t floor;  // no price below this
    std::uint32_t lotSize;
};

Opening openFuture(const char* id, std::size_t length, std::uint64_t seed) {
    const Product& product = productOf(id);
    const std::int64_t price = futurePrice(id, length, seed);
    return {price, product.tick, price * kLimitPercent / 100, product.tick, product.lotSize};
}

// Intrinsic value plus a time value that fades with the distance between strike and underlying.
Opening openOption(const char* id, std::size_t contract, std::uint64_t seed) {
    const Product& product = productOf(id);
    const std::int64_t tick = product.optionTick != 0 ? product.optionTick : product.tick;
    const std::int64_t underlying = futurePrice(id, contract, seed);
    const std::int64_t longestStrike = 1'000'000'000;
    const std::int64_t strike = std::min<std::int64_t>(std::strtoll(id + contract + 1, nullptr, 10), longestStrike) *
                                enyx_sim::kPriceScale;
    const std::int64_t inTheMoney = id[contract] == 'C' ? underlying - strike : strike - underlying;
    const std::int64_t distance = std::min(std::abs(underlying - strike), underlying / 8);
    const std::int64_t timeValue = (underlying - distance * 8) * 3 / 100;
    return {std::max<std::int64_t>(inTheMoney, 0) + timeValue, tick, underlying * kLimitPercent / 100, tick,
            product.lotSize};
}

// A spread is the first leg minus the second; it has no floor, prices below zero are usual.
Opening openSpread(const char* legs, std::uint64_t seed) {
    const char* second = std::strchr(legs, '/');
    const Opening a = openFuture(legs, contractLength(legs), seed);
    if (second == nullptr) return a;
    const Opening b = openFuture(second + 1, contractLength(second + 1), seed);
    return {a.price - b.price, std::max(a.tick, b.tick), a.reach, INT64_MIN, a.lotSize};
}

Opening openingOf(const char* id, std::uint64_t seed) {
    if (std::strncmp(id, "SPD-", 4) == 0 || std::strncmp(id, "IPS-", 4) == 0) return openSpread(id + 4, seed);
    const std::size_t contract = contractLength(id);
    return isOption(id, contract) ? openOption(id, contract, seed) : openFuture(id, contract, seed);
}

}  // namespace

PriceWalk openingPrices(const char* id, std::uint64_t seed) {
    const Opening open = openingOf(id, seed);
    PriceWalk prices{};
    prices.tick = open.tick;
    prices.lowerLimit = toTick(std::max(open.price - open.reach, open.floor), open.tick);
    prices.upperLimit = toTick(open.price + open.reach, open.tick);
    prices.last = std::clamp(toTick(open.price, open.tick), prices.lowerLimit + kEdgeTicks * open.tick,
                             prices.upperLimit - kEdgeTicks * open.tick);
    prices.openInterest = 1000 + hashOf(id, std::strlen(id), seed) % 100'000;
    prices.lotSize = open.lotSize;
    return prices;
}

namespace {

// Others may have written what they like into a card in shared memory. Whatever the prices were, the arithmetic below
// then has room. The prices of a card that nobody spoiled are far inside these limits.
void bound(PriceWalk& prices) {
    prices.tick = std::clamp<std::int64_t>(prices.tick, 1, kMostTick);
    prices.lowerLimit = std::clamp(prices.lowerLimit, -kMostPrice, kMostPrice);
    const std::int64_t leastUpper = prices.lowerLimit + 2 * kEdgeTicks * prices.tick;
    prices.upperLimit = std::clamp(prices.upperLimit, leastUpper, std::max(kMostPrice, leastUpper));
    prices.last = std::clamp(prices.last, prices.lowerLimit, prices.upperLimit);
    prices.lotSize = std::min(prices.lotSize, kMostLotSize);
}

// Small numbers out of one large one. The range of each is the base of its digit; the lowest digit comes first.
template <typename Number>
class Digits {
public:
    explicit Digits(Number value) : m_value(value) {}
    template <std::uint32_t base>
    std::uint32_t take() {
        const auto digit = static_cast<std::uint32_t>(m_value % base);
        m_value /= base;
        return digit;
    }
    Number rest() const { return m_value; }

private:
    Number m_value;
};

// Lots at five prices, 1 to 50 each. They are taken from 32 bits, whose divisions are cheap.
std::array<std::uint32_t, 5> volumes(Digits<std::uint64_t>& random) {
    constexpr std::uint32_t kMost = 50;
    Digits<std::uint32_t> lots(random.take<kMost * kMost * kMost * kMost * kMost>());
    return {1 + lots.take<kMost>(), 1 + lots.take<kMost>(), 1 + lots.take<kMost>(), 1 + lots.take<kMost>(),
            1 + lots.rest()};
}

}  // namespace

BookEdge walk(PriceWalk& prices, std::uint64_t& random) {
    bound(prices);
    Digits<std::uint64_t> digits(nextRandom(random));
    Digits<std::uint32_t> steps(digits.take<5 * 20 * 3 * 2 * 2>());
    const std::int64_t move = (std::int64_t{steps.take<5>()} - 2) * prices.tick;
    prices.last = std::clamp(prices.last + move, prices.lowerLimit + kEdgeTicks * prices.tick,
                             prices.upperLimit - kEdgeTicks * prices.tick);
    const std::uint32_t lots = 1 + steps.take<20>();
    prices.totalVolume += lots;
    if (prices.turnover < kMostTurnover) prices.turnover += std::abs(prices.last) * lots * prices.lotSize;
    prices.openInterest += steps.take<3>();

    BookEdge edge;
    edge.bid = prices.last - std::int64_t{steps.take<2>()} * prices.tick;
    edge.ask = edge.bid + (1 + std::int64_t{steps.take<2>()}) * prices.tick;
    edge.bidVolume = volumes(digits);
    edge.askVolume = volumes(digits);
    return edge;
}

std::uint64_t nextRandom(std::uint64_t& random) {
    random += 0x9E3779B97F4A7C15U;
    std::uint64_t z = random;
    z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9U;
    z = (z ^ z >> 27) * 0x94D049BB133111EBU;
    return z ^ z >> 31;
}

}  // namespace vexo_sim
