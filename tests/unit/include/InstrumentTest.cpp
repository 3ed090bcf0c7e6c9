#include "VexoZceInstrument.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "sim/card/InstrumentList.h"

std::uint32_t DeliveryOfCxx11(const char* id, std::uint32_t date);

using namespace vexo_zce;

namespace {

constexpr std::uint32_t kToday = 20261122;

IdFault FaultOf(const std::string& id, std::uint32_t date = kToday) {
    Instrument instrument;
    return parseId(id.data(), id.size(), date, instrument);
}

Instrument Parsed(const std::string& id, std::uint32_t date = kToday) {
    Instrument instrument{};
    EXPECT_EQ(parseId(id.data(), id.size(), date, instrument), IdFault::kNone) << id;
    return instrument;
}

std::string IdOf(const Instrument& instrument) {
    char text[kIdRoom];
    const std::size_t length = idOf(instrument, text);
    EXPECT_EQ(std::strlen(text), length);
    return text;
}

std::string KeyOf(const Instrument& instrument) {
    char text[kIdRoom];
    const std::size_t length = keyOf(instrument, text);
    EXPECT_EQ(std::strlen(text), length);
    return text;
}

unsigned YearOf(const std::string& id, std::uint32_t date) { return Parsed(id, date).legs[0].year; }

}  // namespace

TEST(Instrument, AFutureHasProductYearAndMonth) {
    const Instrument future = Parsed("SR701");
    EXPECT_EQ(future.kind, InstrumentKind::kFuture);
    EXPECT_EQ(future.legCount, 1);
    EXPECT_STREQ(future.legs[0].product, "SR");
    EXPECT_EQ(future.legs[0].year, 2027);
    EXPECT_EQ(future.legs[0].month, 1);
    EXPECT_EQ(future.right, '\0');
    EXPECT_EQ(future.strike, 0U);
}

TEST(Instrument, AnOptionHasTheFutureBelowItAndRightAndStrike) {
    const Instrument call = Parsed("CF705C13600");
    EXPECT_EQ(call.kind, InstrumentKind::kOption);
    EXPECT_EQ(call.legCount, 1);
    EXPECT_STREQ(call.legs[0].product, "CF");
    EXPECT_EQ(call.legs[0].month, 5);
    EXPECT_EQ(call.right, 'C');
    EXPECT_EQ(call.strike, 13600U);
    EXPECT_EQ(Parsed("CF705P13600").right, 'P');
    EXPECT_EQ(Parsed("PC701P1").strike, 1U);  // letters of the product are no right
    EXPECT_EQ(Parsed("CP701C999999999").strike, 999999999U);
}

TEST(Instrument, ASpreadHasTwoLegs) {
    const Instrument calendar = Parsed("SPD-SR701/SR805");
    EXPECT_EQ(calendar.kind, InstrumentKind::kCalendarSpread);
    EXPECT_EQ(calendar.legCount, 2);
    EXPECT_EQ(calendar.legs[0].year, 2027);
    EXPECT_EQ(calendar.legs[1].year, 2028);
    EXPECT_EQ(calendar.legs[1].month, 5);
    const Instrument pair = Parsed("IPS-SF701/SM703");
    EXPECT_EQ(pair.kind, InstrumentKind::kInterProductSpread);
    EXPECT_STREQ(pair.legs[0].product, "SF");
    EXPECT_STREQ(pair.legs[1].product, "SM");
}

TEST(Instrument, ProductsThatBeginLikeASpreadAreFutures) {
    EXPECT_EQ(Parsed("SP701").kind, InstrumentKind::kFuture);
    EXPECT_EQ(Parsed("IP701").kind, InstrumentKind::kFuture);
}

TEST(Instrument, TheDigitOfTheYearIsOfTheYearNearTheDate) {
    EXPECT_EQ(YearOf("SR911", 20291105), 2029U);
    EXPECT_EQ(YearOf("SR001", 20291231), 2030U);
    EXPECT_EQ(YearOf("SR001", 20300101), 2030U);
    EXPECT_EQ(YearOf("SR912", 20300101), 2029U);
    EXPECT_EQ(YearOf("SR107", 20291231), 2031U);
    EXPECT_EQ(YearOf("SR601", 20261122), 2026U);  // expired, not of 2036
    const Instrument overNewYear = Parsed("SPD-SR911/SR001", 20291105);
    EXPECT_EQ(overNewYear.legs[0].year, 2029);
    EXPECT_EQ(overNewYear.legs[1].year, 2030);
}

