#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "enyx-sim/enyx_sim.h"
#include "interface/CardRegisters.h"
#include "tests/support/TempDir.h"
#include "tests/unit/tools/Program.h"
#include "tools/vexo/check/CardCheck.h"

using namespace vexo::check;
using capture::ProgramResult;
using capture::runProgram;
using capture::word;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

class CardCheck : public ::testing::Test {
protected:
    CardCheck() {
        program.file = "zce.ini";
        program.device = {true, 0, 3};
        program.deviceLine = 2;
        EXPECT_EQ(enyx_sim_power_cycle(nullptr), 0);
        Poke(card_reg::kTradingDate, Today());
    }
    ~CardCheck() override {
        enyx_sim_set_trace(nullptr, nullptr);
        enyx_sim_clear_failures();
    }

    static std::uint32_t Today() {
        const std::time_t now = std::time(nullptr);
        const std::tm local = *std::localtime(&now);
        return static_cast<std::uint32_t>((local.tm_year + 1900) * 10000 + (local.tm_mon + 1) * 100 + local.tm_mday);
    }
    static void Poke(std::uint32_t word, std::uint32_t value) { EXPECT_EQ(enyx_sim_poke_register(0, word, value), 0); }
    // Everything that is found, a line each.
    std::string Check() {
        Report report;
        hasCard = checkCards({program}, report);
        return asText(report, false);
    }

    ConfigFacts program;
    bool hasCard = false;
};

void Record(const char* line, void* lines) {
    const std::string text = line;
    static_cast<std::set<std::string>*>(lines)->insert(text.substr(0, text.find(' ')));
}

}  // namespace

