#pragma once

#include <algorithm>
#include <cstddef>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/PlainFilter.h"

/// Made-up instruments and rules of any size, the same in every run: ids as the exchange forms them, of more products
/// than it has, so that fifty classes are only some of them.
namespace bench {

struct Instrument {
    std::string id;
    unsigned short index;
};

class Market {
public:
    /// @p count ids in no order under the indexes 0, 1, 2 ...: half futures, three of eight options, the rest
    /// combinations.
    static std::vector<Instrument> Mixed(std::size_t count) {
        Market market(1);
        market.Add(count / 2, &Market::Future);
        market.Add(count - count / 8, &Market::Option);
        market.Add(count, &Market::Combination);
        std::shuffle(market.m_list.begin(), market.m_list.end(), market.m_random);
        market.Number(count);
        return market.m_list;
    }

    /// The same as the card's two tables hold it: half combinations, the rows of either table counted from 0, product
    /// by product as the exchange's static data has them.
    static std::vector<Instrument> Tables(std::size_t count) {
        Market market(2);
        market.Add(count / 4, &Market::Future);
        market.Add(count / 2, &Market::Option);
        market.Add(count, &Market::Combination);
        const auto byId = [](const Instrument& a, const Instrument& b) { return a.id < b.id; };
        const auto combinations = market.m_list.begin() + static_cast<std::ptrdiff_t>(count / 2);
        std::sort(market.m_list.begin(), combinations, byId);
        std::sort(combinations, market.m_list.end(), byId);
        market.Number(count / 2);
        return market.m_list;
    }

    /// Rules of 16 channels, of which the first @p channels take something: @p ids futures of the list and @p classes
    /// products each. Three of four channels take options, every second one calendar spreads, every third one the
    /// spreads between products.
    static std::vector<test_support::plain::Rules> Rules(const std::vector<Instrument>& list, std::size_t channels,
                                                         std::size_t ids, std::size_t classes) {
        Market market(3);
        std::vector<test_support::plain::Rules> rules(16);
        for (std::size_t chan = 0; chan < channels; ++chan) {
            test_support::plain::Rules& own = rules[chan];
            while (own.ids.size() < ids) {
                const std::string& id = list[market.m_random() % list.size()].id;
                if (IsFuture(id)) own.ids.push_back(id);
            }
            std::set<std::string> products;
            while (products.size() < classes) products.insert(market.Product());
            own.classes.assign(products.begin(), products.end());
            own.options = chan % 4 != 3;
            own.spd = chan % 2 == 0;
            own.ips = chan % 3 == 0;
        }
        return rules;
    }

private:
    static constexpr unsigned int kProducts = 200;
    static constexpr unsigned int kYears = 4;

    explicit Market(unsigned int seed) : m_random(seed) {}

    static bool IsFuture(const std::string& id) { return id.size() == 5; }

    std::string Product() {
        const auto number = m_random() % kProducts;
        return {static_cast<char>('A' + number / 26), static_cast<char>('A' + number % 26)};
    }
    std::string Future() {
        const std::string product = Product();
        return product + std::to_string(501 + 100 * (m_random() % kYears) + m_random() % 12);
    }
    std::string Option() {
        const std::string future = Future();
        return future + (m_random() % 2 == 0 ? 'C' : 'P') + std::to_string(1000 + 10 * (m_random() % 1000));
    }
    std::string Combination() {
        const std::string kind = m_random() % 2 == 0 ? "SPD-" : "IPS-";
        const std::string near = Future();
        return kind + near + '/' + Future();
    }

    // Adds ids that are not there yet until there are @p count in all.
    void Add(std::size_t count, std::string (Market::*make)()) {
        while (m_list.size() < count) {
            std::string id = (this->*make)();
            if (m_known.insert(id).second) m_list.push_back({std::move(id), 0});
        }
    }
    void Number(std::size_t rows) {
        for (std::size_t i = 0; i < m_list.size(); ++i) m_list[i].index = static_cast<unsigned short>(i % rows);
    }

    std::mt19937 m_random;
    std::vector<Instrument> m_list;
    std::set<std::string> m_known;
};

}  // namespace bench
