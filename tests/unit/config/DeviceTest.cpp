#include <gmock/gmock.h>

#include "tests/unit/config/ConfigFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t kFailure = 0xFFFFFFFF;
constexpr std::uint32_t kChannelNotParsed = 255;

std::string Device(const std::string& value) { return "[config]\ndevice=" + value + "\n"; }

std::string Device(int bus, int channel) {
    return Device("xilinx" + std::to_string(bus) + ":" + std::to_string(channel));
}

class ConfigDevice : public ConfigTest {};

// ---- GetDmaChannel ----

TEST_F(ConfigDevice, EveryBusAndChannelOfTheCardsIsAccepted) {
    for (int bus = 0; bus <= 4; ++bus) {
        for (int channel = 0; channel <= 15; ++channel) {
            SCOPED_TRACE(testing::Message() << bus << ':' << channel);
            ASSERT_EQ(Make(Device(bus, channel)).Init(), 0U);
            EXPECT_EQ(config->GetDmaChannel(), static_cast<std::uint32_t>(channel));
            EXPECT_EQ(config->m_uiBusId, static_cast<std::uint32_t>(bus));
            EXPECT_EQ(config->m_strDmaChanName, "CUSTOM_CHAN" + std::to_string(channel) + "_DATA");
        }
    }
}

TEST_F(ConfigDevice, NumbersBesideTheRangesAreRefused) {
    for (int bus = -2; bus <= 6; ++bus) {
        for (int channel = -2; channel <= 17; ++channel) {
            if (bus >= 0 && bus <= 4 && channel >= 0 && channel <= 15) continue;
            SCOPED_TRACE(testing::Message() << bus << ':' << channel);
            std::uint32_t result = 0;
            Make(Device(bus, channel));
            OutputOf([&] { result = config->Init(); });
            EXPECT_EQ(result, kFailure);
            EXPECT_EQ(config->m_strDmaChanName, "");
        }
    }
}

struct AcceptedRow {
    const char* name;
    const char* value;
    std::uint32_t bus;
    std::uint32_t channel;
};

class ConfigAcceptedDevice : public ConfigTest, public testing::WithParamInterface<AcceptedRow> {};

TEST_P(ConfigAcceptedDevice, NamesBusAndChannel) {
    Make(Device(GetParam().value));

    EXPECT_EQ(config->Init(), 0U);

    EXPECT_EQ(config->m_uiBusId, GetParam().bus);
    EXPECT_EQ(config->m_uiChannelId, GetParam().channel);
}

INSTANTIATE_TEST_SUITE_P(Device, ConfigAcceptedDevice,
                         testing::Values(AcceptedRow{"UpperCase", "XILINX1:15", 1, 15},
                                         AcceptedRow{"FirstLetterUpper", "Xilinx0:0", 0, 0},
                                         AcceptedRow{"MixedCase", "xIlInX4:7", 4, 7},
                                         AcceptedRow{"Quoted", "\"xilinx2:3\"", 2, 3},
                                         AcceptedRow{"BlanksBeforeTheNumbers", "xilinx 2: 3", 2, 3},
                                         AcceptedRow{"LeadingZeros", "xilinx004:015", 4, 15},
                                         AcceptedRow{"TextBehindTheChannel", "xilinx2:3 second card", 2, 3}),
                         [](const auto& row) { return std::string(row.param.name); });

struct RefusedRow {
    const char* name;
    const char* value;
};

class ConfigRefusedDevice : public ConfigTest, public testing::WithParamInterface<RefusedRow> {};

TEST_P(ConfigRefusedDevice, MakesInitFailAndIsPrintedUnaltered) {
    Make(Device(GetParam().value));
    std::uint32_t result = 0;

    const Lines output = OutputOf([&] { result = config->Init(); });

    EXPECT_EQ(result, kFailure);
    EXPECT_THAT(output, ElementsAre(std::string("Error! Invalid parameter! Input: ") + GetParam().value + " ",
                                    "ERROR Get dma chan fail!"));
}

