#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/support/TempDir.h"
#include "tests/unit/tools/Program.h"
#include "tools/vexo/show/DayFileReport.h"

using namespace capture;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr char kHead[] = "[version]\n1.1.2.12 = 11\n1.1.2.13 = 12\n[config]\ndevice = xilinx0:0\n";
constexpr char kList[] =
    "# futures, options, spreads\nSR701\nSR705\nSR701C6000\nCF701 40\nCF705\nSPD-SR701/SR705\nIPS-CF701/CY701 9\n";

class PlanCommand : public ::testing::Test {
protected:
    PlanCommand() { dir.Write("list", kList); }

    ProgramResult Plan(const std::string& words, const std::string& instruments = "list") {
        return runProgram(word(VEXO_COMMAND) + " plan " + words +
                          (instruments.empty() ? "" : " --instruments " + instruments));
    }
    nlohmann::json Json(const std::string& words) {
        return nlohmann::json::parse(Plan("--json " + words).output, nullptr, false);
    }
    void Master(const std::string& file, const std::string& sections) { dir.Write(file, kHead + sections); }

    test_support::TempDir dir;
};

}  // namespace

TEST_F(PlanCommand, ShowsChannelsRulesAndRows) {
    Master("zce.ini",
           "[channel0]\ninsts = SR, CF705\noptions = recv\nspd = recv\n[channel3]\ninsts = SR701\noptions = norecv\n");
    const ProgramResult result = Plan("zce.ini");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(
        result.output,
        "instruments: 7 (5 single-leg, 2 combinations); list\n"
        "card 0, by zce.ini:\n"
        "  the master learns the map until everything that is configured has been announced, and 15 minutes more\n"
        "  channel 0, the program of zce.ini: 5 (4 single-leg, 1 combination)\n"
        "    insts = SR     3 (1 option): SR701 SR705 SR701C6000\n"
        "    insts = CF705  1 (0 options): CF705\n"
        "    spd = recv     1: SPD-SR701/SR705\n"
        "  channel 3: 1 (1 single-leg, 0 combinations)\n"
        "    insts = SR701  1: SR701\n"
        "  for nobody: 2 (1 single-leg, 1 combination): CF701 IPS-CF701/CY701\n"
        "  rows to write: 5\n"
        "    table 0, mask 0x0001: 3 rows\n"
        "    table 0, mask 0x0009: 1 row\n"
        "    table 1, mask 0x0001: 1 row\n"
        "no findings\n");
}

TEST_F(PlanCommand, ShowsAllNamesAndRowsWhenAsked) {
    dir.Write("many", "SR701\nSR703\nSR705\nSR707\nSR709\nSR711\n");
    Master("zce.ini", "[channel1]\ninsts = SR\noptions = norecv\n");
    EXPECT_THAT(Plan("zce.ini", "many").output,
                AllOf(HasSubstr(": SR701 SR703 SR705 SR707 SR709 ...\n"), Not(HasSubstr("SR711"))));
    EXPECT_THAT(Plan("--all zce.ini", "many").output, AllOf(HasSubstr(": SR701 SR703 SR705 SR707 SR709 SR711\n"),
                                                            HasSubstr("    table 0 row 5 mask 0x0002 SR711\n")));
}

TEST_F(PlanCommand, ARuleThatMatchesNothingIsAFindingWithItsLine) {
    Master("zce.ini", "[channel0]\ninsts = SR, XX\noptions = norecv\nips = norecv\n[channel1]\nspd = recv\n");
    dir.Write("futures", "SR701\n");
    const ProgramResult result = Plan("zce.ini", "futures");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, HasSubstr("    insts = XX  matches nothing\n"));
    EXPECT_THAT(
        result.output,
        EndsWith("zce.ini:7: error: [channel0] insts: XX matches none of 1 instrument; the master learns without "
                 "end, and the day file never gets its end tag; correct or remove it\n"
                 "zce.ini:11: error: [channel1] spd: spd = recv matches none of 1 instrument; correct or remove "
                 "it\n2 findings\n"));
}

TEST_F(PlanCommand, ARuleThatIsAnnouncedButSelectsNothingLetsTheLearningEnd) {
    Master("zce.ini", "[channel0]\ninsts = SR, CF701C1\noptions = norecv\n");
    dir.Write("options", "SR701\nCF701C1\n");
    const ProgramResult result = Plan("zce.ini", "options");
    EXPECT_THAT(result.output, AllOf(HasSubstr("insts: CF701C1 matches none of 2 instruments: it is an option; options "
                                               "come with options = recv and their future or product, here CF701; "),
                                     HasSubstr("and 15 minutes more\n"), Not(HasSubstr("without end"))));
}

