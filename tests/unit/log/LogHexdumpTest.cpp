#include <cstdio>
#include <numeric>

#include "tests/unit/log/LogFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using LogHexdump = StartedLog;

std::vector<unsigned char> Bytes(std::size_t size, unsigned char first = 0) {
    std::vector<unsigned char> bytes(size);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

std::string Dump(unsigned int width, const std::vector<unsigned char>& bytes, const std::string& name = "pkt") {
    return Printed([&] {
        elog_hexdump(name.c_str(), static_cast<std::uint8_t>(width), bytes.data(),
                     static_cast<std::uint16_t>(bytes.size()));
    });
}

std::string Hex(std::size_t value, int digits) {
    char text[24];
    std::snprintf(text, sizeof text, "%0*zX", digits, value);
    return text;
}

// One line of a dump, put together from what is known of every position.
std::string ExpectedLine(std::size_t offset, std::size_t width, const std::vector<unsigned char>& bytes) {
    std::string line = "[DEBUG  ]HEX pkt: " + Hex(offset, 4) + '-' + Hex(offset + width, 4) + ": ";
    std::string text;
    for (std::size_t i = 0; i < width; ++i) {
        if (offset + i < bytes.size()) {
            const unsigned char byte = bytes[offset + i];
            line += Hex(byte, 2) + ' ';
            text += byte >= 32 && byte <= 126 ? static_cast<char>(byte) : '.';
        } else {
            line += "   ";
        }
        if (i % 8 == 7) line += ' ';
    }
    return line + "  " + text + '\n';
}

TEST_F(LogHexdump, ALineHasOffsetsBytesAndText) {
    const std::vector<unsigned char> bytes = {'S', 'R', '5', '0', '5', 0, 0x7F, 0xFF, ' ', '~', 0x1F};

    const std::string printed = Dump(16, bytes);

    EXPECT_EQ(printed,
              "[DEBUG  ]HEX pkt: 0000-0010: 53 52 35 30 35 00 7F FF  20 7E 1F                   SR505... ~.\n");
    EXPECT_EQ(dir.Read(kToday), printed);
}

TEST_F(LogHexdump, PositionsPastTheEndAreThreeBlanksEach) {
    EXPECT_THAT(Lines(Dump(4, Bytes(6, 'A'))), ElementsAre("[DEBUG  ]HEX pkt: 0000-0004: 41 42 43 44   ABCD",
                                                           "[DEBUG  ]HEX pkt: 0004-0008: 45 46         EF"));
}

TEST_F(LogHexdump, EveryWidthAndSizeIsLaidOutAlike) {
    for (unsigned int width = 1; width <= 255; ++width) {
        for (std::size_t size = 1; size <= 40; size += width < 42 ? 1 : 13) {
            const std::vector<unsigned char> bytes = Bytes(size, static_cast<unsigned char>(width * 7 + size));
            std::string expected;
            for (std::size_t offset = 0; offset < size; offset += width) expected += ExpectedLine(offset, width, bytes);

            ASSERT_EQ(Dump(width, bytes), expected) << "width " << width << ", size " << size;
        }
    }
}

TEST_F(LogHexdump, OffsetsOfMoreThanFourDigitsAreWrittenWhole) {
    const std::vector<std::string> lines = Lines(Dump(255, Bytes(65535)));

    ASSERT_EQ(lines.size(), 257u);
    EXPECT_EQ(lines.back().substr(0, 29), "[DEBUG  ]HEX pkt: FF00-FFFF: ");
    EXPECT_EQ(Lines(Dump(128, Bytes(65535))).back().substr(0, 30), "[DEBUG  ]HEX pkt: FF80-10000: ");
}

TEST_F(LogHexdump, NothingIsWrittenForNoBytes) { EXPECT_THAT(Dump(16, {}), IsEmpty()); }

TEST_F(LogHexdump, NothingIsWrittenForNoWidth) { EXPECT_THAT(Dump(0, Bytes(8)), IsEmpty()); }

TEST_F(LogHexdump, IsWrittenFromDebugLevelOn) {
    for (std::uint8_t filter = 0; filter < ELOG_LVL_TOTAL; ++filter) {
        elog_set_filter_lvl(filter);

        EXPECT_EQ(Dump(16, Bytes(8)).empty(), filter < 5) << "filter level " << static_cast<int>(filter);
    }
}

TEST_F(LogHexdump, NothingIsWrittenWhileOutputIsDisabled) {
    elog_set_output_enabled(false);

    EXPECT_THAT(Dump(16, Bytes(8)), IsEmpty());
}

TEST_F(LogHexdump, DoesNotDependOnTheFormatMask) {
    elog_set_fmt(ELOG_LVL_DEBUG, 0);

    EXPECT_EQ(Dump(1, Bytes(1, 'A')), "[DEBUG  ]HEX pkt: 0000-0001: 41   A\n");
}

TEST_F(LogHexdump, ALongNameCutsTheLineAt2048Bytes) {
    for (std::size_t length = 1990; length <= 2060; ++length) {
        const std::string name(length, 'n');
        const std::string whole = "[DEBUG  ]HEX " + name + ": 0000-0001: 41   A";

        EXPECT_EQ(Dump(1, Bytes(1, 'A'), name), whole.substr(0, 2047) + '\n') << length;
    }
}

}  // namespace