INSTANTIATE_TEST_SUITE_P(
    Device, ConfigRefusedDevice,
    testing::Values(RefusedRow{"BusAboveTheLast", "xilinx5:0"}, RefusedRow{"ChannelAboveTheLast", "xilinx0:16"},
                    RefusedRow{"NegativeBus", "xilinx-1:0"}, RefusedRow{"NegativeChannel", "xilinx0:-1"},
                    RefusedRow{"LargestBus", "xilinx2147483647:0"}, RefusedRow{"LargestChannel", "xilinx0:2147483647"},
                    RefusedRow{"ChannelThatMeansNotParsed", "xilinx0:255"}, RefusedRow{"Empty", ""},
                    RefusedRow{"NameAlone", "xilinx"}, RefusedRow{"BusAlone", "xilinx0"},
                    RefusedRow{"NoChannel", "xilinx0:"}, RefusedRow{"NoBus", "xilinx:0"},
                    RefusedRow{"NumbersAlone", "0:0"}, RefusedRow{"OtherCard", "Enyx0:0"},
                    RefusedRow{"OtherSeparator", "xilinx0.0"}, RefusedRow{"BlankBeforeTheColon", "xilinx0 :0"},
                    RefusedRow{"LettersForTheBus", "xilinxA:0"}, RefusedRow{"LettersForTheChannel", "XILINX0:A"},
                    RefusedRow{"TextBeforeTheName", "a xilinx0:0"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(ConfigDevice, AValueOfAThousandCharactersIsReadToItsEnd) {
    const std::string zeros(900, '0');
    Make(Device("xilinx" + zeros + "1:" + "2"));

    EXPECT_EQ(config->Init(), 0U);

    EXPECT_EQ(config->m_uiBusId, 1U);
    EXPECT_EQ(config->m_uiChannelId, 2U);
}

TEST_F(ConfigDevice, ARefusedValueOfAThousandCharactersIsPrintedWhole) {
    const std::string value(1000, 'X');
    Make(Device(value));

    const Lines output = OutputOf([&] { config->Init(); });

    EXPECT_THAT(output, ElementsAre("Error! Invalid parameter! Input: " + value + " ", "ERROR Get dma chan fail!"));
}

TEST_F(ConfigDevice, AMissingKeyIsRefusedAsAnEmptyValue) {
    for (const char* ini : {"", "[config]\ncpucore=0\n", "[channel0]\ndevice=xilinx0:0\n", "[config:device]\n"}) {
        SCOPED_TRACE(ini);
        Make(ini);
        std::uint32_t result = 0;

        const Lines output = OutputOf([&] { result = config->Init(); });

        EXPECT_EQ(result, kFailure);
        EXPECT_THAT(output, ElementsAre("Error! Invalid parameter! Input:  ", "ERROR Get dma chan fail!"));
    }
}

TEST_F(ConfigDevice, TheChannelIsParsedOnceAndThenKept) {
    Load(Device("xilinx1:3"));
    iniparser_set(config->m_pDict, "config:device", "xilinx2:9");

    EXPECT_EQ(config->GetDmaChannel(), 3U);

    EXPECT_EQ(config->m_uiBusId, 1U);
    EXPECT_EQ(config->m_strDmaChanName, "CUSTOM_CHAN3_DATA");
}

TEST_F(ConfigDevice, AChannelOutOfRangeIsReturnedWithoutParsingByTheNextCall) {
    Make(Device("xilinx0:16"));
    OutputOf([&] { config->Init(); });
    std::uint32_t second = 0;

    const Lines output = OutputOf([&] { second = config->GetDmaChannel(); });

    EXPECT_EQ(second, 16U);
    EXPECT_THAT(output, IsEmpty());
}

TEST_F(ConfigDevice, AChannelBesideARefusedBusIsReturnedByTheNextCallAndHasNoName) {
    Make(Device("xilinx5:3"));
    OutputOf([&] { config->Init(); });

    EXPECT_EQ(config->GetDmaChannel(), 3U);

    EXPECT_EQ(config->m_uiBusId, 5U);
    EXPECT_EQ(config->m_strDmaChanName, "");
}

TEST_F(ConfigDevice, ABusWithoutAChannelIsKeptAndTheNextCallParsesAgain) {
    Make(Device("xilinx2"));
    OutputOf([&] { config->Init(); });
    std::uint32_t second = 0;

    const Lines output = OutputOf([&] { second = config->GetDmaChannel(); });

    EXPECT_EQ(second, kFailure);
    EXPECT_EQ(config->m_uiBusId, 2U);
    EXPECT_EQ(config->m_uiChannelId, kChannelNotParsed);
    EXPECT_THAT(output, ElementsAre("Error! Invalid parameter! Input: xilinx2 "));
}

// ---- GetBusId ----

TEST_F(ConfigDevice, TheBusIsScannedAfreshByEveryCall) {
    Load(Device("xilinx3:7"));
    iniparser_set(config->m_pDict, "config:device", "xilinx2:9");
    std::uint32_t bus = 0;

    const Lines output = OutputOf([&] { bus = config->GetBusId(); });

    EXPECT_EQ(bus, 2U);
    EXPECT_EQ(config->m_uiBusId, 2U);
    EXPECT_THAT(output, ElementsAre("INFO [channel:7] Busid:2, ChannelId:9."));
}

TEST_F(ConfigDevice, EveryBusOfALowerCaseValueIsReturned) {
    for (int bus = 0; bus <= 4; ++bus) {
        Load(Device(bus, 7));
        std::uint32_t result = 99;

        const Lines output = OutputOf([&] { result = config->GetBusId(); });

        EXPECT_EQ(result, static_cast<std::uint32_t>(bus));
        EXPECT_THAT(output, ElementsAre("INFO [channel:7] Busid:" + std::to_string(bus) + ", ChannelId:7."));
    }
}

TEST_F(ConfigDevice, AnUpperCaseValueIsAnErrorOfEveryBusLookUpButServes) {
    Load(Device("XILINX1:15"));
    const std::string error = "ERROR [channel:15] Failed to parse the input string:XILINX1:15";
    std::uint32_t first = 0;
    std::uint32_t second = 0;

    const Lines output = OutputOf([&] {
        first = config->GetBusId();
        second = config->GetBusId();
    });

    EXPECT_EQ(first, 1U);
    EXPECT_EQ(second, 1U);
    EXPECT_THAT(output, ElementsAre(error, error));
}

TEST_F(ConfigDevice, ABusWithoutAChannelIsTakenByTheBusLookUpDespiteItsError) {
    Load(Device("xilinx1:2"));
    iniparser_set(config->m_pDict, "config:device", "xilinx4");
    std::uint32_t bus = 0;

    const Lines output = OutputOf([&] { bus = config->GetBusId(); });

    EXPECT_EQ(bus, 4U);
    EXPECT_THAT(output, ElementsAre("ERROR [channel:2] Failed to parse the input string:xilinx4"));
}

TEST_F(ConfigDevice, ABusLookUpWithoutTheKeyKeepsTheBusKnownBefore) {
    Load(Device("xilinx3:2"));
    iniparser_unset(config->m_pDict, "config:device");
    std::uint32_t bus = 0;

    const Lines output = OutputOf([&] { bus = config->GetBusId(); });

    EXPECT_EQ(bus, 3U);
    EXPECT_THAT(output, ElementsAre("ERROR [channel:2] Failed to parse the input string:"));
}

// ---- master channel ----

TEST_F(ConfigDevice, OnlyChannelZeroIsTheMaster) {
    for (int channel = 0; channel <= 15; ++channel) {
        EXPECT_EQ(Load(Device(0, channel)).bIsMasterChannel(), channel == 0) << channel;
    }
}

TEST_F(ConfigDevice, NobodyIsTheMasterBeforeTheFileIsLoaded) {
    EXPECT_FALSE(Make(Device("xilinx0:0")).bIsMasterChannel());
}

}  // namespace
