#include "sim/card/InstrumentList.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/unit/sim/card/CardFixture.h"

using namespace vexo_sim;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::Le;
using ::testing::Not;
using ::testing::SizeIs;

namespace {

constexpr std::uint32_t kDate = 20250115;
const std::set<std::string> kProductCodes = {"AP", "CF", "CJ", "CY", "FG", "JR", "LR", "MA", "OI",
                                             "PF", "PK", "PL", "PM", "PR", "PX", "RI", "RM", "RS",
                                             "SA", "SF", "SH", "SM", "SR", "TA", "UR", "WH", "ZC"};
const std::set<std::string> kWithOptions = {"SR", "CF", "TA", "MA", "RM", "OI", "PK", "PX", "SH", "PF",
                                            "SA", "SM", "SF", "UR", "AP", "CJ", "FG", "PR", "PL"};

std::vector<Instrument> makeList(InstrumentChoice choice, std::uint32_t date = kDate) {
    std::vector<Instrument> list(kMaxInstruments);
    list.resize(makeInstrumentList(choice, date, list.data()));
    return list;
}

std::vector<std::string> ids(const std::vector<Instrument>& list, std::uint32_t table) {
    std::vector<std::string> all;
    for (const Instrument& instrument : list)
        if (instrument.table == table) all.emplace_back(instrument.id);
    return all;
}

bool isFuture(const std::string& id) {
    return id.size() == 5 && kProductCodes.count(id.substr(0, 2)) == 1 &&
           id.find_first_not_of("0123456789", 2) == std::string::npos && id.substr(3) >= "01" && id.substr(3) <= "12";
}

bool isOption(const std::string& id) {
    return id.size() > 6 && isFuture(id.substr(0, 5)) && kWithOptions.count(id.substr(0, 2)) == 1 &&
           (id[5] == 'C' || id[5] == 'P') && id[6] != '0' && id.find_first_not_of("0123456789", 6) == std::string::npos;
}

std::vector<std::string> futuresOf(const std::string& product, std::uint32_t date) {
    std::vector<std::string> all;
    for (const std::string& id : ids(makeList(InstrumentChoice::kDefault, date), 0))
        if (isFuture(id) && id.substr(0, 2) == product) all.push_back(id);
    return all;
}

class BuiltInList : public ::testing::TestWithParam<InstrumentChoice> {};

INSTANTIATE_TEST_SUITE_P(Both, BuiltInList, ::testing::Values(InstrumentChoice::kDefault, InstrumentChoice::kFull));

}  // namespace

TEST(DefaultList, HasTheExchangesSizeWithinTheRowsThatCanBeReadBack) {
    const auto list = makeList(InstrumentChoice::kDefault);
    EXPECT_THAT(ids(list, 0), SizeIs(3994));
    EXPECT_THAT(ids(list, 1), SizeIs(AllOf(Ge(300), Le(999))));
    for (const Instrument& instrument : list) EXPECT_LE(instrument.row, 4094) << instrument.id;
}

TEST(FullList, FillsBothTablesToTheLastRow) {
    const auto list = makeList(InstrumentChoice::kFull);
    for (const std::uint32_t table : {0U, 1U}) {
        EXPECT_THAT(ids(list, table), SizeIs(card_reg::kRows));
    }
}

TEST(FullList, HasEverythingThatTheDefaultListHas) {
    const auto full = makeList(InstrumentChoice::kFull);
    for (const std::uint32_t table : {0U, 1U}) {
        const auto all = ids(full, table);
        const std::set<std::string> known(all.begin(), all.end());
        for (const std::string& id : ids(makeList(InstrumentChoice::kDefault), table))
            EXPECT_EQ(known.count(id), 1U) << id;
    }
}

TEST(NoList, IsEmpty) { EXPECT_THAT(makeList(InstrumentChoice::kNone), SizeIs(0)); }

TEST_P(BuiltInList, NumbersEachTableFromRowZeroWithoutAGapSingleLegsFirst) {
    std::uint32_t next[2] = {0, 0};
    std::uint32_t table = 0;
    for (const Instrument& instrument : makeList(GetParam())) {
        EXPECT_GE(instrument.table, table);
        table = instrument.table;
        EXPECT_EQ(instrument.row, next[table]++);
    }
}

TEST_P(BuiltInList, HasEachIdOnce) {
    std::set<std::string> seen;
    for (const Instrument& instrument : makeList(GetParam()))
        EXPECT_TRUE(seen.insert(instrument.id).second) << instrument.id;
}

TEST_P(BuiltInList, HasFuturesAndOptionsInTheSingleLegTable) {
    std::set<std::string> products;
    std::set<std::string> optionProducts;
    for (const std::string& id : ids(makeList(GetParam()), 0)) {
        ASSERT_TRUE(isFuture(id) || isOption(id)) << id;
        (isFuture(id) ? products : optionProducts).insert(id.substr(0, 2));
        ASSERT_LE(id.size(), 16U) << id;
    }
    EXPECT_EQ(products, kProductCodes);
    for (const std::string& product : optionProducts) EXPECT_EQ(kWithOptions.count(product), 1U) << product;
}

