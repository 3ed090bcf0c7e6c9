#include <gmock/gmock.h>

#include <algorithm>

#include "tests/unit/config/ConfigFixture.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

struct Item {
    const char* key;
    const char* value;
    std::vector<const char*> writes;
};

// In the order in which the card is programmed: six items of Level-5, then six of Level-1.
const std::vector<Item> kItems = {
    {"L5_DSTMAC", "00:11:22:33:44:55", {"W 0x301 0x11", "W 0x302 0x22334455"}},
    {"L5_DSTIP", "224.0.1.2", {"W 0x303 0xe0000102"}},
    {"L5_DSTPORT", "1", {"W 0x304 0x1"}},
    {"L5_SRCMAC", "fe:dc:ba:98:76:54", {"W 0x305 0xfedc", "W 0x306 0xba987654"}},
    {"L5_SRCIP", "192.168.10.20", {"W 0x307 0xc0a80a14"}},
    {"L5_SRCPORT", "65535", {"W 0x308 0xffff"}},
    {"L1_DSTMAC", "01:00:5e:00:00:01", {"W 0x311 0x100", "W 0x312 0x5e000001"}},
    {"L1_DSTIP", "239.255.255.255", {"W 0x313 0xefffffff"}},
    {"L1_DSTPORT", "30001", {"W 0x314 0x7531"}},
    {"L1_SRCMAC", "A0:B1:C2:D3:E4:F5", {"W 0x315 0xa0b1", "W 0x316 0xc2d3e4f5"}},
    {"L1_SRCIP", "10.0.0.1", {"W 0x317 0xa000001"}},
    {"L1_SRCPORT", "30002", {"W 0x318 0x7532"}},
};
constexpr std::size_t kItemsPerFeed = 6;

const std::vector<std::string> kSwitchLines[] = {
    {"W 0x300 0x1", "INFO 0x300 write 1, L5 net version switch open!"},
    {"W 0x310 0x1", "INFO 0x310 write 1, L1 net version switch open!"},
};

std::string LackLine(std::size_t feed, std::size_t count) {
    return std::string("INFO Netfunction: L") + (feed == 0 ? "5" : "1") + " config item count is " +
           std::to_string(count) + ". Maybe lack item! please check! ";
}

bool IsIn(unsigned int items, std::size_t item) { return (items >> item & 1) != 0; }

// The ini lines of a subset of the items, bit n for item n.
std::string IniOf(unsigned int items) {
    std::string lines;
    for (std::size_t i = 0; i < kItems.size(); ++i) {
        if (IsIn(items, i)) lines += std::string(kItems[i].key) + '=' + kItems[i].value + '\n';
    }
    return lines;
}

// What a subset of the items has the card programmed with and the log say.
std::vector<std::string> ExpectedOf(unsigned int items) {
    std::vector<std::string> lines;
    std::size_t counts[2] = {};
    for (std::size_t i = 0; i < kItems.size(); ++i) {
        if (!IsIn(items, i)) continue;
        ++counts[i / kItemsPerFeed];
        lines.push_back(std::string("INFO config:") + kItems[i].key + '=' + kItems[i].value);
        lines.insert(lines.end(), kItems[i].writes.begin(), kItems[i].writes.end());
    }
    for (std::size_t feed = 0; feed < 2; ++feed) {
        if (counts[feed] == kItemsPerFeed)
            lines.insert(lines.end(), kSwitchLines[feed].begin(), kSwitchLines[feed].end());
    }
    for (std::size_t feed = 0; feed < 2; ++feed) {
        if (counts[feed] != kItemsPerFeed && counts[feed] != 0) lines.push_back(LackLine(feed, counts[feed]));
    }
    return lines;
}

class ConfigNetOutput : public ConfigTest {
protected:
    Lines Program() {
        return OutputOf([&] { config->CfgNetReg(); });
    }
    /// Only what was written to the card.
    Lines Written() {
        Lines lines = Program();
        lines.erase(std::remove_if(lines.begin(), lines.end(), [](const auto& l) { return l.rfind("W ", 0) != 0; }),
                    lines.end());
        return lines;
    }
};

