#include <cwchar>

#include "tests/unit/log/LogFixture.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

using LineCut = StartedLog;

constexpr std::size_t kLineSize = 2048;

// No two neighbours alike, so that a shifted or repeated piece shows.
std::string Text(std::size_t length) {
    std::string text;
    for (std::size_t i = 0; i < length; ++i) text += static_cast<char>('!' + i % 90);
    return text;
}

std::string CutLine(const std::string& whole) { return whole.substr(0, kLineSize - 1); }

void Log(const std::string& tag, const std::string& message) {
    elog_output(kInfo, tag.c_str(), "file", "func", 1, "%s", message.c_str());
}

TEST_F(LineCut, AMessageIsCutSoThatTheLineHas2048Bytes) {
    elog_set_fmt(kInfo, 0);
    std::vector<std::string> expected;
    for (std::size_t length = 2000; length <= 2100; ++length) expected.push_back(CutLine(Text(length)));

    const std::string printed = Printed([] {
        for (std::size_t length = 2000; length <= 2100; ++length) Log("", Text(length));
    });

    EXPECT_EQ(Lines(printed), expected);
    EXPECT_EQ(dir.Read(kToday), printed);
}

TEST_F(LineCut, ThePrefixCountsForTheLengthOfTheLine) {
    std::vector<std::string> expected;
    for (std::size_t tag = 0; tag <= 64; ++tag) {
        expected.push_back(CutLine("[INFO   ][20250303-10:00:00][" + Text(tag) + "]" + Text(1970)));
    }

    const std::string printed = Printed([] {
        for (std::size_t tag = 0; tag <= 64; ++tag) Log(Text(tag), Text(1970));
    });

    EXPECT_EQ(Lines(printed), expected);
}

TEST_F(LineCut, APrefixThatFillsTheLineIsCutAtAnyOfItsPieces) {
    elog_set_fmt(kInfo, ELOG_FMT_LVL | ELOG_FMT_TAG | ELOG_FMT_FILE | ELOG_FMT_FUNC | ELOG_FMT_LINE);
    std::vector<std::string> expected;
    for (std::size_t tag = 2015; tag <= 2060; ++tag) {
        expected.push_back(CutLine("[INFO   ][" + Text(tag) + "](file func:1)message"));
    }

    const std::string printed = Printed([] {
        for (std::size_t tag = 2015; tag <= 2060; ++tag) Log(Text(tag), "message");
    });

    EXPECT_EQ(Lines(printed), expected);
}

TEST_F(LineCut, AMessageThatCannotBeFormattedGivesALineOf2048Bytes) {
    const wchar_t unknown[] = {static_cast<wchar_t>(0xFFFFFFF), 0};  // no multibyte form in any locale
    Printed([] { Log("fpga", std::string(3000, '#')); });

    const std::string printed = Printed([&unknown] { elog_output(kInfo, "fpga", "file", "func", 1, "%ls", unknown); });

    EXPECT_THAT(printed, SizeIs(kLineSize));
    EXPECT_THAT(printed, StartsWith("[INFO   ][20250303-10:00:00][fpga]"));
    EXPECT_EQ(printed.find('\n'), kLineSize - 1);
    EXPECT_THAT(printed, Not(HasSubstr("#"))) << "shows what an earlier line left in the buffer";
}

TEST_F(LineCut, AnEmptyMessageIsThePrefixAlone) {
    EXPECT_EQ(Printed([] { Log("fpga", ""); }), "[INFO   ][20250303-10:00:00][fpga]\n");
}

}  // namespace