TEST_F(PlanCommand, AllInCapitalLettersSelectsEverythingAndNeverEndsTheLearning) {
    Master("zce.ini", "[channel0]\ninsts = ALL\noptions = recv\n");
    const ProgramResult result = Plan("zce.ini");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(
        result.output,
        AllOf(HasSubstr("  the master learns the map, without end\n"), HasSubstr("    insts = ALL  5 (1 option): "),
              HasSubstr("zce.ini:7: warning: [channel0] insts: ALL is never announced under this name"),
              HasSubstr("; write all in small letters\n1 finding\n")));
    Master("zce.ini", "[channel0]\ninsts = all\noptions = recv\n");
    EXPECT_EQ(Plan("zce.ini").status, 0) << Plan("zce.ini").output;
}

TEST_F(PlanCommand, WithoutOptionsTheLaterChannelsAreNotRead) {
    Master("zce.ini", "[channel0]\ninsts = SR\n[channel1]\ninsts = CF\noptions = norecv\n");
    const ProgramResult result = Plan("zce.ini");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, AllOf(Not(HasSubstr("  channel 1")),
                                     HasSubstr("zce.ini:7: error: [channel0] options is missing beside insts; ")));
}

TEST_F(PlanCommand, ADifferenceIsShownByChannelAndRowAndIsNoFinding) {
    Master("old.ini", "[channel0]\ninsts = SR\noptions = norecv\n[channel1]\ninsts = CF\noptions = norecv\n");
    Master("new.ini", "[channel0]\ninsts = SR701, CF701\noptions = norecv\n[channel1]\ninsts = CF\noptions = norecv\n");
    const ProgramResult result = Plan("new.ini --against old.ini");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, EndsWith("against old.ini:\n"
                                        "  card 0, channel 0: 1 more, 1 less\n"
                                        "    + CF701\n"
                                        "    - SR705\n"
                                        "  card 0: 2 rows with another mask\n"
                                        "    table 0 row 1 mask 0x0001 -> 0x0000 SR705\n"
                                        "    table 0 row 40 mask 0x0002 -> 0x0003 CF701\n"
                                        "no findings\n"));
    EXPECT_THAT(Plan("--against old.ini old.ini").output, HasSubstr("against old.ini: no difference\n"));
}

TEST_F(PlanCommand, TwoMastersOfACardAreAnErrorThatNamesTheComparison) {
    Master("old.ini", "[channel0]\ninsts = SR\noptions = norecv\n");
    Master("new.ini", "[channel0]\ninsts = SR\noptions = norecv\n");
    const ProgramResult result = Plan("old.ini new.ini");
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.output,
              "vexo: new.ini and old.ini are both of channel 0 of card 0; a card has one master\n"
              "To compare the two: vexo plan new.ini --against old.ini\n");
}

TEST_F(PlanCommand, ThePartsOfOtherProgramsAreThoseOfTheMastersFile) {
    Master("zce.ini", "[channel0]\ninsts = SR\noptions = norecv\n[channel2]\ninsts = CF\noptions = norecv\n");
    dir.Write("two.ini", "[config]\ndevice = xilinx0:2\n");
    EXPECT_EQ(Plan("zce.ini two.ini").status, 0);
    EXPECT_THAT(Plan("zce.ini two.ini").output, HasSubstr("  channel 2, the program of two.ini: 2 ("));

    dir.Write("two.ini", "[config]\ndevice = xilinx0:2\n[channel2]\ninsts = SR\noptions = norecv\n");
    dir.Write("four.ini", "[config]\ndevice = xilinx0:4\n");
    const ProgramResult result = Plan("two.ini four.ini zce.ini");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("  channel 2, the program of two.ini: 2 (2 single-leg, 0 combinations)\n"
                                "    insts = CF  2: CF701 CF705\n"),
                      HasSubstr("  channel 4, the program of four.ini: nothing\n"),
                      HasSubstr("two.ini:4: warning: [channel2] differs from the section in zce.ini; "),
                      HasSubstr("four.ini:2: error: its program gets nothing: by zce.ini, channel 4 receives no ")));
}