TEST_F(ConfigNetOutput, ACompleteConfigurationIsWrittenInOrderAndBothOutputsAreSwitchedOn) {
    LoadMaster(IniOf(0xFFF));

    EXPECT_THAT(
        Program(),
        ElementsAre("INFO config:L5_DSTMAC=00:11:22:33:44:55", "W 0x301 0x11", "W 0x302 0x22334455",
                    "INFO config:L5_DSTIP=224.0.1.2", "W 0x303 0xe0000102", "INFO config:L5_DSTPORT=1", "W 0x304 0x1",
                    "INFO config:L5_SRCMAC=fe:dc:ba:98:76:54", "W 0x305 0xfedc", "W 0x306 0xba987654",
                    "INFO config:L5_SRCIP=192.168.10.20", "W 0x307 0xc0a80a14", "INFO config:L5_SRCPORT=65535",
                    "W 0x308 0xffff", "INFO config:L1_DSTMAC=01:00:5e:00:00:01", "W 0x311 0x100", "W 0x312 0x5e000001",
                    "INFO config:L1_DSTIP=239.255.255.255", "W 0x313 0xefffffff", "INFO config:L1_DSTPORT=30001",
                    "W 0x314 0x7531", "INFO config:L1_SRCMAC=A0:B1:C2:D3:E4:F5", "W 0x315 0xa0b1", "W 0x316 0xc2d3e4f5",
                    "INFO config:L1_SRCIP=10.0.0.1", "W 0x317 0xa000001", "INFO config:L1_SRCPORT=30002",
                    "W 0x318 0x7532", "W 0x300 0x1", "INFO 0x300 write 1, L5 net version switch open!", "W 0x310 0x1",
                    "INFO 0x310 write 1, L1 net version switch open!"));
}

TEST_F(ConfigNetOutput, NoKeysWriteAndLogNothing) {
    LoadMaster("");

    EXPECT_THAT(Program(), IsEmpty());
}

class ConfigNetOutputWithoutOne : public ConfigNetOutput, public testing::WithParamInterface<std::size_t> {};

TEST_P(ConfigNetOutputWithoutOne, LeavesItsFeedOffAndTheOtherOn) {
    const unsigned int items = 0xFFFU & ~(1U << GetParam());
    LoadMaster(IniOf(items));

    EXPECT_THAT(Program(), ElementsAreArray(ExpectedOf(items)));
}

INSTANTIATE_TEST_SUITE_P(Item, ConfigNetOutputWithoutOne, testing::Range<std::size_t>(0, 12),
                         [](const auto& row) { return std::string(kItems[row.param].key); });

TEST_F(ConfigNetOutput, EverySubsetOfAFeedsItemsIsCountedApartFromTheOtherFeed) {
    for (unsigned int level5 = 0; level5 < 64; ++level5) {
        const unsigned int items = level5 | (~level5 & 63U) << 6;
        SCOPED_TRACE(items);
        LoadMaster(IniOf(items));
        const Lines output = Program();
        EXPECT_THAT(output, ElementsAreArray(ExpectedOf(items)));
    }
}

TEST_F(ConfigNetOutput, BothFeedsShortOfItemsAreReportedLevel5First) {
    LoadMaster("L5_DSTPORT=5\nL1_DSTPORT=7\nL1_SRCPORT=8\n");

    EXPECT_THAT(Program(),
                ElementsAre("INFO config:L5_DSTPORT=5", "W 0x304 0x5", "INFO config:L1_DSTPORT=7", "W 0x314 0x7",
                            "INFO config:L1_SRCPORT=8", "W 0x318 0x8", LackLine(0, 1), LackLine(1, 2)));
}

// ---- ports ----

TEST_F(ConfigNetOutput, APortOfZeroIsAMissingItem) {
    LoadMaster("L5_DSTPORT=0\n" + IniOf(0x3B));

    EXPECT_THAT(Program(), ElementsAreArray(ExpectedOf(0x3B)));
}

struct PortRow {
    const char* name;
    const char* value;
    const char* shown;
    const char* write;
};

class ConfigNetPort : public ConfigNetOutput, public testing::WithParamInterface<PortRow> {};

TEST_P(ConfigNetPort, IsShownAndWrittenAsTheParserReadsIt) {
    LoadMaster(std::string("L1_SRCPORT=") + GetParam().value + "\n");

    EXPECT_THAT(Program(), ElementsAre(std::string("INFO config:L1_SRCPORT=") + GetParam().shown, GetParam().write,
                                       LackLine(1, 1)));
}

