#include <gmock/gmock.h>

#include "tests/unit/config/ConfigFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Vexo2_U50::ZceSubsInfo_t;

constexpr std::uint32_t kFailure = 0xFFFFFFFF;

class ConfigSubsRules : public ConfigTest {
protected:
    /// Loads the sections and parses the rules; `output` then holds what was logged.
    void Parse(const std::string& sections) {
        LoadMaster(sections);
        ParseAgain();
    }
    void ParseAgain() {
        output = OutputOf([&] { result = config->ParseSubsInst(); });
    }
    ZceSubsInfo_t& Info(std::size_t channel = 0) { return config->m_stSubsInfo[channel]; }

    Lines output;
    std::uint32_t result = 12345;
};

// Everything that the rules can say to a record.
std::string Described(const ZceSubsInfo_t& info) {
    std::string text = "ids";
    for (const std::string& id : info.m_SubsContractId) text += ' ' + id;
    text += " classes";
    for (const std::string& cls : info.m_SubsContractClass) text += ' ' + cls;
    text += " flags";
    for (const bool flag : {info.bSubAll, info.bOptionsRecv, info.bIpsRecv, info.bSpdRecv}) text += flag ? '1' : '0';
    text += " reserved " + std::to_string(info.uiReserved3);
    for (const std::string& raw : {info.strIds, info.strClasses, info.strOptions, info.strIps, info.strSpd})
        text += " [" + raw + ']';
    return text;
}

const std::string kUntouched = "ids classes flags0000 reserved 3 [] [] [] [] []";

std::string Section(std::size_t channel, const std::string& lines) {
    return "[channel" + std::to_string(channel) + "]\n" + lines;
}

// ---- the whole record ----

TEST_F(ConfigSubsRules, EveryKeyOfAChannelReachesItsRecord) {
    Parse("[channel0]\ninsts=SR505,CF,all,SPD-SR505/SR509\noptions=recv\nips=recv\nspd=recv\n");

    EXPECT_EQ(result, 0U);
    EXPECT_EQ(Described(Info()),
              "ids SR505 SPD-SR505/SR509 classes CF all flags1111 reserved 3"
              " [SR505,SPD-SR505/SR509] [CF,all] [recv] [recv] [recv]");
}

TEST_F(ConfigSubsRules, AChannelsRulesAreLoggedInFull) {
    Parse("[channel0]\ninsts=SR505,CF,ALL,CF505\noptions=recv\nips=recv\nspd=recv\n");

    EXPECT_THAT(output, ElementsAre("INFO [channel:0] --------Channel 0 subscribed information is as below:--------",
                                    "INFO [channel:0] subId:SR505", "INFO [channel:0] subId:CF505",
                                    "INFO [channel:0] You subscribe all subId !", "INFO [channel:0] subClass:CF,",
                                    "INFO [channel:0] subClass:ALL,", "INFO [channel:0] options=recv",
                                    "INFO [channel:0] ips=recv", "INFO [channel:0] spd=recv",
                                    "INFO --------------------------------------------------------"));
}

TEST_F(ConfigSubsRules, RefusalsAreLoggedAndKeptAsWritten) {
    Parse("[channel7]\ninsts=SR505\noptions=none\nips=no\nspd=norecv\n");

    EXPECT_EQ(Described(Info(7)), "ids SR505 classes flags0000 reserved 3 [SR505] [] [none] [no] [norecv]");
    EXPECT_THAT(output, ElementsAre("INFO [channel:7] --------Channel 7 subscribed information is as below:--------",
                                    "INFO [channel:7] subId:SR505", "INFO [channel:7] options=norecv",
                                    "INFO [channel:7] ips=norecv", "INFO [channel:7] spd=norecv",
                                    "INFO --------------------------------------------------------"));
}

TEST_F(ConfigSubsRules, AFileWithoutRulesSubscribesNothingAndIsNoError) {
    Parse("");

    EXPECT_EQ(result, 0U);
    EXPECT_THAT(output, IsEmpty());
    for (std::size_t channel = 0; channel < 16; ++channel) EXPECT_EQ(Described(Info(channel)), kUntouched);
}

// ---- the sixteen channels ----

class ConfigOneChannel : public ConfigSubsRules, public testing::WithParamInterface<std::size_t> {};

