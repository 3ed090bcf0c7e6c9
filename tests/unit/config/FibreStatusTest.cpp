#include <gmock/gmock.h>

#include <cstdio>

#include "tests/unit/config/ConfigFixture.h"

namespace {

using testing::ElementsAre;

constexpr unsigned long kFibreStatus = 0x103;
constexpr char kFibreZeroError[] =
    "ERROR The fiber 0 is not connected, status is incorrect! Please modify or contact technical support!";
constexpr char kNotAllWarning[] = "WARN Warning! The fiber optic cable is not fully connected.";

class ConfigFibreStatus : public ConfigTest {
protected:
    Lines StatusOf(unsigned int value) {
        drv.registers[kFibreStatus] = value;
        return OutputOf([&] { config->PrintSwitchStatus(); });
    }
};

TEST_F(ConfigFibreStatus, AllFourFibresAreOneLine) {
    Make("");

    EXPECT_THAT(StatusOf(0x0F), ElementsAre("R 0x103", "INFO Fiber linkstatus 0x103:0xf."));
}

TEST_F(ConfigFibreStatus, OnlyFibreZeroMissingIsAnErrorAndAWarning) {
    Make("");

    EXPECT_THAT(StatusOf(0x0E),
                ElementsAre("R 0x103", "INFO Fiber linkstatus 0x103:0xe.", kFibreZeroError, kNotAllWarning));
}

TEST_F(ConfigFibreStatus, EveryOddStatusButFifteenIsAWarningAlone) {
    Make("");
    for (const unsigned int status : {0x1U, 0x3U, 0x5U, 0x7U, 0x9U, 0xBU, 0xDU, 0x11U, 0x1FU, 0xFFFFFFFFU}) {
        char shown[64];
        std::snprintf(shown, sizeof shown, "INFO Fiber linkstatus 0x103:0x%x.", status);

        const Lines output = StatusOf(status);

        EXPECT_THAT(output, ElementsAre("R 0x103", shown, kNotAllWarning));
    }
}

TEST_F(ConfigFibreStatus, EveryEvenStatusIsAnErrorAndAWarning) {
    Make("");
    for (const unsigned int status : {0x0U, 0x2U, 0x4U, 0x6U, 0x8U, 0xAU, 0xCU, 0x10U, 0xFFFFFFFEU}) {
        char shown[64];
        std::snprintf(shown, sizeof shown, "INFO Fiber linkstatus 0x103:0x%x.", status);

        const Lines output = StatusOf(status);

        EXPECT_THAT(output, ElementsAre("R 0x103", shown, kFibreZeroError, kNotAllWarning));
    }
}

TEST_F(ConfigFibreStatus, AStatusThatCannotBeReadCountsAsNoFibre) {
    Make("");
    drv.failingReads.insert(kFibreStatus);

    EXPECT_THAT(StatusOf(0x0F),
                ElementsAre("R 0x103", "INFO Fiber linkstatus 0x103:0x0.", kFibreZeroError, kNotAllWarning));
}

}  // namespace
