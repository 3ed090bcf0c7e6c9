#ifndef VEXO_EXAMPLES_INSTRUMENTS_H
#define VEXO_EXAMPLES_INSTRUMENTS_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>

/// Prices are whole numbers of 1/10000 yuan: exact, and cheap to compare.
constexpr std::int64_t kYuan = 10000;

struct Instrument {
    std::string id;     ///< as the exchange writes it: SR705, SR705C6000, SPD-SR705/SR709
    std::int64_t tick;  ///< smallest step of the price, in 1/10000 yuan; 0: unknown, do not trade it
    std::int64_t lot;   ///< tonnes in a lot: value of a position = price * lots * lot
};

/// What the exchange says of its products. The card announces only ids, so tick and lot come from a file, or from your
/// broker's query of contracts.
class Products {
public:
    /// Lines "product,tick,option tick,lot", ticks in yuan; '#' begins a comment line. Throws std::runtime_error.
    explicit Products(const std::string& path) {
        std::ifstream file(path);
        if (!file) throw std::runtime_error(path + ": cannot be read");
        std::string line;
        for (int number = 1; std::getline(file, line); ++number) {
            if (line.empty() || line.front() == '#') continue;
            std::replace(line.begin(), line.end(), ',', ' ');
            char code[4];
            double tick = 0, optionTick = 0;
            long lot = 0;
            if (std::sscanf(line.c_str(), "%3s %lf %lf %ld", code, &tick, &optionTick, &lot) != 4 || tick <= 0)
                throw std::runtime_error(path + ":" + std::to_string(number) + ": not product,tick,option tick,lot");
            m_products[code] = {exact(tick), exact(optionTick), lot};
        }
    }

    /// Tick and lot of an instrument; 0 for a product that the file does not have.
    Instrument describe(const std::string& id) const {
        const bool isCombination = id.compare(0, 4, "SPD-") == 0 || id.compare(0, 4, "IPS-") == 0;
        const std::size_t second = id.find('/');
        if (!isCombination || second == std::string::npos) return describeLeg(id);
        // A combination moves in the coarser tick of its legs.
        const Instrument a = describeLeg(id.substr(4, second - 4)), b = describeLeg(id.substr(second + 1));
        return {id, a.tick != 0 && b.tick != 0 ? std::max(a.tick, b.tick) : 0, a.lot};
    }

private:
    struct Product {
        std::int64_t tick, optionTick, lot;
    };
    static std::int64_t exact(double yuan) { return static_cast<std::int64_t>(yuan * kYuan + 0.5); }

    // A future: letters and three digits. An option: the future, C or P, the strike.
    Instrument describeLeg(const std::string& id) const {
        const std::size_t letters = std::min(id.find_first_of("0123456789"), id.size());
        const auto found = m_products.find(id.substr(0, letters));
        if (found == m_products.end()) return {id, 0, 0};
        const bool isOption = id.size() > letters + 3;
        return {id, isOption ? found->second.optionTick : found->second.tick, found->second.lot};
    }

    std::map<std::string, Product> m_products;
};

#endif