TEST_F(CardCheck, WritesNothingToTheCard) {
    std::set<std::string> calls;
    program.device.channel = 0;
    program.hardware = 12;
    enyx_sim_set_trace(Record, &calls);
    Check();
    EXPECT_THAT(calls, Contains("enyx_hw_read"));
    for (const char* harmless :
         {"enyx_hw_filter_create", "enyx_hw_filter_set_index", "enyx_hw_filter_set_name", "enyx_hw_filter_destroy",
          "enyx_hw_enumerate_accelerators", "enyx_hw_accelerator_get", "enyx_hw_free_accelerator_descriptors",
          "enyx_hw_accelerator_enumerate_mmios", "enyx_hw_mmio_create", "enyx_hw_mmio_destroy",
          "enyx_hw_free_mmio_descriptors", "enyx_hw_enumerate_cores", "enyx_hw_core_tree_get_root",
          "enyx_hw_core_enumerate", "enyx_hw_read", "enyx_hw_accelerator_enumerate_a2c_streams",
          "enyx_hw_a2c_stream_create", "enyx_hw_free_a2c_stream_descriptors", "enyx_hw_a2c_stream_destroy"})
        calls.erase(harmless);
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(CardCheck, ASoundCardHasNotesOnly) {
    const std::string text = Check();
    EXPECT_TRUE(hasCard);
    EXPECT_THAT(text, AllOf(HasSubstr(", a SIMULATED card"), HasSubstr("card 0: note: hardware version "),
                            HasSubstr("card 0: note: all four fibres have light"),
                            HasSubstr("card 0: note: trading date " + std::to_string(Today()) + ", today"),
                            HasSubstr("card 0: note: decoding is off"),
                            HasSubstr("zce.ini:2: note: stream CUSTOM_CHAN3_DATA is free"), EndsWith("no findings\n")));
}

TEST_F(CardCheck, ShowsWhatAMasterLeft) {
    Poke(card_reg::kDecodeSwitch, 3);
    Poke(card_reg::kTradingDate, 20200102);
    EXPECT_THAT(Check(), AllOf(HasSubstr("decoding is on for Level-1 and Level-5: a master has started"),
                               HasSubstr("trading date 20200102, not today: the start of a master resets the card")));
    Poke(card_reg::kDecodeSwitch, 1);
    EXPECT_THAT(Check(), HasSubstr("decoding is on for Level-5: "));
}

TEST_F(CardCheck, OldHardwareEndsTheStartOfAMaster) {
    Poke(card_reg::kHardwareVersion, 11);
    program.hardware = 12;
    program.hardwareLine = 9;
    EXPECT_THAT(Check(), EndsWith("no findings\n"));
    program.device.channel = 0;
    EXPECT_THAT(Check(), HasSubstr("zce.ini:9: fatal: [version] asks for hardware 12, card 0 has 11; "));
}

TEST_F(CardCheck, NamesTheFibresWithoutLight) {
    Poke(card_reg::kVerdictOrFibre, 0xD);
    EXPECT_THAT(Check(), HasSubstr("card 0: warning: no light on fibre 1; "));
    Poke(card_reg::kVerdictOrFibre, 0x6);
    EXPECT_THAT(Check(), HasSubstr("card 0: error: no light on fibres 0, 3; "));
}

TEST_F(CardCheck, ACardThatDoesNotAnswerIsDead) {
    Poke(card_reg::kHardwareVersion, 0xFFFFFFFF);
    Poke(card_reg::kTradingDate, 0xFFFFFFFF);
    EXPECT_THAT(Check(), HasSubstr("card 0: fatal: every register reads 0xFFFFFFFF: the card has dropped off the bus; "
                                   "restart the card or its host, and start no master before"));
    EXPECT_TRUE(hasCard);
    Poke(card_reg::kHardwareVersion, 0);
    EXPECT_THAT(Check(), HasSubstr("card 0: fatal: the hardware version reads 0: the card does not answer; "));
    ASSERT_EQ(enyx_sim_fail_call("enyx_hw_read", 1, EIO, 1), 0);
    EXPECT_THAT(Check(), AllOf(HasSubstr("card 0: fatal: the card is there, but a read of register 0x101 failed: "),
                               HasSubstr("Input/output error"), HasSubstr(": it is dead; restart the card")));
}

TEST_F(CardCheck, SaysWhoHasTheStream) {
    ASSERT_EQ(enyx_sim_hold_stream(0, 3, 1), 0);
    EXPECT_THAT(Check(), HasSubstr("zce.ini:2: fatal: stream CUSTOM_CHAN3_DATA is taken; the card's library says: "
                                   "libenyx-hw-c: stream CUSTOM_CHAN3_DATA of the simulated card at bus 0 is held by "
                                   "process " +
                                   std::to_string(::getpid())));
}

TEST_F(CardCheck, LeavesTheStreamFree) {
    Check();
    EXPECT_THAT(Check(), HasSubstr("stream CUSTOM_CHAN3_DATA is free"));
    enyx_sim_handles handles{};
    enyx_sim_count_handles(&handles);
    EXPECT_EQ(handles.a2c_streams + handles.a2c_descriptors + handles.mmios + handles.filters, 0U);
    EXPECT_EQ(handles.misuses, 0U);
}

TEST_F(CardCheck, ANumberWithoutACardIsFatal) {
    program.device.card = 4;
    EXPECT_THAT(Check(), HasSubstr("card 4: fatal: there is no card with this number"));
    EXPECT_FALSE(hasCard);
}

TEST_F(CardCheck, TheProgramEndsWithThreeWithoutACard) {
    const test_support::TempDir dir;
    dir.Write("c3.ini", "[config]\ndevice = xilinx0:3\n");
    const std::string check = word(VEXO_COMMAND) + " check --card --config-only c3.ini";
    EXPECT_EQ(runProgram(word(VEXO_COMMAND) + " sim run -- " + check).status, 0);
    EXPECT_EQ(runProgram(word(VEXO_COMMAND) + " sim run --scenario " + word(VEXO_SCENARIO_DIR "/no_card.ini") + " -- " +
                         check)
                  .status,
              3);
    const ProgramResult result = runProgram("LD_LIBRARY_PATH= " + check);
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.output, HasSubstr("host: fatal: the card's library cannot be loaded: libenyx-hw-c.so.1: "));
    EXPECT_EQ(runProgram(word(VEXO_COMMAND) + " check --card").status, 2);
}
