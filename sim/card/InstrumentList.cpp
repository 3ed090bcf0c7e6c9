#include "sim/card/InstrumentList.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <initializer_list>
#include <string_view>

#include "sim/card/Products.h"

namespace vexo_sim {
namespace {

constexpr std::uint32_t kContracts = 10;  // delivery months listed at a time
constexpr std::uint32_t kFallbackDate = 20250101;

// The sizes of a built-in list. Strikes lie around the product's usual price.
struct Extent {
    std::uint32_t optionMonths;
    std::int32_t strikesBelow;
    std::int32_t strikesAbove;
    std::uint32_t spreadSpan;  // calendar spreads between months at most this many contracts apart
    bool everyPair;
};
constexpr Extent kDefaultExtent = {7, 7, 6, 2, false};
constexpr Extent kFullExtent = {kContracts, 10, 10, kContracts, true};

// A future's id: product code, last digit of the year, month.
struct Contract {
    char id[6];

    std::string_view month() const { return {id + 2, 3}; }
};
using Contracts = Contract[kContracts];

Contract makeContract(const Product& product, std::uint32_t year, std::uint32_t month) {
    const auto digit = [](std::uint32_t n) { return static_cast<char>('0' + n % 10); };
    return {{product.code[0], product.code[1], digit(year), digit(month / 10), digit(month), '\0'}};
}

void listContracts(const Product& product, std::uint32_t date, Contracts& contracts) {
    std::uint32_t year = date / 10000;
    std::uint32_t month = date / 100 % 100;
    for (std::uint32_t n = 0; n < kContracts;) {
        if ((product.months >> month & 1) != 0) contracts[n++] = makeContract(product, year, month);
        if (++month > 12) {
            month = 1;
            ++year;
        }
    }
}

class ListBuilder {
public:
    ListBuilder(Instrument* list, std::uint32_t date, const Extent& extent) : m_list(list), m_extent(extent) {
        for (std::size_t p = 0; p < kProductCount; ++p) listContracts(kProducts[p], date, m_contracts[p]);
    }

    std::uint32_t build() {
        for (std::size_t p = 0; p < kProductCount; ++p) addFutures(p);
        for (std::size_t p = 0; p < kProductCount; ++p) addOptions(p);
        for (std::size_t p = 0; p < kProductCount; ++p) addCalendarSpreads(p);
        m_extent.everyPair ? addEveryPair() : addUsualPairs();
        return m_count;
    }

private:
    void add(std::uint32_t table, std::initializer_list<std::string_view> parts) {
        if (m_rows[table] >= card_reg::kRows) return;
        Instrument& instrument = m_list[m_count++];
        instrument = Instrument{};
        char* end = instrument.id;
        for (const std::string_view part : parts) end = std::copy(part.begin(), part.end(), end);
        instrument.table = static_cast<std::uint8_t>(table);
        instrument.row = static_cast<std::uint16_t>(m_rows[table]++);
    }

    void addFutures(std::size_t p) {
        for (const Contract& contract : m_contracts[p]) add(card_reg::kSingleLegTable, {contract.id});
    }

    void addOptions(std::size_t p) {
        const Product& product = kProducts[p];
        if (product.strikeStep == 0) return;
        const std::int32_t middle = (product.price + product.strikeStep / 2) / product.strikeStep;
        for (std::uint32_t m = 0; m < m_extent.optionMonths; ++m)
            for (std::int32_t k = middle - m_extent.strikesBelow; k <= middle + m_extent.strikesAbove; ++k)
                addCallAndPut(m_contracts[p][m], k * product.strikeStep);
    }

    void addCallAndPut(const Contract& contract, std::int32_t strike) {
        char digits[12];
        const char* end = std::to_chars(digits, digits + sizeof digits, strike).ptr;
        const std::string_view text(digits, static_cast<std::size_t>(end - digits));
        add(card_reg::kSingleLegTable, {contract.id, "C", text});
        add(card_reg::kSingleLegTable, {contract.id, "P", text});
    }

    void addCalendarSpreads(std::size_t p) {
        for (std::uint32_t near = 0; near < kContracts; ++near)
            for (std::uint32_t far = near + 1; far < kContracts && far <= near + m_extent.spreadSpan; ++far)
                add(card_reg::kCombinationTable, {"SPD-", m_contracts[p][near].id, "/", m_contracts[p][far].id});
    }

    void addPair(std::size_t a, std::size_t b, bool sameMonth) {
        for (const Contract& first : m_contracts[a])
            for (const Contract& second : m_contracts[b])
                if ((first.month() == second.month()) == sameMonth)
                    add(card_reg::kCombinationTable, {"IPS-", first.id, "/", second.id});
    }

    void addUsualPairs() {
        for (const auto& pair : kPairs) addPair(pair.first, pair.second, true);
    }

    // More than the table holds; add() stops at its last row.
    void addEveryPair() {
        for (const bool sameMonth : {true, false})
            for (std::size_t a = 0; a < kProductCount; ++a)
                for (std::size_t b = a + 1; b < kProductCount; ++b) addPair(a, b, sameMonth);
    }

    Instrument* m_list;
    const Extent& m_extent;
    Contracts m_contracts[kProductCount];
    std::uint32_t m_rows[kTables] = {};
    std::uint32_t m_count = 0;
};

bool isDate(std::uint32_t date) {
    const std::uint32_t month = date / 100 % 100;
    const std::uint32_t day = date % 100;
    return date / 10000 >= 1 && date / 10000 <= 9999 && month >= 1 && month <= 12 && day >= 1 && day <= 31;
}

}  // namespace

std::uint32_t makeInstrumentList(InstrumentChoice choice, std::uint32_t date, Instrument* list) {
    if (choice == InstrumentChoice::kNone) return 0;
    const Extent& extent = choice == InstrumentChoice::kFull ? kFullExtent : kDefaultExtent;
    return ListBuilder(list, isDate(date) ? date : kFallbackDate, extent).build();
}

bool isValidList(const Instrument* list, std::size_t count) {
    if (count > kMaxInstruments) return false;
    std::uint64_t used[kTables][card_reg::kRows / 64] = {};
    for (std::size_t n = 0; n < count; ++n) {
        const Instrument& instrument = list[n];
        if (instrument.table >= kTables || instrument.row >= card_reg::kRows || instrument.id[0] == '\0') return false;
        if (std::memchr(instrument.id, '\0', sizeof instrument.id) == nullptr) return false;
        std::uint64_t& group = used[instrument.table][instrument.row / 64];
        const std::uint64_t bit = std::uint64_t{1} << (instrument.row % 64);
        if ((group & bit) != 0) return false;
        group |= bit;
    }
    return true;
}

}  // namespace vexo_sim