TEST_P(ConfigOneChannel, FillsItsOwnRecordOnly) {
    Parse(Section(GetParam(), "insts=SR505,CF\noptions=recv\nips=no\nspd=recv\n"));

    for (std::size_t channel = 0; channel < 16; ++channel) {
        const bool own = channel == GetParam();
        EXPECT_EQ(Described(Info(channel)),
                  own ? "ids SR505 classes CF flags0101 reserved 3 [SR505] [CF] [recv] [no] [recv]" : kUntouched);
    }
}

TEST_P(ConfigOneChannel, NamesItselfInEveryLine) {
    const std::string number = std::to_string(GetParam());
    const std::string head = "INFO [channel:" + number + "] ";
    Parse(Section(GetParam(), "insts=all,SR505\noptions=recv\nips=no\nspd=recv\n"));

    EXPECT_THAT(output, ElementsAre(head + "--------Channel " + number + " subscribed information is as below:--------",
                                    head + "subId:SR505", head + "You subscribe all subId !", head + "subClass:all,",
                                    head + "options=recv", head + "ips=norecv", head + "spd=recv",
                                    "INFO --------------------------------------------------------"));
}

TEST_P(ConfigOneChannel, WithoutItsOptionsEndsTheParse) {
    const std::size_t failing = GetParam();
    std::string sections;
    for (std::size_t channel = 0; channel < 16; ++channel) {
        const std::string options = channel == failing ? "" : "options=recv\n";
        sections += Section(channel, "insts=SR505,CF\n" + options + "ips=recv\nspd=recv\n");
    }

    Parse(sections);

    EXPECT_EQ(result, kFailure);
    EXPECT_EQ(output.back(), "ERROR [channel:" + std::to_string(failing) +
                                 "] Error! In subscribe labek ,Lack item: options=xxx , please check !");
    for (std::size_t channel = 0; channel < 16; ++channel) {
        const std::string parsed = "ids SR505 classes CF flags0111 reserved 3 [SR505] [CF] [recv] [recv] [recv]";
        const std::string rejected = "ids SR505 classes CF flags0000 reserved 3 [SR505] [CF] [] [] []";
        const std::string expected = channel < failing ? parsed : channel == failing ? rejected : kUntouched;
        EXPECT_EQ(Described(Info(channel)), expected) << channel;
    }
}

INSTANTIATE_TEST_SUITE_P(Channel, ConfigOneChannel, testing::Range<std::size_t>(0, 16));

TEST_F(ConfigSubsRules, ChannelsAreReadInAscendingOrderWhateverTheFilesOrder) {
    Parse("[channel10]\nips=recv\n[channel15]\nips=recv\n[channel2]\nips=recv\n[channel0]\nips=recv\n");

    EXPECT_THAT(output, ElementsAre("INFO [channel:0] ips=recv", "INFO [channel:2] ips=recv",
                                    "INFO [channel:10] ips=recv", "INFO [channel:15] ips=recv"));
}

TEST_F(ConfigSubsRules, SectionsThatNameNoChannelAreIgnored) {
    Parse("[channel16]\nips=recv\n[channel01]\nips=recv\n[channel-1]\nips=recv\n[channel]\nips=recv\n");

    EXPECT_EQ(result, 0U);
    EXPECT_THAT(output, IsEmpty());
}

TEST_F(ConfigSubsRules, SectionAndKeyNamesAreFoundInAnyLetterCase) {
    Parse("[Channel3]\nINSTS=SR505\nOptions=recv\nIPS=recv\nSpd=recv\n");

    EXPECT_EQ(Described(Info(3)), "ids SR505 classes flags0111 reserved 3 [SR505] [] [recv] [recv] [recv]");
}

// ---- insts ----

TEST_F(ConfigSubsRules, BlanksAreRemovedFromTheInstruments) {
    Parse("[channel0]\ninsts = SR505, CF,ALL\noptions=recv\n");

    EXPECT_EQ(Described(Info()), "ids SR505 classes CF ALL flags1100 reserved 3 [SR505] [CF,ALL] [recv] [] []");
}

struct InstsRow {
    const char* name;
    const char* value;
    const char* described;  // up to the joined texts
};

class ConfigInsts : public ConfigSubsRules, public testing::WithParamInterface<InstsRow> {};