INSTANTIATE_TEST_SUITE_P(NetOutput, ConfigNetPort,
                         testing::Values(PortRow{"Hexadecimal", "0x1F90", "8080", "W 0x318 0x1f90"},
                                         PortRow{"Octal", "010", "8", "W 0x318 0x8"},
                                         PortRow{"AboveThePorts", "70000", "70000", "W 0x318 0x11170"},
                                         PortRow{"Negative", "-1", "4294967295", "W 0x318 0xffffffff"},
                                         PortRow{"TextBehindTheNumber", "80x", "80", "W 0x318 0x50"}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(ConfigNetOutput, APortThatIsNoNumberIsAMissingItem) {
    LoadMaster("L1_SRCPORT=http\nL1_DSTPORT=\n");

    EXPECT_THAT(Program(), IsEmpty());
}

TEST_F(ConfigNetOutput, SectionsNamedAsKeysAreMissingItems) {
    std::string sections;
    for (const Item& item : kItems) sections += std::string("[config:") + item.key + "]\n";
    LoadMaster(sections);

    EXPECT_THAT(Program(), IsEmpty());
}

// ---- scanned values ----

TEST_F(ConfigNetOutput, ShortMacNumbersAndMixedCaseAreUnderstood) {
    LoadMaster("L5_DSTMAC=a:B:0c:D:e:0F\n");

    EXPECT_THAT(Written(), ElementsAre("W 0x301 0xa0b", "W 0x302 0xc0d0e0f"));
}

TEST_F(ConfigNetOutput, NumbersThatAMacLacksKeepWhatTheMacBeforeLeft) {
    LoadMaster("L5_DSTMAC=01:02:03:04:05:06\nL5_SRCMAC=0a:0b\nL1_DSTMAC=mac\nL1_SRCMAC=0c:0d:0e:xx:11:12\n");

    EXPECT_THAT(Written(), ElementsAre("W 0x301 0x102", "W 0x302 0x3040506", "W 0x305 0xa0b", "W 0x306 0x3040506",
                                       "W 0x311 0xa0b", "W 0x312 0x3040506", "W 0x315 0xc0d", "W 0x316 0xe040506"));
}

TEST_F(ConfigNetOutput, NumbersThatAnAddressLacksKeepWhatTheAddressBeforeLeft) {
    LoadMaster("L5_DSTIP=1.2.3.4\nL5_SRCIP=10.20\nL1_DSTIP=ip\nL1_SRCIP=9..8.7\n");

    EXPECT_THAT(Written(),
                ElementsAre("W 0x303 0x1020304", "W 0x307 0xa140304", "W 0x313 0xa140304", "W 0x317 0x9140304"));
}

TEST_F(ConfigNetOutput, AFirstValueThatDoesNotScanIsWrittenAsZeroAndCounted) {
    LoadMaster("L5_DSTMAC=mac\nL5_DSTIP=ip\nL5_SRCMAC=\nL5_SRCIP=\nL5_DSTPORT=1\nL5_SRCPORT=2\n");

    EXPECT_THAT(Written(), ElementsAre("W 0x301 0x0", "W 0x302 0x0", "W 0x303 0x0", "W 0x304 0x1", "W 0x305 0x0",
                                       "W 0x306 0x0", "W 0x307 0x0", "W 0x308 0x2", "W 0x300 0x1"));
}

TEST_F(ConfigNetOutput, NothingScannedOutlivesTheOperation) {
    LoadMaster("L5_DSTMAC=01:02:03:04:05:06\nL5_DSTIP=1.2.3.4\n");
    Written();
    LoadMaster("L5_DSTMAC=mac\nL5_DSTIP=ip\n");

    EXPECT_THAT(Written(), ElementsAre("W 0x301 0x0", "W 0x302 0x0", "W 0x303 0x0"));
}

struct AddressRow {
    const char* name;
    const char* value;
    const char* write;
};

class ConfigNetAddress : public ConfigNetOutput, public testing::WithParamInterface<AddressRow> {};

TEST_P(ConfigNetAddress, IsWrittenInNetworkOrder) {
    LoadMaster(std::string("L5_DSTIP=") + GetParam().value + "\n");

    EXPECT_THAT(Written(), ElementsAre(GetParam().write));
}

INSTANTIATE_TEST_SUITE_P(
    NetOutput, ConfigNetAddress,
    testing::Values(AddressRow{"Multicast", "224.0.1.2", "W 0x303 0xe0000102"},
                    AddressRow{"Lowest", "0.0.0.0", "W 0x303 0x0"},
                    AddressRow{"Highest", "255.255.255.255", "W 0x303 0xffffffff"},
                    AddressRow{"NumbersAboveAByteCountByTheirLowBits", "256.257.511.513", "W 0x303 0x1ff01"},
                    AddressRow{"NegativeNumbersCountByTheirLowBits", "-1.-2.3.-256", "W 0x303 0xfffe0300"},
                    AddressRow{"TextBehindTheAddress", "1.2.3.4/24", "W 0x303 0x1020304"},
                    AddressRow{"LeadingZerosAreDecimal", "010.011.012.013", "W 0x303 0xa0b0c0d"}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