TEST(Instrument, EveryDigitHasOneYearFromFourBeforeToFiveBehind) {
    for (std::uint32_t year = 2020; year < 2041; ++year) {
        std::set<unsigned> years;
        for (char digit = '0'; digit <= '9'; ++digit) {
            const unsigned found = YearOf(std::string("SR") + digit + "01", year * 10000 + 630);
            EXPECT_EQ(found % 10, static_cast<unsigned>(digit - '0'));
            years.insert(found);
        }
        EXPECT_EQ(years.size(), 10U);
        EXPECT_EQ(*years.begin(), year - 4);
        EXPECT_EQ(*years.rbegin(), year + 5);
    }
}

TEST(Instrument, ADateOutsideTheCalendarsUseIsRefused) {
    EXPECT_EQ(FaultOf("SR701", 0), IdFault::kBadDate);
    EXPECT_EQ(FaultOf("SR701", 19691231), IdFault::kBadDate);
    EXPECT_EQ(FaultOf("SR701", 19700101), IdFault::kNone);
    EXPECT_EQ(FaultOf("SR701", 99891231), IdFault::kNone);
    EXPECT_EQ(FaultOf("SR701", 99900101), IdFault::kBadDate);
    EXPECT_EQ(FaultOf("SR701", 4294967295U), IdFault::kBadDate);
}

TEST(Instrument, WhatIsNoIdIsRefusedWithTheReason) {
    const std::map<std::string, IdFault> faults = {
        {"", IdFault::kEmpty},
        {"S", IdFault::kNoProduct},
        {"sr701", IdFault::kNoProduct},
        {"S701", IdFault::kNoProduct},
        {"701", IdFault::kNoProduct},
        {" SR701", IdFault::kNoProduct},
        {"SR", IdFault::kNoYear},
        {"SR70", IdFault::kNoYear},
        {"SRX01", IdFault::kNoYear},
        {"SR7O1", IdFault::kNoYear},
        {"SR2701", IdFault::kBadMonth},  // month 70
        {"SR2012", IdFault::kNoYear},
        {"SR2101", IdFault::kNoYear},  // month 10 of a year with two digits?
        {"SR700", IdFault::kBadMonth},
        {"SR713", IdFault::kBadMonth},
        {"SR701X", IdFault::kNoOption},
        {"SR701c5000", IdFault::kNoOption},
        {"SR701 ", IdFault::kNoOption},
        {"SR701C", IdFault::kNoStrike},
        {"SR701C-5", IdFault::kNoStrike},
        {"SR701C05000", IdFault::kBadStrike},
        {"SR701C0", IdFault::kBadStrike},
        {"SR701C1234567890", IdFault::kBadStrike},
        {"SR701C5000P", IdFault::kTooMuch},
        {"SR701C5000.5", IdFault::kTooMuch},
        {"SPD", IdFault::kNoDash},
        {"SPDSR701/SR705", IdFault::kNoDash},
        {"SPD_SR701/SR705", IdFault::kNoDash},
        {"SPD-", IdFault::kNoProduct},
        {"SPD-SR701", IdFault::kNoSecondLeg},
        {"SPD-SR701-SR705", IdFault::kNoSecondLeg},
        {"SPD-SR701C5000/SR705", IdFault::kNoSecondLeg},
        {"SPD-SR701/", IdFault::kNoProduct},
        {"SPD-SR701/SR7", IdFault::kNoYear},
        {"SPD-SR701/SR799", IdFault::kBadMonth},
        {"SPD-SR701/CF705", IdFault::kOtherProduct},
        {"SPD-SR701/SR701", IdFault::kSameMonth},
        {"SPD-SR701/SR705/", IdFault::kTooMuch},
        {"IPS-SF701/SF705", IdFault::kSameProduct},
        {"IPS-SF701/SM701C50", IdFault::kTooMuch},
        {"ips-SF701/SM701", IdFault::kNoProduct},
    };
    std::set<std::string> reasons;
    for (const auto& [id, fault] : faults) {
        EXPECT_EQ(FaultOf(id), fault) << id << ": " << textOf(FaultOf(id));
        reasons.insert(textOf(fault));
    }
    EXPECT_EQ(reasons.size(), 13U);  // a text for each
}

