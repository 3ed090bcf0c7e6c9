#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "sim/card/InstrumentList.h"
#include "tests/support/TempDir.h"
#include "tests/unit/tools/Program.h"

using namespace capture;
using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

using nlohmann::json;

constexpr char kSound[] = "inst_index,inst_id\n5,SR505\n12,CF505C6000\n5,SPD-SR505/SR509\nbin_file_over_tag\n";

ProgramResult vexo(const std::string& words) { return runProgram(word(VEXO_COMMAND) + " " + words); }

std::string PathNow() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char date[16];
    std::strftime(date, sizeof date, "%Y%m%d", &local);
    return std::string("/tmp/.zce_") + date + (local.tm_hour >= 17 ? "_pm" : "_am");
}

class IndexCommand : public ::testing::Test {
protected:
    test_support::TempDir dir;  // the working directory, too
};

}  // namespace

TEST_F(IndexCommand, ShowsASoundDayFile) {
    dir.Write(".zce_20261115_pm", "inst_index,inst_id\n5,SR505\n12,CF505C6000\n5,SPD-SR505/SR509\nbin_file_over_tag\n");
    const ProgramResult result = vexo("index .zce_20261115_pm");
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_THAT(
        result.output,
        AllOf(StartsWith(".zce_20261115_pm\n"), HasSubstr("half-day:     2026-11-15 from 17:00, not the current one\n"),
              HasSubstr("complete:     yes\n"), HasSubstr("instruments:  3 (2 single-leg, 1 combinations)\n"),
              HasSubstr("size:         77 bytes\n"), HasSubstr("use:          a start now looks for /tmp/.zce_")));
}

TEST_F(IndexCommand, WithoutAFileItShowsTheOneThatAStartLooksFor) {
    const std::string before = PathNow();
    const ProgramResult result = vexo("index");
    const std::string after = PathNow();
    EXPECT_THAT(result.output, AnyOf(StartsWith(before), StartsWith("vexo: " + before), StartsWith(after),
                                     StartsWith("vexo: " + after)));
}

TEST_F(IndexCommand, AMissingFileSaysWhoWritesIt) {
    const ProgramResult result = vexo("index none");
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.output,
              "vexo: none: No such file or directory\n"
              "A master (channel 0) writes it while it learns the map.\n");
}

TEST_F(IndexCommand, AFileWithoutItsEndTagIsAFinding) {
    dir.Write("a", "inst_index,inst_id\n5,SR505\n");
    const ProgramResult result = vexo("index a");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("complete:     no\n"),
                      HasSubstr("a: the end tag is missing: the map was not complete, so a start does not load it\n")));
}

TEST_F(IndexCommand, FindsWhatAMasterDidNotWrite) {
    dir.Write("a",
              "5,SR505\n"
              "x,A\n"
              "70000,B\n"
              "8192,C\n"
              "no comma\n"
              "6,SR505\n"
              "5,CF505\n"
              "5,SPD-SR505/SR509\n"
              "7,D E\n"
              "bin_file_over_tag\n"
              "8,F");
    const std::string output = vexo("index a").output;
    const std::size_t first = output.find("a:1:");
    ASSERT_NE(first, std::string::npos) << output;
    EXPECT_EQ(output.substr(first),
              "a:1: the header \"inst_index,inst_id\" is missing\n"
              "a:2: the index \"x\" is no number; it counts as 0\n"
              "a:3: the index 70000 does not fit; it counts as 4464\n"
              "a:4: the index 8192: the card has the rows 0 to 8191\n"
              "a:5: there is no comma; the line is skipped\n"
              "a:6: SR505 comes again; its first index, 5, counts\n"
              "a:7: CF505 has the index of SR505\n"
              "a:9: the id \"D E\" is none of an instrument\n"
              "a:11: the file ends within this line\n");
}

TEST_F(IndexCommand, AFileOfAnotherKindIsNoDayFile) {
    dir.Write("demo.ini", "; A small master channel, to try it\n[config]\ninsts = SR, CF\n");
    const ProgramResult result = vexo("index demo.ini");
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.output,
              "vexo: demo.ini:1: this is no day file: it begins with \"; A small master channel, to try it\", not with "
              "\"inst_index,inst_id\", and no line is an index and an id\n");
    dir.Write("sound", kSound);
    EXPECT_THAT(vexo("index sound --compare demo.ini").output, StartsWith("vexo: demo.ini:1: this is no day file"));
}

TEST_F(IndexCommand, LongIdsAreCutInFindings) {
    dir.Write("a", "inst_index,inst_id\n1," + std::string(100000, '\x01') + "\nbin_file_over_tag\n");
    EXPECT_LT(vexo("index a").output.size(), 2000U);
}

TEST_F(IndexCommand, SaysThatAMapIsThatOfASimulatedCard) {
    const std::time_t now = std::time(nullptr);
    const std::tm day = *std::localtime(&now);
    const auto date = static_cast<std::uint32_t>((day.tm_year + 1900) * 10000 + (day.tm_mon + 1) * 100 + day.tm_mday);
    std::vector<vexo_sim::Instrument> list(vexo_sim::kMaxInstruments);
    list.resize(vexo_sim::makeInstrumentList(vexo_sim::InstrumentChoice::kDefault, date, list.data()));
    std::string map = "inst_index,inst_id\n";
    for (const vexo_sim::Instrument& one : list) map += std::to_string(one.row) + "," + one.id + "\n";
    dir.Write("a", map + "bin_file_over_tag\n");
    EXPECT_THAT(vexo("index a").output, HasSubstr("\n  map:          that of a simulated card\n"));
    EXPECT_EQ(json::parse(vexo("index --json a").output)["simulated"], true);
    dir.Write("b", kSound);
    EXPECT_THAT(vexo("index b").output, Not(HasSubstr("simulated")));
    EXPECT_EQ(json::parse(vexo("index --json b").output)["simulated"], false);
}

