// Cards that keep their promises: embedded in the process, and hosted by another.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "interface/CardRegisters.h"
#include "tests/cardtest/CardtestRun.h"
#include "tests/hosted/CardAccess.h"
#include "tests/hosted/HostProcess.h"
#include "tests/support/TempDir.h"

namespace cardtest_tests {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;

const std::vector<std::string> kReadOnly = {"--json", "--seconds", "1"};
const std::vector<std::string> kWriting = {"--json", "--seconds", "10", "--write"};

struct EmbeddedCard : ::testing::Test {
    void SetUp() override { setenv("VEXO_SIM_CARD", "embedded", 1); }
    void TearDown() override { unsetenv("VEXO_SIM_CARD"); }
};

TEST_F(EmbeddedCard, KeepsAllThatOneProcessCanSeeOfItWithoutWriting) {
    const Outcome run = RunCardtest(kReadOnly);
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.Checks("fail"), IsEmpty()) << run.output;
    EXPECT_EQ(run.Checks("pass").size(), 33U);
    EXPECT_EQ(run.Reason("table-masks"), "needs --write");
}

TEST_F(EmbeddedCard, KeepsAllButWhatTakesSeveralProcesses) {
    const Outcome run = RunCardtest(kWriting);
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.Checks("fail"), IsEmpty()) << run.output;
    EXPECT_THAT(run.Checks("not testable"), ElementsAre("enumeration-failure", "stream-processes", "lock-processes",
                                                        "stream-dead-holder", "lock-dead-holder"));
    EXPECT_THAT(run.Reason("lock-processes"), HasSubstr("every process has one of its own"));
}

std::vector<std::string> Notes(const test_support::TempDir& directory) {
    std::istringstream text(directory.Read("notes"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
}

TEST_F(EmbeddedCard, IsNotChangedWithoutWrite) {
    const test_support::TempDir directory;
    const Outcome run = RunOnBrokenCard("nothing", directory.Path("notes"), kReadOnly);
    EXPECT_EQ(run.Checks("pass").size(), 33U) << run.output;
    EXPECT_THAT(Notes(directory), IsEmpty());
}

TEST_F(EmbeddedCard, IsWrittenResetAndSentToWithWrite) {
    const test_support::TempDir directory;
    RunOnBrokenCard("nothing", directory.Path("notes"), kWriting);
    EXPECT_THAT(Notes(directory), IsSupersetOf({"enyx_hw_write", "enyx_hw_core_reset", "enyx_hw_c2a_stream_send",
                                                "read of the verdict"}));
}

struct HostedCard : EmbeddedCard {
    void SetUp() override { setenv("VEXO_SIM_CARD", "hosted", 1); }
    hosted::CardDirectory directory;
};

TEST_F(HostedCard, KeepsAllThatCanBeSeenWithoutWriting) {
    const hosted::Process host = hosted::StartHost({});
    const Outcome run = RunCardtest(kReadOnly);
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.Checks("fail"), IsEmpty()) << run.output;
    EXPECT_EQ(run.Checks("pass").size(), 37U);
}

TEST_F(HostedCard, KeepsEverything) {
    const hosted::Process host = hosted::StartHost({});
    const Outcome run = RunCardtest(kWriting);
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.Checks("fail"), IsEmpty()) << run.output;
    EXPECT_THAT(run.Checks("not testable"), ElementsAre("enumeration-failure"));
}

std::uint64_t MaskOf(enyx_hw_core* core, std::uint32_t row) {
    std::uint64_t mask = 0;
    hosted::Write(core, card_reg::kTables[0].select, row << card_reg::kRowShift);
    hosted::Read(core, card_reg::kTables[0].readBack, mask);
    return mask;
}