TEST_F(PlanCommand, WithoutAMasterNothingIsWritten) {
    dir.Write("two.ini", "[config]\ndevice = xilinx1:2\n[channel2]\ninsts = SR\noptions = norecv\n");
    const ProgramResult result = Plan("two.ini");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, AllOf(HasSubstr("card 1, without the configuration of a master:\n"),
                                     HasSubstr("  rows to write: none\n"),
                                     HasSubstr("two.ini:2: error: only a program on channel 0 subscribes, and no ")));
}

TEST_F(PlanCommand, CardsAreApart) {
    Master("zce.ini", "[channel0]\ninsts = SR\noptions = norecv\n");
    dir.Write("other.ini",
              "[version]\n1.1.2.12 = 1\n1.1.2.13 = 1\n[config]\ndevice = xilinx4:0\n[channel0]\nips = recv\n");
    EXPECT_THAT(Plan("zce.ini other.ini").output,
                AllOf(HasSubstr("card 0, by zce.ini:\n"), HasSubstr("card 4, by other.ini:\n"),
                      HasSubstr("    table 1, mask 0x0001: 1 row\n")));
}

TEST_F(PlanCommand, JsonHasEveryNameAndRow) {
    Master("old.ini", "[channel0]\ninsts = SR\noptions = norecv\n");
    Master("new.ini", "[channel0]\ninsts = SR701, XX\noptions = recv\n");
    const nlohmann::json plan = Json("new.ini --against old.ini");
    EXPECT_EQ(plan["instruments"]["count"], 7);
    const nlohmann::json& card = plan["cards"][0];
    EXPECT_EQ(card["master"], "new.ini");
    EXPECT_EQ(card["learning_ends"], false);
    EXPECT_EQ(card["channels"][0]["instruments"], nlohmann::json({"SR701", "SR701C6000"}));
    EXPECT_EQ(card["channels"][0]["rules"][0]["value"], "XX");
    EXPECT_EQ(card["channels"][0]["rules"][0]["line"], 7);
    EXPECT_EQ(card["rows"].size(), 2u);
    EXPECT_EQ(card["rows"][1], nlohmann::json({{"table", 0}, {"row", 2}, {"mask", 1}, {"id", "SR701C6000"}}));
    EXPECT_EQ(plan["against"]["cards"][0]["channels"][0]["removed"], nlohmann::json({"SR705"}));
    EXPECT_EQ(plan["against"]["cards"][0]["rows"].size(), 2u);
    EXPECT_EQ(plan["count"], 1);
    EXPECT_EQ(plan["findings"][0]["place"], "new.ini");
}

TEST_F(PlanCommand, TakesInstrumentsFromADayFileAsAStartDoes) {
    Master("zce.ini", "[channel0]\ninsts = SR\noptions = norecv\n");
    const std::string content = "inst_index,inst_id\n12,SR701\n3,SR70\n";
    std::string name;
    ProgramResult result;
    do {  // again when the half-day ended meanwhile
        name = std::filesystem::path(vexo::currentDayFile()).filename().string();
        dir.Write(name, content + "bin_file_over_tag\n");
        result = Plan("--all zce.ini", name);
    } while (name != std::filesystem::path(vexo::currentDayFile()).filename().string());
    EXPECT_THAT(
        result.output,
        AllOf(HasSubstr("; day file " + name + "\n"), HasSubstr("  the master loads the map from the day file\n"),
              HasSubstr("    table 0 row 3 mask 0x0001 SR70\n"), HasSubstr("    table 0 row 12 mask 0x0001 SR701\n")));

    // A file of another half-day is not loaded, and what is learned lacks ids of less than five characters.
    dir.Write(".zce_20260102_am", content + "bin_file_over_tag\n");
    EXPECT_THAT(Plan("--all zce.ini", ".zce_20260102_am").output,
                AllOf(HasSubstr("; day file .zce_20260102_am, not of this half-day\n"), HasSubstr("learns the map"),
                      HasSubstr("  for nobody: 1 (1 single-leg, 0 combinations): SR70\n")));
    dir.Write("cut", content);
    EXPECT_THAT(Plan("zce.ini", "cut").output, HasSubstr("; day file cut, which is not complete, not of this "));
}