TEST_F(IndexCommand, ManyFindingsOfAKindAreCounted) {
    std::string lines = "inst_index,inst_id\n1,SR505\n";
    for (int i = 0; i < 1000; ++i) lines += "no comma\n";
    dir.Write("a", lines + "bin_file_over_tag\n");
    const json shown = json::parse(vexo("index --json a").output);
    EXPECT_EQ(shown["findings"].size(), 6U);
    EXPECT_EQ(shown["findings"][5]["text"], "995 more lines: no comma");
}

TEST_F(IndexCommand, TakesTheInstrumentsThatTheLoaderTakes) {
    const std::string content = "inst_index,inst_id\n9,A\n3,A\nx,B\n70001,C\nD\n4,E,F\nbin_file_over_tag\n5,G\n6,H";
    dir.Write("a", content);
    std::map<std::string, unsigned short> listed;
    const json shown = json::parse(vexo("index --json --list a").output);
    for (const json& inst : shown["list"]) listed[inst["id"]] = inst["index"];
    EXPECT_EQ(listed,
              (std::map<std::string, unsigned short>{{"A", 9}, {"B", 0}, {"C", 4465}, {"E,F", 4}, {"G", 5}, {"H", 6}}));
}

TEST_F(IndexCommand, ComparesWithAnEarlierFile) {
    dir.Write("old", "inst_index,inst_id\n1,SR505\n2,CF505\n3,TA505\nbin_file_over_tag\n");
    dir.Write("new", "inst_index,inst_id\n1,SR505\n4,CF505\n3,MA505\nbin_file_over_tag\n");
    const ProgramResult result = vexo("index new --compare old");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output,
                HasSubstr("since old: 1 added, 1 removed, 1 moved\n+ MA505 3\n- TA505 3\n~ CF505 2 -> 4\n"));
    const json shown = json::parse(vexo("index new --json --compare old").output);
    EXPECT_EQ(shown["since"]["moved"], json::parse(R"([{"id": "CF505", "from": 2, "to": 4}])"));
    const ProgramResult same = vexo("index new --compare new");
    EXPECT_EQ(same.status, 0);
    EXPECT_THAT(same.output, HasSubstr("since new: 0 added, 0 removed, 0 moved\n"));
}

TEST_F(IndexCommand, ListsInstrumentsAloneOnStandardOutput) {
    dir.Write("a", "inst_index,inst_id\n2,B\n1,A\n");
    EXPECT_EQ(vexo("index --list a 2> /dev/null").output, "1 A\n2 B\n");
    EXPECT_THAT(vexo("index --list a 2>&1 > /dev/null").output, HasSubstr("a: the end tag is missing"));
}

TEST_F(IndexCommand, BytesThatCommandATerminalAreShownHarmless) {
    dir.Write("a", "inst_index,inst_id\n1,\033[2J\n2,\xFF\nbin_file_over_tag\n");
    const ProgramResult text = vexo("index a");
    EXPECT_THAT(text.output, AllOf(HasSubstr("\\x1B[2J"), HasSubstr("\\xFF"), Not(HasSubstr("\033"))));
    EXPECT_THAT(vexo("index --list a").output, AllOf(HasSubstr("1 \\x1B[2J\n"), Not(HasSubstr("\033"))));
    EXPECT_EQ(json::parse(vexo("index --json --list a").output)["list"][0]["id"], "\033[2J");
}

TEST_F(IndexCommand, RefusesWhatTheLibraryDoesNotUse) {
    const std::string refused = ": the library does not use this file: ";
    dir.Write("a", kSound);
    std::filesystem::create_symlink("a", "link");
    EXPECT_EQ(vexo("index link").output, "vexo: link" + refused + "it is a symbolic link, remove it\n");
    ASSERT_EQ(::mkfifo("fifo", 0600), 0);
    EXPECT_EQ(vexo("index fifo").output, "vexo: fifo" + refused + "it is not a regular file, remove it\n");
    EXPECT_EQ(vexo("index .").output, "vexo: .: this is a directory\n");
    std::filesystem::create_hard_link("a", "second");
    EXPECT_EQ(vexo("index a").output, "vexo: a" + refused + "it has another name too, remove it\n");
    dir.Write("huge", "");
    std::filesystem::resize_file("huge", 65U << 20);
    const ProgramResult huge = vexo("index huge");
    EXPECT_EQ(huge.output, "vexo: huge" + refused + "it is far too large, remove it\n");
    EXPECT_EQ(huge.status, 1);
}

TEST_F(IndexCommand, AFileWithoutRightsIsNamed) {
    std::filesystem::permissions(dir.Path(), std::filesystem::perms(0755));
    std::filesystem::copy_file(VEXO_COMMAND, "vexo");
    dir.Write("a", kSound, 0600);
    std::string command = word(dir.Path("vexo")) + " ";
    if (::geteuid() == 0) {
        command = "setpriv --reuid 65534 --regid 65534 --clear-groups " + command;
    } else {
        std::filesystem::permissions("a", std::filesystem::perms::none);
    }
    EXPECT_THAT(runProgram(command + "index a").output, HasSubstr("vexo: a: Permission denied\n"));
    EXPECT_THAT(runProgram(command + "log a").output,
                HasSubstr("vexo: a: Permission denied; start as a user who may read it\n"));
    EXPECT_EQ(runProgram(command + "index a").status, 2);
}
