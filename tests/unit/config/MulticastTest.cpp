#include <gmock/gmock.h>

#include "tests/unit/config/ConfigFixture.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

constexpr char kNoAddress[] = "ERROR multi channel ptmp is nullptr.";
constexpr char kNoPort[] = "ERROR multi channel port is 0.";

struct Item {
    const char* key;
    const char* value;
    std::vector<const char*> lines;
    const char* missing;
};

// In the order in which the card is programmed.
const std::vector<Item> kItems = {
    {"L5_IPA",
     "224.0.1.2",
     {"INFO config:L5_IPA=224.0.1.2", "INFO multi channel 0x200 = 0x020100e0", "W 0x200 0xe0000102"},
     kNoAddress},
    {"L5_IPB",
     "224.0.1.3",
     {"INFO config:L5_IPB=224.0.1.3", "INFO multi channel 0x201 = 0x030100e0", "W 0x201 0xe0000103"},
     kNoAddress},
    {"L1_IPA",
     "239.1.2.255",
     {"INFO config:L1_IPA=239.1.2.255", "INFO multi channel 0x203 = 0xff0201ef", "W 0x203 0xef0102ff"},
     kNoAddress},
    {"L1_IPB",
     "10.0.0.0",
     {"INFO config:L1_IPB=10.0.0.0", "INFO multi channel 0x204 = 0x0000000a", "W 0x204 0xa000000"},
     kNoAddress},
    {"L5_PORT", "30001", {"INFO multi channel 0x202, config:L5_PORT = 30001", "W 0x202 0x7531"}, kNoPort},
    {"L1_PORT", "65535", {"INFO multi channel 0x205, config:L1_PORT = 65535", "W 0x205 0xffff"}, kNoPort},
};

bool IsIn(unsigned int items, std::size_t item) { return (items >> item & 1) != 0; }

std::string IniOf(unsigned int items) {
    std::string lines;
    for (std::size_t i = 0; i < kItems.size(); ++i) {
        if (IsIn(items, i)) lines += std::string(kItems[i].key) + '=' + kItems[i].value + '\n';
    }
    return lines;
}

std::vector<std::string> ExpectedOf(unsigned int items) {
    std::vector<std::string> lines;
    for (std::size_t i = 0; i < kItems.size(); ++i) {
        if (IsIn(items, i)) {
            lines.insert(lines.end(), kItems[i].lines.begin(), kItems[i].lines.end());
        } else {
            lines.emplace_back(kItems[i].missing);
        }
    }
    return lines;
}

class ConfigMulticast : public ConfigTest {
protected:
    Lines Program() {
        return OutputOf([&] { config->CfgNetIPAndPort(); });
    }
};

TEST_F(ConfigMulticast, ACompleteConfigurationIsWrittenAddressesFirst) {
    LoadMaster(IniOf(0x3F));

    EXPECT_THAT(
        Program(),
        ElementsAre("INFO config:L5_IPA=224.0.1.2", "INFO multi channel 0x200 = 0x020100e0", "W 0x200 0xe0000102",
                    "INFO config:L5_IPB=224.0.1.3", "INFO multi channel 0x201 = 0x030100e0", "W 0x201 0xe0000103",
                    "INFO config:L1_IPA=239.1.2.255", "INFO multi channel 0x203 = 0xff0201ef", "W 0x203 0xef0102ff",
                    "INFO config:L1_IPB=10.0.0.0", "INFO multi channel 0x204 = 0x0000000a", "W 0x204 0xa000000",
                    "INFO multi channel 0x202, config:L5_PORT = 30001", "W 0x202 0x7531",
                    "INFO multi channel 0x205, config:L1_PORT = 65535", "W 0x205 0xffff"));
}

TEST_F(ConfigMulticast, EachMissingKeyIsAnErrorAndNothingIsWritten) {
    LoadMaster("");

    EXPECT_THAT(Program(), ElementsAre(kNoAddress, kNoAddress, kNoAddress, kNoAddress, kNoPort, kNoPort));
}

