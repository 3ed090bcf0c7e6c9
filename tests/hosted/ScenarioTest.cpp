// Scenarios on a hosted card, and on a process's own by the environment alone.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <sstream>

#include "interface/CardRegisters.h"
#include "tests/hosted/CardAccess.h"
#include "tests/hosted/HostProcess.h"
#include "tests/support/CaptureOutput.h"

namespace hosted {
namespace {

using ::testing::HasSubstr;

struct Scenario : ::testing::Test {
    CardDirectory directory;
    const std::string path = directory.Path() + "/rehearsal.ini";

    void TearDown() override {
        unsetenv("VEXO_SIM_CARD");
        unsetenv("VEXO_SIM_SCENARIO");
        unsetenv("VEXO_SIM_SET");
    }

    Process Host(const std::string& content) {
        WriteFile(path, content);
        setenv("VEXO_SIM_CARD", "hosted", 1);
        return StartHost({path, "--bus", "0"});
    }
};

TEST_F(Scenario, SaysWhatTheHostedCardIs) {
    const Process host = Host("[scenario]\ndescription = an old card\n[card]\nhardware_version = 3\ndate = 20310305\n");
    enyx_hw_core* core = OpenRegisters(0);
    std::uint64_t version = 0, date = 0;
    ASSERT_EQ(Read(core, card_reg::kHardwareVersion, version), 0);
    ASSERT_EQ(Read(core, card_reg::kTradingDate, date), 0);
    EXPECT_EQ(version, 3U);
    EXPECT_EQ(date, 20310305U);
    EXPECT_THAT(StatusJson(), HasSubstr("\"scenario\": \"rehearsal\",\n  \"description\": \"an old card\""));
}

TEST_F(Scenario, AStreamItHoldsIsBusyInTheNameOfTheHost) {
    const Process host = Host("[fault taken]\nkind = stream_held\nchannels = 3\n");
    FindCard(0);
    test_support::CaptureOutput output(2);
    errno = 0;
    EXPECT_EQ(OpenStream(0, 3), nullptr);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(output.Stop(),
              "libenyx-hw-c: stream CUSTOM_CHAN3_DATA of the simulated card at bus 0 is held by process " +
                  std::to_string(host.Id()) + " (vexo-simcard, user " + UserName() + "), as its scenario says.\n");
}

TEST_F(Scenario, ACallThatFailsFailsInEachProcessOnTheCard) {
    const Process host = Host(
        "[fault reads]\nkind = call_fails\ncall = enyx_hw_write\nerrno = EIO\nnth = 1\ntimes = 1\n");
    for (int n = 0; n < 2; ++n) {
        Process user({VEXO_CARD_USER, "write", "262", "20310305"});
        EXPECT_EQ(user.Wait(), EIO);
    }
}

TEST_F(Scenario, EvenTheFirstCallOfAProcessMayFail) {
    const std::string fault = "[fault none]\nkind = call_fails\ncall = enyx_hw_enumerate_accelerators\nerrno = EIO\n";
    {
        const Process host = Host(fault);
        Process user({VEXO_CARD_USER, "write", "262", "20310305"});
        EXPECT_EQ(user.Wait(), EIO);
    }
    setenv("VEXO_SIM_CARD", "embedded", 1);
    setenv("VEXO_SIM_SCENARIO", path.c_str(), 1);
    Process user({VEXO_CARD_USER, "write", "262", "20310305"});
    EXPECT_EQ(user.Wait(), EIO);
}

TEST_F(Scenario, FailingCallsEndWithTheirHost) {
    {
        Process host = Host(
            "[fault none]\nkind = call_fails\ncall = enyx_hw_enumerate_accelerators\nerrno = EIO\n"
            "times = all\n");
        EXPECT_EQ(FindCard(0), nullptr);
        EXPECT_EQ(errno, EIO);
        host.Signal(SIGKILL);
        host.Wait();
    }
    const Process host = Host("[scenario]\ndescription = sound again\n");
    EXPECT_NE(FindCard(0), nullptr);
}

TEST_F(Scenario, TheCommandLinesBusAndPaceGoBeforeItsOwn) {
    WriteFile(path, "[card]\nbus = 2\n[pace]\npace = x7\n");
    setenv("VEXO_SIM_CARD", "hosted", 1);
    const Process host = StartHost({path, "--bus", "1", "--pace", "x3"});
    EXPECT_THAT(StatusJson(1), HasSubstr("\"pace\": \"x3\""));
    EXPECT_EQ(StatusJson(2), "");
}

TEST_F(Scenario, OneThatCannotBeUsedEndsTheHostWithItsFileAndLine) {
    WriteFile(path, "[card]\nseed = 1\nhardwareversion = 3\n");
    Process host({VEXO_SIMCARD, path}, {}, directory.Path() + "/err");
    EXPECT_EQ(host.Wait(), 2);
    EXPECT_THAT(ReadFile(directory.Path() + "/err"), HasSubstr(path + ":3: [card] has no key hardwareversion"));
}

TEST_F(Scenario, SettingsGoBeforeItsKeysAndShowInTheStatus) {
    WriteFile(path, "[scenario]\ndescription = an old card\n[card]\nhardware_version = 3\n");
    setenv("VEXO_SIM_CARD", "hosted", 1);
    const Process host = StartHost({path, "--bus", "0", "--set", "card.hardware_version=11"});
    std::uint64_t version = 0;
    ASSERT_EQ(Read(OpenRegisters(0), card_reg::kHardwareVersion, version), 0);
    EXPECT_EQ(version, 11U);
    EXPECT_THAT(StatusJson(), HasSubstr("\"scenario\": \"rehearsal, card.hardware_version=11\",\n"
                                        "  \"description\": \"an old card\""));
}

// The commands of the page on scenarios, typed where the scenarios are.
TEST_F(Scenario, ThePagesCommandsHostACard) {
    setenv("VEXO_SIM_CARD", "hosted", 1);
    std::istringstream page(ReadFile(VEXO_SCENARIO_DIR "/README.md"));
    unsigned commands = 0;
    for (std::string line; std::getline(page, line);) {
        if (line.rfind("    vexo-simcard ", 0) != 0) continue;
        ++commands;
        const std::string words = line.substr(line.find_first_not_of(' ') + sizeof "vexo-simcard");
        Process host({"/bin/sh", "-c", "cd '" VEXO_SCENARIO_DIR "' && exec '" VEXO_SIMCARD "' --quiet " + words});
        EXPECT_TRUE(Eventually([&] { return !host.IsRunning() || !StatusJson().empty(); }));
        ASSERT_TRUE(host.IsRunning()) << line;
        host.Signal(SIGTERM);
        EXPECT_EQ(host.Wait(), 0) << line;
    }
    EXPECT_EQ(commands, 3U);
}

TEST_F(Scenario, WrongOptionsAndSettingsEndTheHostWithTwoBeforeThereIsACard) {
    const std::vector<std::string> wrong[] = {{"--set", "card.hardwareversion=3"},
                                              {"--set", "card.seed"},
                                              {"--set"},
                                              {"--bus", "5"},
                                              {"--pace", "fast"},
                                              {"--frobnicate"},
                                              {"--group", "no-such-group"},
                                              {"a.ini", "b.ini"},
                                              {"--seconds", "-1"}};
    for (const std::vector<std::string>& options : wrong) {
        std::vector<std::string> command = {VEXO_SIMCARD, "--quiet"};
        command.insert(command.end(), options.begin(), options.end());
        Process host(command, {}, directory.Path() + "/err");
        EXPECT_EQ(host.Wait(), 2) << options.back();
    }
    EXPECT_THAT(ReadFile(directory.Path() + "/err"),
                HasSubstr("vexo-simcard: --set card.hardwareversion=3: [card] has no key hardwareversion; use bus, "));
    EXPECT_THAT(directory.Files(), ::testing::ElementsAre("err"));
}

TEST_F(Scenario, SettingsOfTheEnvironmentGoBeforeItsScenario) {
    WriteFile(path, "[fault all]\nkind = call_fails\ncall = enyx_hw_write\nerrno = ENOSPC\n");
    setenv("VEXO_SIM_SCENARIO", path.c_str(), 1);
    setenv("VEXO_SIM_SET", "fault all.errno=EIO\n", 1);
    Process user({VEXO_CARD_USER, "write", "262", "20310305"});
    EXPECT_EQ(user.Wait(), EIO);
}

TEST_F(Scenario, SettingsOfTheEnvironmentThatAreWrongLeaveTheProcessWithoutACard) {
    const std::string wrong[] = {"card.bus=7", "nonsense", std::string(100'000, 'x'), "\033]0;title\007", "a=b\n=\n."};
    for (const std::string& settings : wrong) {
        setenv("VEXO_SIM_SET", settings.c_str(), 1);
        Process user({VEXO_CARD_USER, "write", "262", "20310305"}, {}, directory.Path() + "/err");
        EXPECT_EQ(user.Wait(), ENODEV);
    }
    const std::string errors = ReadFile(directory.Path() + "/err");
    EXPECT_THAT(errors, HasSubstr("libenyx-hw-c: VEXO_SIM_SET card.bus=7: bus: \"7\" will not do"));
    EXPECT_THAT(errors, ::testing::Not(HasSubstr("\033")));
    EXPECT_LT(errors.size(), 2000U);
}

TEST_F(Scenario, TheEnvironmentAloneGivesAProcessACardOfThatScenario) {
    WriteFile(path, "[fault all]\nkind = call_fails\ncall = enyx_hw_write\nerrno = ENOSPC\nnth = 1\ntimes = all\n");
    setenv("VEXO_SIM_SCENARIO", path.c_str(), 1);
    Process user({VEXO_CARD_USER, "write", "262", "20310305"});
    EXPECT_EQ(user.Wait(), ENOSPC);
}

TEST_F(Scenario, InTheEnvironmentOneThatCannotBeUsedLeavesTheProcessWithoutACard) {
    setenv("VEXO_SIM_SCENARIO", path.c_str(), 1);
    Process user({VEXO_CARD_USER, "write", "262", "20310305"}, {}, directory.Path() + "/err");
    EXPECT_EQ(user.Wait(), ENODEV);
    EXPECT_THAT(ReadFile(directory.Path() + "/err"), HasSubstr("libenyx-hw-c: " + path));
    EXPECT_THAT(ReadFile(directory.Path() + "/err"), HasSubstr("libenyx-hw-c: no simulated card.\n"));
}

}  // namespace
}  // namespace hosted
