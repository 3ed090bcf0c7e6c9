#include <gmock/gmock.h>

#include "tests/unit/config/ConfigFixture.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;

constexpr std::uint32_t kFailure = 0xFFFFFFFF;
constexpr unsigned long kHardwareVersion = 0x101;
constexpr unsigned long kVerdict = 0x103;

// What every check starts with once the file's versions are read.
const std::vector<std::string> kAnnouncement = {
    "INFO master channel addr 0x102, litte Endian  0x13020101",
    "W 0x102 0x1010213",
    "INFO master channel addr 0x102, big Endian  0x01010213",
    "R 0x101",
};

std::vector<std::string> AfterAnnouncement(const std::vector<std::string>& lines) {
    std::vector<std::string> all = kAnnouncement;
    all.insert(all.end(), lines.begin(), lines.end());
    return all;
}

class ConfigVersion : public ConfigTest {
protected:
    /// The master channel with these versions in its file, and the keys to look up.
    void LoadVersions(const std::string& lines) {
        LoadMaster("[version]\n" + lines);
        config->AddVersionInfo();
    }
    void SetCard(unsigned int hardware, unsigned int verdict) {
        drv.registers[kHardwareVersion] = hardware;
        drv.registers[kVerdict] = verdict;
    }
    Lines Check() {
        return OutputOf([&] { result = config->Chk_SysVersion(); });
    }

    std::uint32_t result = 12345;
};

TEST_F(ConfigVersion, TheSoftwareVersionIsShown) {
    Make("");

    EXPECT_THAT(OutputOf([&] { config->ShowVersion(); }), ElementsAre("INFO Current soft version 1.1.2.13."));
}

TEST_F(ConfigVersion, TheKeysToLookUpAreAppended) {
    Make("");
    config->m_vecVersion.push_back("version:1.0");

    config->AddVersionInfo();

    EXPECT_THAT(config->m_vecVersion, ElementsAre("version:1.0", "version:1.1.2.12", "version:1.1.2.13"));
}

// ---- hardware version ----

TEST_F(ConfigVersion, ACardThatMeetsTheVersionAndAcceptsTheSoftwarePasses) {
    LoadVersions("1.1.2.12=5\n1.1.2.13=7\n");
    SetCard(7, 1);

    EXPECT_THAT(Check(), ElementsAreArray(AfterAnnouncement({"INFO hardware version check is success.", "R 0x103",
                                                             "INFO hardware and soft version check is success."})));

    EXPECT_EQ(result, 0U);
}

TEST_F(ConfigVersion, AnOlderCardFailsWithoutBeingAskedForItsVerdict) {
    LoadVersions("1.1.2.12=5\n1.1.2.13=7\n");
    SetCard(6, 1);

    EXPECT_THAT(Check(), ElementsAreArray(
                             AfterAnnouncement({"ERROR you will need to update your hardware version.",
                                                "ERROR soft version 1.1.2.13, hwVersion is 7 > fpga hwVersion is 6"})));

    EXPECT_EQ(result, kFailure);
}

TEST_F(ConfigVersion, TheVersionThatAnOlderReleaseNeedsIsNotCompared) {
    LoadVersions("1.1.2.12=99999999\n1.1.2.13=7\n");
    SetCard(7, 1);

    Check();

    EXPECT_EQ(result, 0U);
}

TEST_F(ConfigVersion, AHardwareVersionThatCannotBeReadCountsAsZero) {
    LoadVersions("1.1.2.12=0\n1.1.2.13=1\n");
    SetCard(7, 1);
    drv.failingReads.insert(kHardwareVersion);

    EXPECT_THAT(Check(), Contains("ERROR soft version 1.1.2.13, hwVersion is 1 > fpga hwVersion is 0"));

    EXPECT_EQ(result, kFailure);
}

struct ValueRow {
    const char* name;
    const char* value;
    std::uint32_t required;
};

const ValueRow kDemandingValues[] = {
    {"OneDigit", "7", 7},
    {"EightDigits", "12345678", 12345678},
    {"NineDigitsAreCutToEight", "123456789", 12345678},
    {"ManyDigitsAreCutToEight", "99999999999999999999999", 99999999},
    {"DigitsBeforeLetters", "12ab", 12},
    {"LeadingZeroIsNotOctal", "010", 10},
    {"NegativeIsComparedUnsigned", "-1", 0xFFFFFFFF},
};

const ValueRow kUndemandingValues[] = {
    {"Zero", "0", 0},
    {"NoNumber", "seven", 0},
    {"Empty", "", 0},
    {"HexadecimalIsNotUnderstood", "0x20", 0},
};

class ConfigVersionValue : public ConfigVersion, public testing::WithParamInterface<ValueRow> {
protected:
    void CheckAgainst(std::uint32_t hardware) {
        LoadVersions(std::string("1.1.2.12=0\n1.1.2.13=") + GetParam().value + "\n");
        SetCard(hardware, 1);
        Check();
    }
};

class ConfigVersionDemand : public ConfigVersionValue {};

TEST_P(ConfigVersionValue, IsMetByAnEqualHardwareVersion) {
    CheckAgainst(GetParam().required);

    EXPECT_EQ(result, 0U);
}

TEST_P(ConfigVersionDemand, IsMissedByTheHardwareVersionBelow) {
    CheckAgainst(GetParam().required - 1);

    EXPECT_EQ(result, kFailure);
}

