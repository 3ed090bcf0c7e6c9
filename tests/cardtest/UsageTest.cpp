// The command line of vexo-cardtest, and the page that tells of it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include <cstdlib>

#include "tests/cardtest/CardtestRun.h"
#include "tests/hosted/HostProcess.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/TempDir.h"

namespace cardtest_tests {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

struct CommandLine : ::testing::Test {
    void SetUp() override { setenv("VEXO_SIM_CARD", "embedded", 1); }
    void TearDown() override { unsetenv("VEXO_SIM_CARD"); }
};

TEST_F(CommandLine, ListOfChecksIsTheOneOfThePage) {
    const std::string page = hosted::ReadFile(VEXO_CARDTEST_PAGE);
    const std::string begin = "<!-- vexo-cardtest --list -->\n```\n";
    const std::size_t from = page.find(begin);
    ASSERT_NE(from, std::string::npos);
    const std::size_t text = from + begin.size();
    EXPECT_EQ(page.substr(text, page.find("```\n", text) - text), RunCardtest({"--list"}).output);
}

TEST_F(CommandLine, EveryOptionIsOnThePage) {
    const std::string page = hosted::ReadFile(VEXO_CARDTEST_PAGE);
    const std::string help = RunCardtest({"--help"}).output;
    for (std::size_t at = help.find("  --"); at != std::string::npos; at = help.find("  --", at + 1)) {
        const std::string option = help.substr(at + 2, help.find(' ', at + 2) - at - 2);
        EXPECT_THAT(page, HasSubstr("`" + option)) << option;
    }
}

TEST_F(CommandLine, WithUnknownOptionsOrChecksIsRefused) {
    EXPECT_EQ(RunCardtest({"--frobnicate"}).status, 2);
    EXPECT_EQ(RunCardtest({"--channel", "16"}).status, 2);
    EXPECT_EQ(RunCardtest({"--seconds", "0"}).status, 2);
    const Outcome run = RunCardtest({"--only", "no-such-check"});
    EXPECT_EQ(run.status, 2);
    EXPECT_THAT(run.errors, HasSubstr("there is no check no-such-check, see --list"));
}

TEST_F(CommandLine, ANumberOutOfItsRangeIsRefusedWithTheRange) {
    const Outcome bus = RunCardtest({"--bus", "9"});
    EXPECT_EQ(bus.status, 2);
    EXPECT_EQ(bus.errors, "vexo-cardtest: --bus: 9 is not a whole number from 0 to 4\nSee vexo-cardtest --help\n");
    EXPECT_THAT(RunCardtest({"--seconds", "x"}).errors,
                HasSubstr("--seconds: x is not a whole number from 1 to 3600\n"));
}

TEST_F(CommandLine, AFileThatIsNoLibraryIsRefusedWithoutTheLoadersOwnLine) {
    const test_support::TempDir directory;
    const std::string file = directory.Write("notes.so", "no library");
    const Outcome run = RunCardtest({"--library", file});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.errors,
              "vexo-cardtest: --library " + file + ": this is no library that can be loaded: file too short\n");
}

TEST_F(CommandLine, OnlyRunsTheChecksThatItNames) {
    const Outcome run = RunCardtest({"--json", "--only", "core-root", "filter-name"});
    EXPECT_THAT(run.Checks("pass"), ElementsAre("filter-name", "core-root"));
    EXPECT_EQ(run.Report()["passed"], 2);
}

TEST_F(CommandLine, SaysWhichCardItMet) {
    const Outcome run = RunCardtest({"--only", "core-root"});
    EXPECT_THAT(run.output,
                AllOf(HasSubstr("Bus 0: a simulated card of the process's own, through "),
                      HasSubstr("Nothing on the card is changed."), HasSubstr("\n1 pass, 0 fail, 0 not testable\n")));
}

TEST_F(CommandLine, WriteTellsWhatItDidNotPutBack) {
    const Outcome run = RunCardtest({"--write", "--only", "c2a-send", "version-verdict"});
    EXPECT_THAT(run.output, HasSubstr("Not put back:\n  - 0x102 holds version 1.1.2.13\n"
                                      "  - 64 zero bytes were sent to the card\n"));
    EXPECT_THAT(RunCardtest({"--only", "c2a-send"}).output, Not(HasSubstr("Not put back")));
}