TEST_F(HostedCard, HasItsMasksSwitchAndDateBackAfterwards) {
    const hosted::Process host = hosted::StartHost({});
    enyx_hw_core* core = hosted::OpenRegisters(0);
    hosted::SetMask(core, 7, 0x5);
    hosted::SetMask(core, 4000, 0x8000);
    hosted::Write(core, card_reg::kDecodeSwitch, card_reg::kSwitchLevel5);
    hosted::Write(core, card_reg::kTradingDate, 20310305);
    EXPECT_EQ(RunCardtest(kWriting).status, 0);
    std::uint64_t decode = 0, date = 0;
    hosted::Read(core, card_reg::kDecodeSwitch, decode);
    hosted::Read(core, card_reg::kTradingDate, date);
    EXPECT_EQ(MaskOf(core, 7), 0x5U);
    EXPECT_EQ(MaskOf(core, 4000), 0x8000U);
    EXPECT_EQ(decode, card_reg::kSwitchLevel5);
    EXPECT_EQ(date, 20310305U);
}

TEST_F(HostedCard, ThatSendsByItselfShowsItsPacketsWithoutWriting) {
    const hosted::Process host = hosted::StartHost({});
    enyx_hw_core* core = hosted::OpenRegisters(0);
    for (std::uint32_t row = 0; row < 500; ++row) hosted::SetMask(core, row, 1U << 15);
    hosted::Write(core, card_reg::kDecodeSwitch, 3);
    const Outcome run = RunCardtest(
        {"--json", "--seconds", "30", "--only", "a2c-poll", "a2c-packets", "a2c-context", "a2c-count"});
    EXPECT_THAT(run.Checks("pass"), ElementsAre("a2c-poll", "a2c-packets", "a2c-context", "a2c-count")) << run.output;
}

TEST_F(HostedCard, InUseByAnotherProcessIsNotWrittenTo) {
    const hosted::Process host = hosted::StartHost({});
    const hosted::Process other({VEXO_CARD_USER, "hold", "9"});
    ASSERT_TRUE(hosted::Eventually([] { return hosted::StatusJson().find("card_user") != std::string::npos; }));
    const Outcome refused = RunCardtest({"--write", "--only", "data-kept"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.errors, HasSubstr("another process holds stream 9, and would lose what it has subscribed."));
    EXPECT_EQ(RunCardtest({"--write", "--in-use", "--only", "data-kept"}).status, 0);
    EXPECT_EQ(RunCardtest({"--only", "data-kept"}).status, 0);
}

TEST_F(HostedCard, WithoutItsHostIsNoCard) {
    const Outcome run = RunCardtest({});
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.output, "");
    EXPECT_THAT(run.errors, HasSubstr("vexo-cardtest: no card to test: card at bus 0"));
    EXPECT_THAT(run.errors, HasSubstr("To have a simulated card at this bus: vexo-simcard --bus 0\n"));
}

TEST_F(HostedCard, IsTestedAtItsBusOnTheStreamThatWasAskedFor) {
    const hosted::Process host = hosted::StartHost({"--bus", "2"});
    const Outcome run = RunCardtest(
        {"--json", "--bus", "2", "--channel", "6", "--only", "a2c-busy", "stream-processes"});
    EXPECT_EQ(run.Report()["bus"], 2);
    EXPECT_EQ(run.Report()["channel"], 6);
    EXPECT_THAT(run.Checks("pass"), ElementsAre("a2c-busy", "stream-processes"));
    EXPECT_EQ(RunCardtest({"--bus", "0"}).status, 3);
}

TEST_F(HostedCard, UsesTheLastFreeStream) {
    const hosted::Process host = hosted::StartHost({});
    const hosted::Process other({VEXO_CARD_USER, "hold", "15"});
    ASSERT_TRUE(hosted::Eventually([] { return hosted::StatusJson().find("card_user") != std::string::npos; }));
    const Outcome run = RunCardtest({"--json", "--only", "a2c-busy"});
    EXPECT_EQ(run.Report()["channel"], 14);
    EXPECT_THAT(run.Checks("pass"), ElementsAre("a2c-busy"));
}

}  // namespace
}  // namespace cardtest_tests
