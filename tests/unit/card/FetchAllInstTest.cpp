#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <random>

#include "src/card/FpgaServ.h"
#include "tests/doubles/LogLines.h"

#include "tests/unit/card/MutexProbe.h"
#include "tests/unit/card/ScriptedTables.h"

namespace {

using test_support::FakeDrv;
using test_support::ScriptedTables;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;
using Vexo2_U50::CZceFpgaServ;
using Vexo2_U50::InstIdToIndex;

constexpr int kSingle = 0;
constexpr int kCombine = 1;

class FetchAllInst : public testing::Test {
protected:
    FetchAllInst() { serv.Init(&drv); }
    // The log capture swallows what a failed expectation prints.
    void TearDown() override {
        if (!HasFailure()) return;
        for (const std::string& line : log.Take()) std::cerr << line << '\n';
    }

    std::ptrdiff_t ReadsOfRow(int table, std::uint32_t row) const {
        return std::count(drv.accesses.begin(), drv.accesses.end(), ScriptedTables::Access{table, row * 64 + 1});
    }

    test_support::LogLines log;
    ScriptedTables drv;
    InstIdToIndex idToIndex;
    CZceFpgaServ serv{idToIndex, 0};
};

std::string Over(std::size_t count) {
    return "INFO New round, fetch from fpga, inst count:" + std::to_string(count) + ".";
}

std::string Warning(int attempt, const std::string& id) {
    return "WARN current read fpga " + std::to_string(attempt) +
           " time, and this is equal previous, current inst id:" + id + " ";
}

// ---- one row ----

TEST_F(FetchAllInst, TwoEqualReadsEnterTheIdWithoutAWarning) {
    drv.Row(kSingle, 12) = {"SR505", "SR505"};

    serv.FetchAllInst();

    EXPECT_THAT(idToIndex, ElementsAre(Pair("SR505", 12)));
    EXPECT_THAT(log.Take(), ElementsAre(Over(1)));
    EXPECT_EQ(ReadsOfRow(kSingle, 12), 2);
}

TEST_F(FetchAllInst, ThirdReadThatEqualsTheSecondIsTakenWithAWarning) {
    drv.Row(kSingle, 12) = {"SR5##", "SR505", "SR505"};

    serv.FetchAllInst();

    EXPECT_THAT(idToIndex, ElementsAre(Pair("SR505", 12)));
    EXPECT_THAT(log.Take(), ElementsAre(Warning(2, "SR505"), Over(1)));
    EXPECT_EQ(ReadsOfRow(kSingle, 12), 3);
}

TEST_F(FetchAllInst, WarningTellsTheAttemptThatSettledTheRow) {
    for (int attempt = 2; attempt < 8; ++attempt) {
        ScriptedTables::Attempts& shown = drv.Row(kSingle, static_cast<std::uint32_t>(attempt));
        for (int i = 0; i < attempt - 1; ++i) shown.push_back("X" + std::to_string(i));
        shown.insert(shown.end(), 2, "SR50" + std::to_string(attempt));
    }

    serv.FetchAllInst();

    EXPECT_THAT(log.Take(), ElementsAre(Warning(2, "SR502"), Warning(3, "SR503"), Warning(4, "SR504"),
                                        Warning(5, "SR505"), Warning(6, "SR506"), Warning(7, "SR507"), Over(6)));
}

TEST_F(FetchAllInst, RowThatNeverReadsTheSameTwiceIsLeftAfterEightReads) {
    drv.Row(kSingle, 12) = {"A1", "B1", "A1", "B1", "A1", "B1", "A1", "B1", "B1"};

    serv.FetchAllInst();

    EXPECT_THAT(idToIndex, IsEmpty());
    EXPECT_THAT(log.Take(), ElementsAre(Over(0)));
    EXPECT_EQ(ReadsOfRow(kSingle, 12), 8);
}

TEST_F(FetchAllInst, RowThatReadsEmptyEightTimesIsNotEntered) {
    serv.FetchAllInst();

    EXPECT_THAT(idToIndex, IsEmpty());
    EXPECT_EQ(ReadsOfRow(kSingle, 12), 8);
}

TEST_F(FetchAllInst, EmptyReadsCountAsAttemptsAndForgetNothing) {
    drv.Row(kSingle, 12) = {"SR505", "", "", "SR505"};
    drv.Row(kSingle, 13) = {"", "SR507", "SR507"};
    drv.Row(kSingle, 14) = {"", "", "", "", "", "", "SR509", "SR509"};
    drv.Row(kSingle, 15) = {"", "", "", "", "", "", "", "SR511", "SR511"};

    serv.FetchAllInst();

    EXPECT_THAT(idToIndex, ElementsAre(Pair("SR505", 12), Pair("SR507", 13), Pair("SR509", 14)));
    EXPECT_THAT(log.Take(), ElementsAre(Warning(3, "SR505"), Warning(2, "SR507"), Warning(7, "SR509"), Over(3)));
}

// ---- the id read last lives on ----

TEST_F(FetchAllInst, RowIsTakenAtOnceWhenAnEmptyReadIsFollowedByTheIdOfAnEarlierRow) {
    drv.Row(kSingle, 5) = {"SR505", "SR505"};
    drv.Row(kSingle, 9) = {"", "SR505"};

    serv.FetchAllInst();

    EXPECT_THAT(idToIndex, ElementsAre(Pair("SR505", 9)));
    EXPECT_THAT(log.Take(), ElementsAre(Over(1)));
    EXPECT_EQ(ReadsOfRow(kSingle, 9), 2);
}

TEST_F(FetchAllInst, IdSeenOnceOnARowThatWasNotTakenIsRememberedToo) {
    drv.Row(kSingle, 5) = {"", "", "", "", "", "", "", "SR505"};
    drv.Row(kSingle, 9) = {"", "", "SR505"};

    serv.FetchAllInst();

    EXPECT_THAT(idToIndex, ElementsAre(Pair("SR505", 9)));
    EXPECT_THAT(log.Take(), ElementsAre(Warning(2, "SR505"), Over(1)));
}

TEST_F(FetchAllInst, IdIsRememberedFromTheSingleLegTableIntoTheCombinationTable) {
    drv.Row(kSingle, 4094) = {"SR505"};
    drv.Row(kCombine, 0) = {"", "SR505"};

    serv.FetchAllInst();

    EXPECT_THAT(idToIndex, ElementsAre(Pair("SR505", 0)));
}

TEST_F(FetchAllInst, FirstReadOfARowIsNeverTakenEvenWhenItEqualsTheEarlierRows) {
    drv.Row(kSingle, 5) = {"SR505", "SR505"};
    drv.Row(kSingle, 6) = {"SR505"};

    serv.FetchAllInst();

    EXPECT_THAT(idToIndex, ElementsAre(Pair("SR505", 5)));
}

TEST_F(FetchAllInst, FirstReadOfARowReplacesWhatTheEarlierRowLeft) {
    drv.Row(kSingle, 5) = {"SR505", "SR505"};
    drv.Row(kSingle, 6) = {"SR507", "SR505"};

    serv.FetchAllInst();

    EXPECT_THAT(idToIndex, ElementsAre(Pair("SR505", 5)));
}

TEST_F(FetchAllInst, EveryRunStartsWithNoIdRemembered) {
    drv.Row(kCombine, 4094) = {"SR505"};
    serv.FetchAllInst();
    ScriptedTables again;
    again.Row(kSingle, 0) = {"", "SR505"};
    serv.Init(&again);

    serv.FetchAllInst();

    EXPECT_THAT(idToIndex, IsEmpty());
}

// ---- the map ----

TEST_F(FetchAllInst, KnownIdGetsTheNewRowAndOtherEntriesStay) {
    idToIndex = {{"SR505", 1000}, {"SR999", 77}};
    drv.Row(kSingle, 12) = {"SR505", "SR505"};

    serv.FetchAllInst();

    EXPECT_THAT(idToIndex, UnorderedElementsAre(Pair("SR505", 12), Pair("SR999", 77)));
    EXPECT_THAT(log.Take(), ElementsAre(Over(2)));
}

TEST_F(FetchAllInst, LastRowOfAnIdWinsAcrossBothTables) {
    drv.Row(kSingle, 12) = {"SR505", "SR505"};
    drv.Row(kSingle, 13) = {"SR505", "SR505"};
    drv.Row(kCombine, 4) = {"SR505", "SR505"};

    serv.FetchAllInst();

    EXPECT_THAT(idToIndex, ElementsAre(Pair("SR505", 4)));
}

TEST_F(FetchAllInst, Rows0To4094OfBothTablesAreReadAndNoneAbove) {
    for (const int table : {kSingle, kCombine}) {
        const std::string mark = table == kSingle ? "S" : "C";
        for (const std::uint32_t row : {0U, 4094U, 4095U, 8191U})
            drv.Row(table, row) = ScriptedTables::Attempts(2, mark + std::to_string(row));
    }

    serv.FetchAllInst();

    EXPECT_THAT(idToIndex, ElementsAre(Pair("C0", 0), Pair("C4094", 4094), Pair("S0", 0), Pair("S4094", 4094)));
}

// ---- the id's characters ----

TEST_F(FetchAllInst, IdIsTheFourWordsLastWordFirstEachFromItsHighestByteDown) {
    FakeDrv raw;
    raw.record = false;
    const std::vector<unsigned int> row = {0x53523530, 0x35433630, 0x30304142, 0x43444546};
    for (int attempt = 0; attempt < 2; ++attempt)
        raw.scripted[0x11003].insert(raw.scripted[0x11003].end(), row.begin(), row.end());
    serv.Init(&raw);

    serv.FetchAllInst();

    EXPECT_THAT(idToIndex, ElementsAre(Pair("SR505C6000ABCDEF", 0)));
}

TEST_F(FetchAllInst, IdEndsAtItsFirstZeroByte) {
    using namespace std::string_literals;
    drv.Row(kSingle, 3) = ScriptedTables::Attempts(2, "SR5\0XYZ"s);
    drv.Row(kSingle, 4) = ScriptedTables::Attempts(2, "SR505678\0Y"s);
    drv.Row(kSingle, 5) = ScriptedTables::Attempts(2, "\0SR50567890ABCDE"s);

    serv.FetchAllInst();

    EXPECT_THAT(idToIndex, ElementsAre(Pair("SR5", 3), Pair("SR505678", 4)));
}

TEST_F(FetchAllInst, WordThatCannotBeReadCountsAsEmpty) {
    FakeDrv raw;
    raw.record = false;
    raw.SetId(kSingle, 3, "SR505");
    raw.SetId(kCombine, 4, "SPD-SR505");
    raw.failingReads = {0x11003};
    serv.Init(&raw);

    serv.FetchAllInst();

    EXPECT_THAT(idToIndex, ElementsAre(Pair("SPD-SR505", 4)));
}

// ---- register accesses ----

/// Words 4, 3, 2, 1 selected and read, @p attempts times for each of rows 0 to 4094, single-leg table first.
std::vector<ScriptedTables::Access> ReadingSequence(int attempts) {
    std::vector<ScriptedTables::Access> sequence;
    for (const int table : {kSingle, kCombine}) {
        for (std::uint32_t row = 0; row < 4095; ++row) {
            for (int attempt = 0; attempt < attempts; ++attempt) {
                for (const std::uint32_t word : {4U, 3U, 2U, 1U}) {
                    sequence.push_back({table, row * 64 + word});
                    sequence.push_back({table, ScriptedTables::kRead});
                }
            }
        }
    }
    return sequence;
}

TEST_F(FetchAllInst, EmptyTablesAreReadEightTimesRowByRow) {
    serv.FetchAllInst();

    EXPECT_EQ(drv.accesses.size(), 2u * 4095 * 8 * 4 * 2);
    EXPECT_TRUE(drv.accesses == ReadingSequence(8));
    EXPECT_THAT(drv.TakeCalls(), IsEmpty()) << "no other register is touched";
}

TEST_F(FetchAllInst, FullTablesAreReadTwiceRowByRow) {
    for (const int table : {kSingle, kCombine}) {
        for (std::uint32_t row = 0; row < ScriptedTables::kRows; ++row)
            drv.Row(table, row).assign(2, (table == kSingle ? "SR" : "SPD-") + std::to_string(row));
    }

    serv.FetchAllInst();

    EXPECT_TRUE(drv.accesses == ReadingSequence(2));
    EXPECT_EQ(idToIndex.size(), 2u * 4095);
    EXPECT_THAT(log.Take(), ElementsAre(Over(2 * 4095)));
}

TEST_F(FetchAllInst, LockIsHeldThroughout) {
    bool everFree = false;
    drv.onAccess = [&] {
        if (drv.accesses.size() % 20000 == 0)
            everFree = everFree || !test_support::IsHeld(CZceFpgaServ::subscribe_mutex);
    };

    serv.FetchAllInst();

    EXPECT_FALSE(everFree);
    EXPECT_FALSE(test_support::IsHeld(CZceFpgaServ::subscribe_mutex)) << "free again afterwards";
}

// ---- any sequence of reads ----

struct Outcome {
    InstIdToIndex ids;
    std::vector<std::string> lines;
};

/// What a run over these rows has to end in.
Outcome ExpectedOutcome(ScriptedTables& tables) {
    Outcome outcome;
    std::string last;
    for (const int table : {kSingle, kCombine}) {
        for (std::uint32_t row = 0; row <= 4094; ++row) {
            const ScriptedTables::Attempts& shown = tables.Row(table, row);
            for (std::size_t attempt = 0; attempt < std::min<std::size_t>(8, shown.size()); ++attempt) {
                const std::string& id = shown[attempt];
                if (id.empty()) continue;
                const bool settled = attempt >= 1 && id == last;
                last = id;
                if (!settled) continue;
                outcome.ids[id] = static_cast<unsigned short>(row);
                if (attempt + 1 > 2) outcome.lines.push_back(Warning(static_cast<int>(attempt), id));
                break;
            }
        }
    }
    outcome.lines.push_back(Over(outcome.ids.size()));
    return outcome;
}

class FetchAllInstOfAnyTables : public FetchAllInst, public testing::WithParamInterface<unsigned int> {};

TEST_P(FetchAllInstOfAnyTables, EntersAndReportsWhatTheReadsSettle) {
    std::mt19937 random(GetParam());
    const std::vector<std::string> shown = {"", "", "", "SR505", "SR505", "CF505C14000", "SPD-SR505/SR509", "X"};
    for (const int table : {kSingle, kCombine}) {
        for (std::uint32_t row = 0; row < ScriptedTables::kRows; ++row) {
            ScriptedTables::Attempts& attempts = drv.Row(table, row);
            for (auto left = random() % 10; left > 0; --left) attempts.push_back(shown[random() % shown.size()]);
            // Some ids of their own, so that the map gets thousands of entries.
            if (random() % 2 == 0)
                std::replace(attempts.begin(), attempts.end(), std::string("X"), std::to_string(row));
        }
    }

    serv.FetchAllInst();

    const Outcome expected = ExpectedOutcome(drv);
    EXPECT_EQ(idToIndex, expected.ids);
    EXPECT_THAT(log.Take(), ElementsAreArray(expected.lines));
}

INSTANTIATE_TEST_SUITE_P(Seeds, FetchAllInstOfAnyTables, testing::Values(1U, 2U, 3U, 4U));

}  // namespace