// Another file of the same name, so that the loader has a choice.
TEST_F(CommandLine, LibraryIsUsedInsteadOfWhatTheLoaderFinds) {
    const test_support::TempDir directory;
    const std::string copy = directory.Write("libenyx-hw-c.so.1", hosted::ReadFile(VEXO_CARD_LIBRARY));
    const std::vector<std::string> sanitizer = {"ASAN_OPTIONS=verify_asan_link_order=0"};
    const Outcome run = RunCardtest({"--json", "--library", copy, "--only", "core-root"}, sanitizer);
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(run.Report()["library"], copy);
}

TEST_F(CommandLine, LibraryMayLieInADirectoryWithABlank) {
    if (kWithAddressSanitizer || kWithThreadSanitizer)
        GTEST_SKIP() << "a sanitized program has its own directory of the library, which goes before LD_LIBRARY_PATH";
    const test_support::TempDir directory;
    std::filesystem::create_directory(directory.Path("a card"));
    const std::string copy = directory.Write("a card/libenyx-hw-c.so.1", hosted::ReadFile(VEXO_CARD_LIBRARY));
    const std::vector<std::string> sanitizer = {"ASAN_OPTIONS=verify_asan_link_order=0"};
    const Outcome run = RunCardtest({"--json", "--library", copy, "--only", "core-root"}, sanitizer);
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(run.Report()["library"], copy);
}

TEST_F(CommandLine, LibraryThatIsMissingOrNoCardsIsRefused) {
    EXPECT_EQ(RunCardtest({"--library", "/nowhere/libenyx-hw-c.so.1"}).status, 2);
    const std::vector<std::string> sanitizer = {"ASAN_OPTIONS=verify_asan_link_order=0"};
    const Outcome run = RunCardtest({"--library", "/lib/x86_64-linux-gnu/libm.so.6"}, sanitizer);
    EXPECT_EQ(run.status, 2);
    EXPECT_THAT(run.errors, HasSubstr("the loader does not take the calls from it"));
}

TEST_F(CommandLine, WithoutACardLibraryStillShowsOptionsAndChecks) {
    const Outcome help = RunWithoutCardLibrary({"--help"});
    EXPECT_EQ(help.status, 0) << help.errors;
    EXPECT_EQ(help.output, RunCardtest({"--help"}).output);
    const Outcome list = RunWithoutCardLibrary({"--list"});
    EXPECT_EQ(list.status, 0) << list.errors;
    EXPECT_EQ(list.output, RunCardtest({"--list"}).output);
    EXPECT_EQ(RunWithoutCardLibrary({"--frobnicate"}).status, 2);
}

TEST_F(CommandLine, WithoutACardLibrarySaysWhatToDo) {
    const Outcome run = RunWithoutCardLibrary({});
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.errors,
              "vexo-cardtest: no card to test: libenyx-hw-c.so.1: cannot open shared object file: No such file or "
              "directory. Name the card's library with --library FILE.\n");
}

TEST_F(CommandLine, WithoutACardLibraryTestsTheOneThatIsNamed) {
    const std::vector<std::string> sanitizer = {"ASAN_OPTIONS=verify_asan_link_order=0"};
    const Outcome run = RunWithoutCardLibrary(
        {"--json", "--library", VEXO_CARD_LIBRARY, "--only", "core-root", "a2c-busy"}, sanitizer);
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(run.Report()["library"], VEXO_CARD_LIBRARY);
    EXPECT_EQ(run.Report()["passed"], 2);
}

TEST_F(CommandLine, WithoutACardLibraryOneThatIsNoCardsIsRefused) {
    const std::vector<std::string> sanitizer = {"ASAN_OPTIONS=verify_asan_link_order=0"};
    const Outcome run = RunWithoutCardLibrary({"--library", "/lib/x86_64-linux-gnu/libm.so.6"}, sanitizer);
    EXPECT_EQ(run.status, 2);
    EXPECT_THAT(run.errors, HasSubstr("the loader does not take the calls from it, but from no library\n"));
}

}  // namespace
}  // namespace cardtest_tests
