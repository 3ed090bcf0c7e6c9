#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <ostream>
#include <string>
#include <vector>

#include "VexoZceUtil.h"
#include "tests/support/CaptureOutput.h"

namespace {

using test_support::CaptureOutput;

struct Verdict {
    bool valid;
    std::string printed;
    bool operator==(const Verdict& other) const { return valid == other.valid && printed == other.printed; }
};

std::ostream& operator<<(std::ostream& out, const Verdict& v) {
    return out << (v.valid ? "valid" : "refused") << ", printed \"" << v.printed << '"';
}

Verdict Ask(bool (*check)(char*), std::string text) {
    CaptureOutput out;
    const bool valid = check(text.data());
    return {valid, out.Stop()};
}

const Verdict kValid = {true, ""};

// ---- MAC ----

const Verdict kMacLength = {
    false, "Error: The MAC address should contain 17 characters, including 6 hex digits and 5 \":\" \n"};
const Verdict kMacDigit = {false, "Error: The MAC address should contain 6 hex digits, separated by \":\".\n"};
const Verdict kMacSeparator = {false, "Error: The MAC address should contain 5 \":\", separated by hex digits.\n"};

TEST(ValidMac, AcceptsHexDigitsOfEitherCase) {
    EXPECT_EQ(Ask(IsValidMac, "00:11:22:33:44:55"), kValid);
    EXPECT_EQ(Ask(IsValidMac, "aA:bB:cC:dD:eE:fF"), kValid);
}

TEST(ValidMac, RefusesADigitThatIsNotHex) { EXPECT_EQ(Ask(IsValidMac, "00:11:22:33:44:5G"), kMacDigit); }

TEST(ValidMac, RefusesAnotherSeparator) { EXPECT_EQ(Ask(IsValidMac, "00-11-22-33-44-55"), kMacSeparator); }

TEST(ValidMac, TheFirstFaultFromTheLeftDecides) {
    EXPECT_EQ(Ask(IsValidMac, "0G-11:22:33:44:55"), kMacDigit);
    EXPECT_EQ(Ask(IsValidMac, "00-1G:22:33:44:55"), kMacSeparator);
}

TEST(ValidMac, RefusesEveryOtherLength) {
    const std::string longer = "00:11:22:33:44:55:66:77";
    for (std::size_t length = 0; length <= longer.size(); ++length) {
        EXPECT_EQ(Ask(IsValidMac, longer.substr(0, length)), length == 17 ? kValid : kMacLength) << length;
    }
}

TEST(ValidMac, RefusesNullLikeAWrongLength) {
    CaptureOutput out;
    EXPECT_FALSE(IsValidMac(nullptr));
    EXPECT_EQ(out.Stop(), kMacLength.printed);
}

TEST(ValidMac, EveryCharacterInEveryPosition) {
    const std::string good = "00:11:22:33:44:55";
    std::string expected;
    CaptureOutput out;

    for (std::size_t position = 0; position < good.size(); ++position) {
        const bool separator = position == 2 || position == 5 || position == 8 || position == 11 || position == 14;
        for (int value = 1; value < 256; ++value) {
            std::string text = good;
            text[position] = static_cast<char>(value);
            const bool valid = separator ? value == ':' : std::isxdigit(value) != 0;
            ASSERT_EQ(IsValidMac(text.data()), valid) << "character " << value << " at " << position;
            if (!valid) expected += separator ? kMacSeparator.printed : kMacDigit.printed;
        }
    }

    EXPECT_EQ(out.Stop(), expected);
}

// ---- IP ----

const Verdict kIpLength = {false, "Error: The IP address should contain 4 numbers separated by dots.\n"};
const Verdict kIpNumber = {false,
                           "Error: The IP address should contain 4 numbers between 0 and 255, separated by dots.\n"};
const Verdict kIpCharacter = {false, "Error: The IP address should contain only digits and dots.\n"};

struct IpRow {
    const char* name;
    const char* text;
    const Verdict& expected;
};

class ValidIpTable : public testing::TestWithParam<IpRow> {};

TEST_P(ValidIpTable, Decides) { EXPECT_EQ(Ask(IsValidIp, GetParam().text), GetParam().expected); }

INSTANTIATE_TEST_SUITE_P(
    ValidIp, ValidIpTable,
    testing::Values(
        IpRow{"Shortest", "1.2.3.4", kValid}, IpRow{"Longest", "255.255.255.255", kValid},
        IpRow{"Multicast", "224.0.1.2", kValid}, IpRow{"ThreeNumbersPass", "10.20.30", kValid},
        IpRow{"OneNumberPasses", "0000001", kValid}, IpRow{"AnEmptyNumberCountsAsZero", "1..2.34", kValid},
        IpRow{"AnEmptyLastNumberCountsAsZero", "10.20.3.", kValid},
        IpRow{"LeadingZerosPass", "001.002.003.004", kValid}, IpRow{"TooShort", "1.2.3.", kIpLength},
        IpRow{"Empty", "", kIpLength}, IpRow{"TooLong", "255.255.255.2550", kIpLength},
        IpRow{"TooShortDecidesBeforeACharacter", "x", kIpLength}, IpRow{"FirstNumberTooLarge", "256.1.1.1", kIpNumber},
        IpRow{"LastNumberTooLarge", "1.1.1.256", kIpNumber}, IpRow{"OneHugeNumber", "999999999999999", kIpNumber},
        IpRow{"NumberThatIsZeroIn32Bits", "4294967296.1.1", kIpNumber}, IpRow{"FiveNumbers", "1.2.3.4.5", kIpNumber},
        IpRow{"FiveNumbersTheLastEmpty", "1.2.3.4.", kIpNumber}, IpRow{"OnlyDots", ".......", kIpNumber},
        IpRow{"Letter", "1.2.3.a", kIpCharacter}, IpRow{"Sign", "-1.2.3.4", kIpCharacter},
        IpRow{"LeadingBlank", " 1.2.3.4", kIpCharacter}, IpRow{"LineEnd", "1.2.3.4\n", kIpCharacter},
        IpRow{"ByteAbove127", "1.2.3.\xE9", kIpCharacter},
        IpRow{"CharacterInsideALargeNumberComesFirst", "999a.1.1", kIpCharacter},
        IpRow{"LargeNumberBeforeACharacterComesFirst", "999.a.1.1", kIpNumber}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(ValidIp, EveryNumberInEveryPlace) {
    for (int place = 0; place < 4; ++place) {
        for (int number = 0; number <= 300; ++number) {
            std::string text;
            for (int i = 0; i < 4; ++i) text += (i == 0 ? "" : ".") + (i == place ? std::to_string(number) : "10");
            ASSERT_EQ(Ask(IsValidIp, text), number <= 255 ? kValid : kIpNumber) << text;
        }
    }
}

TEST(ValidIp, RefusesNullLikeAWrongLength) {
    CaptureOutput out;
    EXPECT_FALSE(IsValidIp(nullptr));
    EXPECT_EQ(out.Stop(), kIpLength.printed);
}

// ---- IP as bytes ----

constexpr unsigned char kUntouched = 0xEE;

struct BytesRow {
    const char* name;
    const char* text;
    int result;
    std::vector<unsigned char> bytes;
};

class IpBytesTable : public testing::TestWithParam<BytesRow> {};

TEST_P(IpBytesTable, StoresTheNumbersReadAndNothingElse) {
    std::array<unsigned char, 6> out;
    out.fill(kUntouched);
    std::array<unsigned char, 6> expected = out;
    std::copy(GetParam().bytes.begin(), GetParam().bytes.end(), expected.begin());

    EXPECT_EQ(ipStr2val(GetParam().text, out.data()), GetParam().result);
    EXPECT_EQ(out, expected);
}

INSTANTIATE_TEST_SUITE_P(
    IpBytes, IpBytesTable,
    testing::Values(BytesRow{"FourNumbers", "224.0.1.2", 0, {224, 0, 1, 2}},
                    BytesRow{"Largest", "255.255.255.255", 0, {255, 255, 255, 255}},
                    BytesRow{"EmptyNumbersAreZero", "...", 0, {0, 0, 0, 0}},
                    BytesRow{"FiveNumbersAreAllStored", "1.2.3.4.5", 0, {1, 2, 3, 4, 5}},
                    BytesRow{"AnEmptyFifthNumberIsZero", "1.2.3.4.", 0, {1, 2, 3, 4, 0}},
                    BytesRow{"ASixthNumberFails", "1.2.3.4.5.6", -1, {1, 2, 3, 4, 5}},
                    BytesRow{"ADotAfterTheFifthFails", "1.2.3.4.5.", -1, {1, 2, 3, 4, 5}},
                    BytesRow{"ALetterAfterTheFifthFails", "1.2.3.4.5x", -1, {1, 2, 3, 4, 5}},
                    BytesRow{"ThreeNumbersFail", "1.2.3", -1, {1, 2, 3}}, BytesRow{"EmptyTextFails", "", -1, {0}},
                    BytesRow{"LowBytesOfLargeNumbers", "256.257.511.1023", 0, {0, 1, 255, 255}},
                    BytesRow{"LowByteOfANumberBeyond32Bits", "4294967299.2.3.4", 0, {3, 2, 3, 4}},
                    BytesRow{"FirstNumber34Fails", "34.2.3.4", -1, {34}},
                    BytesRow{"LastNumber34Fails", "1.2.3.34", -1, {1, 2, 3, 34}},
                    BytesRow{"FifthNumber34Fails", "1.2.3.4.34", -1, {1, 2, 3, 4, 34}},
                    BytesRow{"LowByte34Fails", "1.290.3.4", -1, {1, 34}},
                    BytesRow{"Number35Passes", "1.2.3.35", 0, {1, 2, 3, 35}},
                    BytesRow{"Number33Passes", "1.2.3.33", 0, {1, 2, 3, 33}},
                    BytesRow{"ALetterStopsTheReading", "1.2x.3.4", -1, {1, 2}},
                    BytesRow{"ALetterAtTheStartStopsTheReading", "x1.2.3.4", -1, {0}},
                    BytesRow{"ABlankStopsTheReading", "1. 2.3.4", -1, {1, 0}},
                    BytesRow{"ASignStopsTheReading", "1.-2.3.4", -1, {1, 0}},
                    BytesRow{"ALineEndStopsTheReading", "1.2.3.4\n", -1, {1, 2, 3, 4}},
                    BytesRow{"ByteAbove127StopsTheReading", "1.2.3.\xB2", -1, {1, 2, 3, 0}},
                    BytesRow{
                        "NothingAfterThe20thCharacterIsLookedAt", "255.255.255.255.0001.x", 0, {255, 255, 255, 255, 1}},
                    BytesRow{"TheTextIsCutInsideANumber", "0255.255.255.255.2551", 0, {255, 255, 255, 255, 255}}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(IpBytes, FailsForNullWithoutTouchingAnything) {
    unsigned char out = kUntouched;

    EXPECT_EQ(ipStr2val(nullptr, &out), -1);
    EXPECT_EQ(out, kUntouched);
    EXPECT_EQ(ipStr2val("1.2.3.4", nullptr), -1);
}

}  // namespace
