#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cctype>
#include <string>

#include "src/card/RowId.h"
#include "src/instruments/InstId.h"

namespace {

constexpr std::uint32_t kFailure = 0xFFFFFFFF;

// ---- text ----

TEST(InstIdText, RemoveSpaceDropsBlanksOnlyAndLeavesItsArgument) {
    std::string text = "  SR505, \tCF ,\nall ";

    EXPECT_EQ(RemoveSpace(text), "SR505,\tCF,\nall");

    EXPECT_EQ(text, "  SR505, \tCF ,\nall ");
}

TEST(InstIdText, RemoveSpaceOfBlanksAloneIsEmpty) {
    std::string blanks = "   ";
    std::string empty;

    EXPECT_EQ(RemoveSpace(blanks), "");
    EXPECT_EQ(RemoveSpace(empty), "");
}

TEST(InstIdText, FindAllTagFindsTheWordAnywhereInAnyCase) {
    for (std::string text : {"all", "ALL", "aLl", "Small", "SR505,All,CF", "allall", "1all2"}) {
        EXPECT_TRUE(FindAllTag(text)) << text;
    }
}

TEST(InstIdText, FindAllTagNeedsItsThreeLettersInARow) {
    for (std::string text : {"", "al", "a", "al,l", "a ll", "AIL", "SR505,CF"}) EXPECT_FALSE(FindAllTag(text)) << text;
}

TEST(InstIdText, FindingATextIgnoresTheCaseOfBoth) {
    EXPECT_TRUE(findStringIgnoreCase("spd-sr505", "SPD"));
    EXPECT_TRUE(findStringIgnoreCase("SPD-SR505", "r50"));
    EXPECT_TRUE(findStringIgnoreCase("SR505", "sr505"));
    EXPECT_FALSE(findStringIgnoreCase("SR505", "SR5055"));
    EXPECT_FALSE(findStringIgnoreCase("SR505", "505S"));
}

TEST(InstIdText, AnEmptyPartIsFoundEverywhere) {
    EXPECT_TRUE(findStringIgnoreCase("SR505", ""));
    EXPECT_TRUE(findStringIgnoreCase("", ""));
    EXPECT_FALSE(findStringIgnoreCase("", "a"));
}

TEST(InstIdText, OfAllCharactersTheTenDigitsAreDigits) {
    for (int c = 1; c <= 255; ++c) {
        const std::string text = {'A', static_cast<char>(c), 'B'};
        EXPECT_EQ(contains_digit(text.c_str()), c >= '0' && c <= '9') << c;
    }
}

TEST(InstIdText, ADigitCountsAtEitherEndButNotBehindTheTerminator) {
    EXPECT_TRUE(contains_digit("1AB"));
    EXPECT_TRUE(contains_digit("AB1"));
    EXPECT_FALSE(contains_digit("AB\0001"));
    EXPECT_FALSE(contains_digit(""));
}

// ---- options ----

struct OptionRow {
    const char* name;
    const char* id;
    const char* underlying;
};

class InstIdOption : public testing::TestWithParam<OptionRow> {};

TEST_P(InstIdOption, IsRecognisedWithItsUnderlying) {
    std::string out = "before";

    EXPECT_TRUE(IsOption(GetParam().id));
    EXPECT_EQ(OptionExtractSecondClass(GetParam().id, out), 0U);

    EXPECT_EQ(out, GetParam().underlying);
}

INSTANTIATE_TEST_SUITE_P(InstId, InstIdOption,
                         testing::Values(OptionRow{"Call", "SR505C6000", "SR505"},
                                         OptionRow{"Put", "SR505P6000", "SR505"},
                                         OptionRow{"ProductWithC", "CF505C14000", "CF505"},
                                         OptionRow{"ProductWithP", "PF505P7000", "PF505"},
                                         OptionRow{"OneDigitEachSide", "1C2", "1"},
                                         OptionRow{"LetterThatFailsBeforeOneThatCounts", "SR5CX505P6", "SR5CX505"},
                                         OptionRow{"TheFirstOfTwoMarks", "SR505C60P7", "SR505"},
                                         OptionRow{"LetterBehindTheStrike", "SR505C6000P", "SR505"}),
                         [](const auto& row) { return std::string(row.param.name); });

struct NoOptionRow {
    const char* name;
    const char* id;
};

class InstIdNoOption : public testing::TestWithParam<NoOptionRow> {};

TEST_P(InstIdNoOption, IsRefusedAndTheResultLeftAlone) {
    std::string out = "before";

    EXPECT_FALSE(IsOption(GetParam().id));
    EXPECT_EQ(OptionExtractSecondClass(GetParam().id, out), kFailure);

    EXPECT_EQ(out, "before");
}

INSTANTIATE_TEST_SUITE_P(
    InstId, InstIdNoOption,
    testing::Values(NoOptionRow{"Empty", ""}, NoOptionRow{"Future", "SR505"}, NoOptionRow{"FutureOfCotton", "CF505"},
                    NoOptionRow{"CalendarSpread", "SPD-SR505/SR509"},
                    NoOptionRow{"InterProductSpread", "IPS-SF505/SM505"}, NoOptionRow{"Class", "CP"},
                    NoOptionRow{"LetterFirst", "C5"}, NoOptionRow{"LetterAlone", "C"},
                    NoOptionRow{"NothingBehindTheLetter", "SR505C"}, NoOptionRow{"NoDigitBehindTheLetter", "SR505CX"},
                    NoOptionRow{"NoDigitBeforeTheLetter", "5SRC6000"}, NoOptionRow{"TwoLettersInARow", "SR505CP6000"},
                    NoOptionRow{"LowerCaseCall", "SR505c6000"}, NoOptionRow{"LowerCasePut", "SR505p6000"},
                    NoOptionRow{"OtherLetter", "SR505D6000"}, NoOptionRow{"DigitsOnly", "5056000"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(InstIdOptionLetter, OnlyUpperCaseCAndPMakeAnOption) {
    for (int c = 1; c <= 255; ++c) {
        const std::string id = std::string("SR505") + static_cast<char>(c) + "6000";
        EXPECT_EQ(IsOption(id), c == 'C' || c == 'P') << c;
    }
}

// ---- class ----

struct ClassRow {
    const char* name;
    const char* text;
    std::uint32_t length;
    const char* cls;
};

class InstIdClass : public testing::TestWithParam<ClassRow> {};

TEST_P(InstIdClass, IsTheLeadingLetters) {
    EXPECT_EQ(ExtractClass(GetParam().text, GetParam().length), GetParam().cls);
}

INSTANTIATE_TEST_SUITE_P(
    InstId, InstIdClass,
    testing::Values(ClassRow{"Option", "SR505C6000", 10, "SR"}, ClassRow{"LowerCase", "sr505", 5, "sr"},
                    ClassRow{"LettersOnly", "SR", 2, "SR"}, ClassRow{"Combination", "SPD-SR505/SR509", 15, "SPD"},
                    ClassRow{"DigitFirst", "5SR", 3, ""}, ClassRow{"BlankFirst", " SR", 3, ""},
                    ClassRow{"CutByTheLength", "SR505", 1, "S"}, ClassRow{"NoLength", "SR505", 0, ""},
                    ClassRow{"LengthBehindTheTerminator", "SR", 3, "SR"}, ClassRow{"Empty", "", 0, ""}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(InstIdClassLetters, EveryCharacterThatIsNoLetterEndsTheClass) {
    for (int c = 1; c <= 255; ++c) {
        const std::string text = {'S', static_cast<char>(c), 'R'};
        EXPECT_EQ(ExtractClass(text.c_str(), 3), std::isalpha(c) != 0 ? text : "S") << c;
    }
}

TEST(InstIdClassLetters, AWholeIdNeedsNoLength) {
    EXPECT_EQ(ExtractClass("SR505C6000"), "SR");
    EXPECT_EQ(ExtractClass(std::string()), "");
}

// ---- id as the card holds it ----

using Words = std::array<std::uint32_t, 5>;

// The four words of an id; a fifth shows that nothing is written behind them.
Words Packed(const char* id) {
    Words words;
    words.fill(0xEEEEEEEE);
    conToAscii(id, words.data());
    return words;
}

TEST(InstIdPacking, FourCharactersFillAWordFirstOneHighest) {
    EXPECT_EQ(Packed("SR501"), (Words{0x53523530, 0x31000000, 0, 0, 0xEEEEEEEE}));
}

TEST(InstIdPacking, EveryLengthUpToSixteenIsPaddedWithZeros) {
    const std::string id = "ABCDEFGHIJKLMNOP";
    for (std::size_t length = 0; length <= id.size(); ++length) {
        Words expected{0, 0, 0, 0, 0xEEEEEEEE};
        for (std::size_t i = 0; i < length; ++i)
            expected[i / 4] |= static_cast<std::uint32_t>(id[i]) << (24 - 8 * (i % 4));
        EXPECT_EQ(Packed(id.substr(0, length).c_str()), expected) << length;
    }
}

TEST(InstIdPacking, CharactersAfterTheSixteenthAreLeftOut) {
    EXPECT_EQ(Packed("SPD-SR505/SR509AND MORE"), Packed("SPD-SR505/SR509A"));
}

}  // namespace
