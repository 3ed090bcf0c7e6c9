#include <gmock/gmock.h>

#include "tests/unit/config/ConfigFixture.h"

namespace {

using testing::ElementsAre;

class ConfigFeedSwitch : public ConfigTest {
protected:
    Lines Dump() {
        return OutputOf([&] { config->DumpDevInfo(); });
    }
    static std::uint32_t Switches() { return Config::m_SwitchReg; }
};

TEST_F(ConfigFeedSwitch, BothFeedsAreOnWithoutKeys) {
    LoadMaster("");

    EXPECT_THAT(Dump(), ElementsAre("INFO L1 and L5 switch on."));

    EXPECT_EQ(Switches(), 3U);
}

TEST_F(ConfigFeedSwitch, DisablingLevel1LeavesLevel5On) {
    LoadMaster("czce_level1=disabled\n");

    EXPECT_THAT(Dump(), ElementsAre("INFO config:czce_level1=disabled.", "INFO L1 switch off and L5 switch on."));

    EXPECT_EQ(Switches(), 1U);
}

TEST_F(ConfigFeedSwitch, DisablingLevel2TurnsLevel5Off) {
    LoadMaster("czce_level2=disabled\n");

    EXPECT_THAT(Dump(), ElementsAre("INFO config:czce_level2=disabled.", "INFO L1 switch on and L5 switch off."));

    EXPECT_EQ(Switches(), 2U);
}

TEST_F(ConfigFeedSwitch, DisablingBothIsAWarningAndIsStored) {
    LoadMaster("czce_level2=disabled\nczce_level1=disabled\n");

    EXPECT_THAT(Dump(), ElementsAre("INFO config:czce_level1=disabled.", "INFO config:czce_level2=disabled.",
                                    "WARN L1 and L5 switch off! Software won't get data!"));

    EXPECT_EQ(Switches(), 0U);
}

TEST_F(ConfigFeedSwitch, AnyOtherValueLeavesTheFeedOn) {
    for (const std::string value : {"Disabled", "DISABLED", "enabled", "disable", "disabledd", "0", ""}) {
        SCOPED_TRACE(value);
        LoadMaster("czce_level1=" + value + "\nczce_level2=" + value + "\n");

        const Lines output = Dump();

        EXPECT_THAT(output, ElementsAre("INFO config:czce_level1=" + value + ".",
                                        "INFO config:czce_level2=" + value + ".", "INFO L1 and L5 switch on."));
        EXPECT_EQ(Switches(), 3U);
    }
}

TEST_F(ConfigFeedSwitch, TheLastOfSeveralObjectsDecides) {
    LoadMaster("czce_level1=disabled\nczce_level2=disabled\n");
    Dump();
    LoadMaster("czce_level2=disabled\n");

    Dump();

    EXPECT_EQ(Switches(), 2U);
}

}  // namespace