TEST(Instrument, OneByteMoreOrLessIsAnotherIdOrNone) {
    for (const std::string id : {"SR701", "SR701C5000", "SPD-SR701/SR705", "IPS SF701&SM701"}) {
        for (std::size_t length = 0; length < id.size(); ++length) {
            const std::string cut = id.substr(0, length);
            Instrument instrument;
            if (parseId(cut.data(), cut.size(), kToday, instrument) == IdFault::kNone) {
                EXPECT_EQ(IdOf(instrument), cut);
            }
        }
        for (int byte = 1; byte < 256; ++byte) {
            for (std::size_t at = 0; at < id.size(); ++at) {
                std::string changed = id;
                changed[at] = static_cast<char>(byte);
                Instrument instrument;
                if (parseId(changed.data(), changed.size(), kToday, instrument) == IdFault::kNone) {
                    EXPECT_EQ(IdOf(instrument), changed);
                }
            }
        }
    }
}

TEST(Instrument, TheIdEndsWithItsFirstZeroByteOrWithTheField) {
    char field[32] = "SR701";
    std::memset(field + 6, 'x', sizeof field - 6);
    Instrument instrument;
    EXPECT_EQ(parseId(field, sizeof field, kToday, instrument), IdFault::kNone);
    EXPECT_EQ(parseId("SR701C5", 5, kToday, instrument), IdFault::kNone);
    EXPECT_EQ(instrument.kind, InstrumentKind::kFuture);
    EXPECT_EQ(parseId(nullptr, 0, kToday, instrument), IdFault::kEmpty);
}

TEST(Instrument, EverySpellingOfASpreadIsWrittenAgainAndHasOneKey) {
    for (const std::string id : {"SPD-SR701/SR705", "SPD SR701/SR705", "SPD-SR701&SR705", "SPD SR701&SR705"}) {
        EXPECT_EQ(IdOf(Parsed(id)), id);
        EXPECT_EQ(KeyOf(Parsed(id)), "SPD-SR701-SR705");
    }
    EXPECT_EQ(KeyOf(Parsed("IPS SF712&SM712")), "IPS-SF712-SM712");
    EXPECT_EQ(KeyOf(Parsed("SR701P999999999")), "SR701P999999999");
}

TEST(Instrument, EveryIdOfBothSimulatedListsIsParsedAndWrittenAgain) {
    const auto list = std::make_unique<vexo_sim::Instrument[]>(vexo_sim::kMaxInstruments);
    for (const vexo_sim::InstrumentChoice choice :
         {vexo_sim::InstrumentChoice::kDefault, vexo_sim::InstrumentChoice::kFull}) {
        for (const std::uint32_t date : {20250115U, 20261122U, 20291231U, 20300102U}) {
            const std::uint32_t count = vexo_sim::makeInstrumentList(choice, date, list.get());
            ASSERT_GT(count, 4000U);
            std::set<std::string> keys;
            std::map<InstrumentKind, unsigned> kinds;
            for (std::uint32_t i = 0; i < count; ++i) {
                const std::string id = list[i].id;
                const Instrument instrument = Parsed(id, date);
                ASSERT_EQ(IdOf(instrument), id);
                ASSERT_EQ(instrument.legCount, list[i].table + 1) << id;
                ASSERT_GE(instrument.legs[0].year * 100U + instrument.legs[0].month, date / 100) << id;
                ASSERT_EQ(KeyOf(instrument).find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-"),
                          std::string::npos);
                keys.insert(KeyOf(instrument));
                ++kinds[instrument.kind];
            }
            EXPECT_EQ(keys.size(), count);
            EXPECT_EQ(kinds.size(), 4U);
        }
    }
}

TEST(Instrument, KindsHaveNames) {
    EXPECT_STREQ(nameOf(InstrumentKind::kFuture), "future");
    EXPECT_STREQ(nameOf(InstrumentKind::kOption), "option");
    EXPECT_STREQ(nameOf(InstrumentKind::kCalendarSpread), "calendar-spread");
    EXPECT_STREQ(nameOf(InstrumentKind::kInterProductSpread), "inter-product-spread");
}

TEST(Instrument, IsTheSameForAnApplicationInCxx11) {
    EXPECT_EQ(DeliveryOfCxx11("SR701C5000", kToday), 202701U);
    EXPECT_EQ(DeliveryOfCxx11("SR713", kToday), 0U);
}