TEST_P(ConfigInsts, AreSplitIntoIdsAndClasses) {
    Parse(std::string("[channel0]\ninsts=") + GetParam().value + "\noptions=no\n");

    EXPECT_EQ(result, 0U);
    EXPECT_EQ(Described(Info()), std::string(GetParam().described) + " [no] [] []");
}

INSTANTIATE_TEST_SUITE_P(
    SubsRules, ConfigInsts,
    testing::Values(
        InstsRow{"Empty", "", "ids classes flags0000 reserved 3 [] []"},
        InstsRow{"CommasOnly", ",,,", "ids classes flags0000 reserved 3 [] []"},
        InstsRow{"BlanksAndCommasOnly", " , , ", "ids classes flags0000 reserved 3 [] []"},
        InstsRow{"TwoCommasInARow", "1,,2", "ids 1 2 classes flags0000 reserved 3 [1,2] []"},
        InstsRow{"CommasAtBothEnds", ",SR505,CF,", "ids SR505 classes CF flags0000 reserved 3 [SR505] [CF]"},
        InstsRow{"RepeatedTokensAndOrderAreKept", "CF,SR509,CF,SR505,SR509",
                 "ids SR509 SR505 SR509 classes CF CF flags0000 reserved 3 [SR509,SR505,SR509] [CF,CF]"},
        InstsRow{"LettersAreNotFolded", "sr505,cf", "ids sr505 classes cf flags0000 reserved 3 [sr505] [cf]"},
        InstsRow{"ADigitAnywhereMakesAnId", "S0R,9,A-1", "ids S0R 9 A-1 classes flags0000 reserved 3 [S0R,9,A-1] []"},
        InstsRow{"BlanksInsideATokenAreRemoved", "S R 5 0 5,C F",
                 "ids SR505 classes CF flags0000 reserved 3 [SR505] [CF]"},
        InstsRow{"TabsStay", "SR505,\tCF", "ids SR505 classes \tCF flags0000 reserved 3 [SR505] [\tCF]"},
        InstsRow{"AllInsideAnotherWord", "Small", "ids classes Small flags1000 reserved 3 [] [Small]"},
        InstsRow{"AllInsideAnId", "BALL505", "ids BALL505 classes flags1000 reserved 3 [BALL505] []"},
        InstsRow{"AllOnceBlanksAreGone", "a l l", "ids classes all flags1000 reserved 3 [] [all]"},
        InstsRow{"AllInMixedCase", "aLl", "ids classes aLl flags1000 reserved 3 [] [aLl]"},
        InstsRow{"AllBrokenByAComma", "al,l", "ids classes al l flags0000 reserved 3 [] [al,l]"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(ConfigSubsRules, EmptyInstrumentsStillDemandOptions) {
    Parse("[channel0]\ninsts=\n");

    EXPECT_EQ(result, kFailure);
    EXPECT_THAT(output, ElementsAre("INFO [channel:0] --------Channel 0 subscribed information is as below:--------",
                                    "ERROR [channel:0] Error! In subscribe labek ,Lack item: options=xxx , please "
                                    "check !"));
}

// ---- options, ips, spd ----

TEST_F(ConfigSubsRules, OptionsAreNotReadWithoutInstruments) {
    Parse("[channel0]\noptions=recv\n");

    EXPECT_EQ(Described(Info()), kUntouched);
    EXPECT_THAT(output, IsEmpty());
}

TEST_F(ConfigSubsRules, TheDashesFollowTheSpreadKeyAlone) {
    Parse("[channel0]\nips=recv\n[channel1]\nspd=no\n");

    EXPECT_THAT(output, ElementsAre("INFO [channel:0] ips=recv", "INFO [channel:1] spd=norecv",
                                    "INFO --------------------------------------------------------"));
}

TEST_F(ConfigSubsRules, CombinationKeysAloneGiveTheirFlagsAndNoInstruments) {
    Parse("[channel4]\nips=recv\nspd=recv\n");

    EXPECT_EQ(result, 0U);
    EXPECT_EQ(Described(Info(4)), "ids classes flags0011 reserved 3 [] [] [] [recv] [recv]");
}

struct RefusedRow {
    const char* name;
    const char* value;
};

class ConfigRefusedRule : public ConfigSubsRules, public testing::WithParamInterface<RefusedRow> {};

TEST_P(ConfigRefusedRule, IsAnythingButRecvInLowerCase) {
    const std::string value = GetParam().value;
    Parse("[channel0]\ninsts=SR505\noptions=" + value + "\nips=" + value + "\nspd=" + value + "\n");

    const std::string raw = " [" + value + ']';
    EXPECT_EQ(Described(Info()), "ids SR505 classes flags0000 reserved 3 [SR505] []" + raw + raw + raw);
    EXPECT_THAT(output, ElementsAre("INFO [channel:0] --------Channel 0 subscribed information is as below:--------",
                                    "INFO [channel:0] subId:SR505", "INFO [channel:0] options=norecv",
                                    "INFO [channel:0] ips=norecv", "INFO [channel:0] spd=norecv",
                                    "INFO --------------------------------------------------------"));
}

INSTANTIATE_TEST_SUITE_P(SubsRules, ConfigRefusedRule,
                         testing::Values(RefusedRow{"UpperCase", "RECV"}, RefusedRow{"Capital", "Recv"},
                                         RefusedRow{"TextBehind", "recv."}, RefusedRow{"BlankInside", "re cv"},
                                         RefusedRow{"LongerWord", "receive"}, RefusedRow{"OtherWord", "norecv"},
                                         RefusedRow{"Number", "1"}, RefusedRow{"Empty", ""}),
                         [](const auto& row) { return std::string(row.param.name); });

// ---- repetition ----

TEST_F(ConfigSubsRules, ASecondParseAppendsEveryTokenAgain) {
    Parse("[channel0]\ninsts=SR505,CF,all\noptions=recv\nips=recv\nspd=no\n");

    ParseAgain();

    EXPECT_EQ(result, 0U);
    EXPECT_EQ(Described(Info()),
              "ids SR505 SR505 classes CF all CF all flags1110 reserved 3"
              " [SR505,SR505] [CF,all,CF,all] [recv] [recv] [no]");
    EXPECT_THAT(output, ElementsAre("INFO [channel:0] --------Channel 0 subscribed information is as below:--------",
                                    "INFO [channel:0] subId:SR505", "INFO [channel:0] subId:SR505",
                                    "INFO [channel:0] You subscribe all subId !", "INFO [channel:0] subClass:CF,",
                                    "INFO [channel:0] subClass:all,", "INFO [channel:0] subClass:CF,",
                                    "INFO [channel:0] subClass:all,", "INFO [channel:0] options=recv",
                                    "INFO [channel:0] ips=recv", "INFO [channel:0] spd=norecv",
                                    "INFO --------------------------------------------------------"));
}

// ---- ParseRawInsts ----

TEST_F(ConfigSubsRules, RawInstrumentsAreTakenAsTheyStand) {
    Make("");

    const Lines logged = OutputOf([&] { config->ParseRawInsts("SR505, CF,all", 15); });

    EXPECT_EQ(Described(Info(15)), "ids SR505 classes  CF all flags0000 reserved 3 [SR505] [ CF,all] [] [] []");
    EXPECT_THAT(logged, IsEmpty());
}

TEST_F(ConfigSubsRules, RawInstrumentsAreAppendedToTheChannelsRecord) {
    Make("");
    config->ParseRawInsts("SR505,CF", 2);

    config->ParseRawInsts("TA,MA509", 2);

    EXPECT_EQ(Described(Info(2)), "ids SR505 MA509 classes CF TA flags0000 reserved 3 [SR505,MA509] [CF,TA] [] [] []");
}

TEST_F(ConfigSubsRules, RawInstrumentsOfAChannelThatNoCardHasAreIgnored) {
    Make("");

    for (const std::uint32_t channel : {16U, 17U, 255U, 0xFFFFFFFFU}) config->ParseRawInsts("SR505,CF", channel);

    for (std::size_t channel = 0; channel < 16; ++channel) EXPECT_EQ(Described(Info(channel)), kUntouched);
}

TEST_F(ConfigSubsRules, AListLongerThanAnIniLineIsSplitWhole) {
    Make("");
    std::string value;
    for (int i = 0; i < 10000; ++i) value += "SR" + std::to_string(i) + ',';

    config->ParseRawInsts(value, 0);

    EXPECT_THAT(Info().m_SubsContractId, SizeIs(10000));
    EXPECT_EQ(Info().strIds + ',', value);
}

}  // namespace