std::string NameOf(const testing::TestParamInfo<ValueRow>& row) { return row.param.name; }

INSTANTIATE_TEST_SUITE_P(Demanding, ConfigVersionValue, testing::ValuesIn(kDemandingValues), NameOf);
INSTANTIATE_TEST_SUITE_P(Undemanding, ConfigVersionValue, testing::ValuesIn(kUndemandingValues), NameOf);
INSTANTIATE_TEST_SUITE_P(Demanding, ConfigVersionDemand, testing::ValuesIn(kDemandingValues), NameOf);

TEST_F(ConfigVersion, AHardwareVersionAboveTheSignedRangeMeetsASmallOne) {
    LoadVersions("1.1.2.12=5\n1.1.2.13=7\n");
    SetCard(0xFFFFFFFF, 1);

    Check();

    EXPECT_EQ(result, 0U);
}

TEST_F(ConfigVersion, VersionsAboveTheSignedRangeAreShownAsSigned) {
    LoadVersions("1.1.2.12=0\n1.1.2.13=-1\n");
    SetCard(0xFFFFFFFE, 1);

    EXPECT_THAT(Check(), Contains("ERROR soft version 1.1.2.13, hwVersion is -1 > fpga hwVersion is -2"));
}

// ---- keys ----

TEST_F(ConfigVersion, AFileWithoutTheOlderVersionFailsBeforeTheCardIsTouched) {
    LoadVersions("1.1.2.13=7\n");

    EXPECT_THAT(Check(), ElementsAre("ERROR you get version from ini config, version is error, version:1.1.2.12 "));

    EXPECT_EQ(result, kFailure);
}

TEST_F(ConfigVersion, AFileWithoutTheCurrentVersionFailsBeforeTheCardIsTouched) {
    LoadVersions("1.1.2.12=5\n");

    EXPECT_THAT(Check(), ElementsAre("ERROR you get version from ini config, version is error, version:1.1.2.13 "));

    EXPECT_EQ(result, kFailure);
}

TEST_F(ConfigVersion, WithoutAKeyForTheCurrentVersionTheCheckFailsAfterTheAnnouncement) {
    LoadVersions("1.1.2.12=5\n1.1.2.13=7\n");
    config->m_vecVersion = {"version:1.1.2.12"};
    SetCard(7, 1);

    EXPECT_THAT(Check(), ElementsAreArray(AfterAnnouncement({"ERROR soft version is error."})));

    EXPECT_EQ(result, kFailure);
}

TEST_F(ConfigVersion, OfTwoKeysForOneVersionTheFirstCounts) {
    LoadMaster("[version]\n1.1.2.13=7\n[release]\n1.1.2.13=8\n");
    config->m_vecVersion = {"version:1.1.2.13", "release:1.1.2.13"};
    SetCard(7, 1);

    Check();

    EXPECT_EQ(result, 0U);
}

TEST_F(ConfigVersion, AnyOtherChannelPassesWithoutTouchingTheCard) {
    for (int channel = 1; channel <= 15; ++channel) {
        Load("[config]\ndevice=xilinx0:" + std::to_string(channel) + "\n");
        config->AddVersionInfo();

        const Lines output = Check();

        EXPECT_THAT(output, IsEmpty()) << channel;
        EXPECT_EQ(result, 0U) << channel;
    }
}

// ---- verdict ----

struct VerdictRow {
    const char* name;
    unsigned int verdict;
    std::vector<std::string> logged;
    std::uint32_t result;
};

class ConfigVerdict : public ConfigVersion, public testing::WithParamInterface<VerdictRow> {};

TEST_P(ConfigVerdict, IsReportedAndDecides) {
    LoadVersions("1.1.2.12=5\n1.1.2.13=7\n");
    SetCard(8, GetParam().verdict);
    std::vector<std::string> expected = AfterAnnouncement({"INFO hardware version check is success.", "R 0x103"});
    expected.insert(expected.end(), GetParam().logged.begin(), GetParam().logged.end());

    EXPECT_THAT(Check(), ElementsAreArray(expected));

    EXPECT_EQ(result, GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(Version, ConfigVerdict,
                         testing::Values(VerdictRow{"WriteFailed", 0, {"ERROR soft version write is fail."}, kFailure},
                                         VerdictRow{
                                             "Accepted", 1, {"INFO hardware and soft version check is success."}, 0},
                                         VerdictRow{"SoftwareTooOld",
                                                    2,
                                                    {"ERROR you will need to update your soft version.",
                                                     "ERROR iCheckRst == 2, soft  error."},
                                                    kFailure},
                                         VerdictRow{"Unknown", 3, {"ERROR iCheckRst is 3 error."}, kFailure},
                                         VerdictRow{"AllFibres", 15, {"ERROR iCheckRst is 15 error."}, kFailure},
                                         VerdictRow{"AllBits", 0xFFFFFFFF, {"ERROR iCheckRst is -1 error."}, kFailure}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(ConfigVersion, AVerdictThatCannotBeReadCountsAsAFailedWrite) {
    LoadVersions("1.1.2.12=5\n1.1.2.13=7\n");
    SetCard(7, 1);
    drv.failingReads.insert(kVerdict);

    EXPECT_THAT(Check(), AllOf(Contains("ERROR soft version write is fail."),
                               Not(Contains("INFO hardware and soft version check is success."))));

    EXPECT_EQ(result, kFailure);
}

}  // namespace