TEST_F(PlanCommand, TakesTheListsOfTheSimulatedCardAndItsScenarios) {
    Master("zce.ini", "[channel0]\ninsts = SR\noptions = norecv\n");
    EXPECT_THAT(Plan("zce.ini", "simulated").output, HasSubstr("; the simulated card's list of "));
    EXPECT_THAT(Plan("zce.ini", "full").output, HasSubstr("instruments: 16384 (8192 single-leg, 8192 combinations); "));
    dir.Write("scenario", "7,single,SR701\n8,1,SPD-SR701/SR705\n");
    EXPECT_THAT(Plan("--all zce.ini", "scenario").output, HasSubstr("    table 0 row 7 mask 0x0001 SR701\n"));
}

TEST_F(PlanCommand, RowsOfSeveralInstrumentsAndBeyondTheCardAreFindings) {
    Master("zce.ini", "[channel0]\ninsts = SR\noptions = norecv\n");
    dir.Write("odd", "inst_index,inst_id\n5,SR701\n5,SR705\n9000,SR709\nbin_file_over_tag\n");
    const ProgramResult result = Plan("zce.ini", "odd");
    EXPECT_THAT(
        result.output,
        AllOf(HasSubstr("odd: error: the index 9000 of SR709 is beyond the card's rows, so nobody gets it; "),
              HasSubstr("odd: warning: 1 instrument shares its row with another one, such as SR701 and SR705; "),
              HasSubstr("  rows to write: 1\n")));
}

TEST_F(PlanCommand, AFileThatTheLibraryRefusesHasItsReason) {
    dir.Write("bad.ini", "[config]\ndevice = xilinx9:0\n");
    const ProgramResult result = Plan("bad.ini");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, AllOf(HasSubstr("vexo: bad.ini: the library does not start with this file\n"),
                                     HasSubstr("bad.ini:2: fatal: "), HasSubstr("vexo check bad.ini")));
    // A start that ends later than the rules are read has a plan, and a finding.
    dir.Write("old.ini", "[config]\ndevice = xilinx0:0\n[channel0]\nspd = recv\n");
    EXPECT_THAT(Plan("old.ini").output, AllOf(HasSubstr("    table 1, mask 0x0001: 1 row\n"), HasSubstr(": fatal: "),
                                              HasSubstr("findings; the start-up ends at what is fatal\n")));
}

TEST_F(PlanCommand, WrongUsageNamesWhatIsWrong) {
    Master("zce.ini", "");
    dir.Write("words", "SR701\nSR705 12 13\n");
    dir.Write("index", "SR701 8192\n");
    dir.Write("twice", "SR701\nSR701\n");
    dir.Write("none", "# nothing\n");
    const struct {
        const char* words;
        const char* instruments;
        const char* text;
    } wrong[] = {
        {"", "", "vexo: nothing to plan: name a configuration, such as vexo plan zce.ini"},
        {"none.ini", "list", "vexo: none.ini: No such file or directory; check the path\n"},
        {".", "list", "vexo: .: this is a directory, not a file"},
        {"zce.ini --against none.ini", "list", "vexo: none.ini: No such file or directory"},
        {"zce.ini", "none.txt", "vexo: none.txt: No such file or directory"},
        {"zce.ini", "words", "vexo: words:2: this is no instrument; write an id, or an id and its index"},
        {"zce.ini", "index", "vexo: index:1: \"8192\" is no index; the card has the rows 0 to 8191"},
        {"zce.ini", "twice", "vexo: twice:2: SR701 comes again; remove one of the two lines"},
        {"zce.ini", "none", "vexo: none: there is no instrument in it; write one id a line"},
        {"--nonsense zce.ini", "list", "unexpected argument: --nonsense"},
    };
    for (const auto& one : wrong) {
        const ProgramResult result = Plan(one.words, one.instruments);
        EXPECT_EQ(result.status, 2) << one.words << " " << one.instruments;
        EXPECT_THAT(result.output, HasSubstr(one.text));
    }
}

TEST_F(PlanCommand, WhatTheLibraryPrintsIsNotAmongItsLines) {
    dir.Write("zce.ini", "[config]\nL5_IPA = 239.3.50.1\n");
    const ProgramResult result = Plan("zce.ini");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, AllOf(HasSubstr("[config] device is missing"), Not(HasSubstr("Invalid parameter"))));
}

TEST_F(PlanCommand, AValueCannotCommandTheTerminal) {
    Master("zce.ini", "[channel0]\ninsts = SR\033[2J1\noptions = norecv\n");
    EXPECT_THAT(Plan("zce.ini").output, AllOf(HasSubstr("\\x1B[2J"), Not(HasSubstr("\033"))));
}