TEST_P(BuiltInList, HasSpreadsOfListedFuturesInTheCombinationTable) {
    const auto list = makeList(GetParam());
    const auto single = ids(list, 0);
    const std::set<std::string> listed(single.begin(), single.end());
    for (const std::string& id : ids(list, 1)) {
        ASSERT_EQ(id.size(), 15U) << id;
        const std::string kind = id.substr(0, 4);
        const std::string first = id.substr(4, 5);
        const std::string second = id.substr(10);
        ASSERT_EQ(id[9], '/') << id;
        ASSERT_EQ(listed.count(first), 1U) << id;
        ASSERT_EQ(listed.count(second), 1U) << id;
        ASSERT_EQ(kind, first.substr(0, 2) == second.substr(0, 2) ? "SPD-" : "IPS-") << id;
        ASSERT_NE(first, second) << id;
    }
}

TEST_P(BuiltInList, IsTheSameForTheSameDate) {
    const auto a = makeList(GetParam());
    const auto b = makeList(GetParam());
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t n = 0; n < a.size(); ++n) ASSERT_STREQ(a[n].id, b[n].id);
}

TEST_P(BuiltInList, MayBeLearned) {
    const auto list = makeList(GetParam());
    EXPECT_TRUE(isValidList(list.data(), list.size()));
}

TEST(DefaultList, HasOptionsOnAllProductsThatHaveThem) {
    std::set<std::string> products;
    for (const std::string& id : ids(makeList(InstrumentChoice::kDefault), 0))
        if (isOption(id)) products.insert(id.substr(0, 2));
    EXPECT_EQ(products, kWithOptions);
}

TEST(DefaultList, KnowsTheContractsOfADate) {
    const auto list = makeList(InstrumentChoice::kDefault, 20250115);
    EXPECT_THAT(ids(list, 0), AllOf(Contains("SR505"), Contains("SR505C6000"), Contains("SR505P5900"),
                                    Contains("TA501"), Contains("CF511"), Contains("UR507C1800")));
    EXPECT_THAT(ids(list, 1),
                AllOf(Contains("SPD-SR505/SR509"), Contains("IPS-SF505/SM505"), Contains("SPD-TA501/TA502")));
    EXPECT_STREQ(list[0].id, "AP501");
}

TEST(DefaultList, ListsTheNextTenDeliveryMonthsOfAProduct) {
    EXPECT_THAT(futuresOf("SR", 20250115),
                ElementsAre("SR501", "SR503", "SR505", "SR507", "SR509", "SR511", "SR601", "SR603", "SR605", "SR607"));
    EXPECT_THAT(futuresOf("AP", 20250115),
                ElementsAre("AP501", "AP503", "AP504", "AP505", "AP510", "AP511", "AP512", "AP601", "AP603", "AP604"));
    EXPECT_THAT(futuresOf("TA", 20241231),
                ElementsAre("TA412", "TA501", "TA502", "TA503", "TA504", "TA505", "TA506", "TA507", "TA508", "TA509"));
    EXPECT_THAT(futuresOf("RS", 20291201),
                ElementsAre("RS007", "RS008", "RS009", "RS011", "RS107", "RS108", "RS109", "RS111", "RS207", "RS208"));
}

TEST(DefaultList, LeavesOutTheContractsOfAPastMonth) {
    EXPECT_THAT(ids(makeList(InstrumentChoice::kDefault, 20250201), 0), Not(Contains("SR501")));
}

TEST(DefaultList, OfNoDateIsThatOfTheFirstOfJanuary2025) {
    const auto usual = ids(makeList(InstrumentChoice::kDefault, 20250101), 0);
    for (const std::uint32_t date : {0U, 20251301U, 20250001U, 20250100U, 20250132U, 115U, 4294967295U})
        EXPECT_EQ(ids(makeList(InstrumentChoice::kDefault, date), 0), usual) << date;
}

TEST(InstrumentLists, ThatCannotBeLearnedAreRefused) {
    const auto valid = [](std::vector<Instrument> list) { return isValidList(list.data(), list.size()); };
    EXPECT_TRUE(valid({}));
    EXPECT_TRUE(valid({makeInstrument(0, 0, "A"), makeInstrument(1, 0, "A"), makeInstrument(0, 8191, "A")}));
    EXPECT_FALSE(valid({makeInstrument(0, 8192, "A")}));
    EXPECT_FALSE(valid({makeInstrument(2, 0, "A")}));
    EXPECT_FALSE(valid({makeInstrument(0, 0, "")}));
    EXPECT_TRUE(valid({makeInstrument(0, 0, std::string(31, 'A'))}));
    EXPECT_FALSE(valid({makeInstrument(0, 0, std::string(32, 'A'))}));
    EXPECT_FALSE(valid({makeInstrument(0, 64, "A"), makeInstrument(0, 64, "B")}));
    EXPECT_FALSE(isValidList(nullptr, kMaxInstruments + 1));
}