class ConfigMulticastWithoutOne : public ConfigMulticast, public testing::WithParamInterface<std::size_t> {};

TEST_P(ConfigMulticastWithoutOne, IsAnErrorAndTheOthersAreWritten) {
    const unsigned int items = 0x3FU & ~(1U << GetParam());
    LoadMaster(IniOf(items));

    EXPECT_THAT(Program(), ElementsAreArray(ExpectedOf(items)));
}

INSTANTIATE_TEST_SUITE_P(Item, ConfigMulticastWithoutOne, testing::Range<std::size_t>(0, 6),
                         [](const auto& row) { return std::string(kItems[row.param].key); });

TEST_F(ConfigMulticast, NumbersThatAnAddressLacksKeepWhatTheAddressBeforeLeft) {
    LoadMaster("L5_IPB=1.2.3.4\nL1_IPA=ip\nL1_IPB=9.8\n");

    EXPECT_THAT(Program(),
                ElementsAre(kNoAddress, "INFO config:L5_IPB=1.2.3.4", "INFO multi channel 0x201 = 0x04030201",
                            "W 0x201 0x1020304", "INFO config:L1_IPA=ip", "INFO multi channel 0x203 = 0x04030201",
                            "W 0x203 0x1020304", "INFO config:L1_IPB=9.8", "INFO multi channel 0x204 = 0x04030809",
                            "W 0x204 0x9080304", kNoPort, kNoPort));
}

TEST_F(ConfigMulticast, AFirstAddressThatDoesNotScanIsWrittenAsZeroWhateverWasScannedEarlier) {
    LoadMaster("L5_DSTIP=1.2.3.4\nL5_IPA=5.6.7.8\n");
    OutputOf([&] {
        config->CfgNetReg();
        config->CfgNetIPAndPort();
    });
    iniparser_set(config->m_pDict, "config:L5_IPA", "");

    EXPECT_THAT(Program(), ElementsAre("INFO config:L5_IPA=", "INFO multi channel 0x200 = 0x00000000", "W 0x200 0x0",
                                       kNoAddress, kNoAddress, kNoAddress, kNoPort, kNoPort));
}

TEST_F(ConfigMulticast, NumbersAboveAByteCountByTheirLowBits) {
    LoadMaster("L5_IPA=257.-1.256.511\n");

    const Lines output = Program();

    ASSERT_EQ(output.size(), 8U);
    EXPECT_EQ(output[1], "INFO multi channel 0x200 = 0xff00ff01");
    EXPECT_EQ(output[2], "W 0x200 0x1ff00ff");
}

TEST_F(ConfigMulticast, APortIsShownAndWrittenAsTheParserReadsIt) {
    LoadMaster("L5_PORT=0x10\nL1_PORT=-1\n");

    EXPECT_THAT(Program(), ElementsAre(kNoAddress, kNoAddress, kNoAddress, kNoAddress,
                                       "INFO multi channel 0x202, config:L5_PORT = 16", "W 0x202 0x10",
                                       "INFO multi channel 0x205, config:L1_PORT = 4294967295", "W 0x205 0xffffffff"));
}

TEST_F(ConfigMulticast, SectionsNamedAsKeysAreMissing) {
    std::string sections;
    for (const Item& item : kItems) sections += std::string("[config:") + item.key + "]\n";
    LoadMaster(sections);

    EXPECT_THAT(Program(), ElementsAre(kNoAddress, kNoAddress, kNoAddress, kNoAddress, kNoPort, kNoPort));
}

TEST_F(ConfigMulticast, APortOfZeroOrWithoutANumberIsAnError) {
    LoadMaster("L5_PORT=0\nL1_PORT=http\n");

    EXPECT_THAT(Program(), ElementsAre(kNoAddress, kNoAddress, kNoAddress, kNoAddress, kNoPort, kNoPort));
}

}  // namespace
