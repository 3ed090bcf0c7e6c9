#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "VexoZceUtil.h"
#include "tests/support/CaptureOutput.h"
#include "tests/support/TempDir.h"

namespace {

using test_support::CaptureOutput;
using test_support::TempDir;

const unsigned int kCountAtStart = g_uiPktCnt;  // before any test

class HexDump : public testing::Test {
protected:
    HexDump() : fd(::open("dump", O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)) { g_uiPktCnt = 0; }
    ~HexDump() override {
        ::close(fd);
        g_uiPktCnt = 0;
    }

    /// What the file got since the last call.
    std::string Written() {
        std::string all = dir.Read("dump");
        std::string fresh = all.substr(m_seen);
        m_seen = all.size();
        return fresh;
    }

    const TempDir dir;
    const int fd;

private:
    std::size_t m_seen = 0;
};

std::vector<unsigned char> Data(unsigned int length) {
    std::vector<unsigned char> data(length);
    for (unsigned int i = 0; i < length; ++i) data[i] = static_cast<unsigned char>(0x9E + 7 * i);
    return data;
}

std::string Hex(const std::vector<unsigned char>& data, unsigned int count) {
    std::string text;
    char two[3];
    for (unsigned int i = 0; i < count; ++i) {
        std::snprintf(two, sizeof two, "%02X", data[i]);
        text += two;
    }
    return text;
}

TEST_F(HexDump, CountsPacketsFromZero) { EXPECT_EQ(kCountAtStart, 0U); }

/// The published rule, step by step: two digits while the position is below the size minus 2 and bytes remain.
unsigned int EncodedBytes(int bufferSize, int length) {
    int bytes = 0;
    for (int position = 0; position < bufferSize - 2 && bytes < length; position += 2) ++bytes;
    return static_cast<unsigned int>(bytes);
}

TEST_F(HexDump, WritesCounterDigitsAndLineFeed) {
    char buffer[64];
    const unsigned char data[] = {0x00, 0x1F, 0xA9, 0xFF};
    CaptureOutput out;

    const long result = FillDebugFileHex(buffer, sizeof buffer, fd, data, sizeof data);

    EXPECT_EQ(out.Stop(), "");
    EXPECT_EQ(Written(), "0--001FA9FF\n");
    EXPECT_EQ(result, 9);
    EXPECT_STREQ(buffer, "001FA9FF\n");
}

TEST_F(HexDump, ABufferOf10TakesFourOfEightBytesAndReportsFourLeft) {
    char buffer[10];
    const unsigned char data[] = {1, 2, 3, 4, 5, 6, 7, 8};
    CaptureOutput out;

    const long result = FillDebugFileHex(buffer, sizeof buffer, fd, data, sizeof data);

    EXPECT_EQ(out.Stop(), "Left 4 bytes not write into file. totalSizes:8, writed:4.\n");
    EXPECT_EQ(Written(), "0--01020304\n");
    EXPECT_EQ(result, 9);
    EXPECT_STREQ(buffer, "01020304\n");
}

TEST_F(HexDump, EveryBufferSizeAndLengthStaysInsideTheBuffer) {
    constexpr std::size_t kGuard = 16;
    constexpr char kCanary = '\x5A';
    std::string expectedMessages;
    CaptureOutput out;

    for (unsigned int size = 0; size <= 40; ++size) {
        for (unsigned int length = 0; length <= 24; ++length) {
            SCOPED_TRACE(testing::Message() << "buffer of " << size << ", data of " << length);
            std::vector<char> room(kGuard + size + kGuard, kCanary);
            const std::vector<unsigned char> data = Data(length);
            const unsigned int encoded = EncodedBytes(static_cast<int>(size), static_cast<int>(length));
            const std::string line = Hex(data, encoded) + "\n";

            const long result = FillDebugFileHex(room.data() + kGuard, size, fd, data.data(), length);

            std::vector<char> expectedRoom(room.size(), kCanary);
            for (std::size_t i = 0; i < line.size() + 1 && i < size; ++i) expectedRoom[kGuard + i] = line.c_str()[i];
            ASSERT_EQ(room, expectedRoom);
            ASSERT_EQ(Written(), "0--" + line);
            ASSERT_EQ(result, static_cast<long>(line.size()));
            if (encoded < length) {
                expectedMessages += "Left " + std::to_string(length - encoded) +
                                    " bytes not write into file. totalSizes:" + std::to_string(length) +
                                    ", writed:" + std::to_string(encoded) + ".\n";
            }
        }
    }

    EXPECT_EQ(out.Stop(), expectedMessages);
}

TEST_F(HexDump, WithoutABufferOrDataStillEndsTheLine) {
    EXPECT_EQ(FillDebugFileHex(nullptr, 0, fd, nullptr, 0), 1);
    EXPECT_EQ(Written(), "0--\n");
}

TEST_F(HexDump, EveryByteValueIsTwoUpperCaseDigits) {
    std::vector<unsigned char> data(256);
    for (unsigned int i = 0; i < 256; ++i) data[i] = static_cast<unsigned char>(i);
    std::vector<char> buffer(1024);

    EXPECT_EQ(FillDebugFileHex(buffer.data(), 1024, fd, data.data(), 256), 513);
    EXPECT_EQ(Written(), "0--" + Hex(data, 256) + "\n");
}

struct HeadRow {
    const char* name;
    unsigned int counter;
    const char* head;
};

class HexDumpHead : public HexDump, public testing::WithParamInterface<HeadRow> {};

TEST_P(HexDumpHead, IsTheSignedCounterCutAfterNineCharacters) {
    char buffer[8];
    g_uiPktCnt = GetParam().counter;

    FillDebugFileHex(buffer, sizeof buffer, fd, nullptr, 0);

    EXPECT_EQ(Written(), std::string(GetParam().head) + "\n");
}

INSTANTIATE_TEST_SUITE_P(HexDump, HexDumpHead,
                         testing::Values(HeadRow{"AtLoad", 0, "0--"}, HeadRow{"SevenDigits", 9999999, "9999999--"},
                                         HeadRow{"EightDigits", 10000000, "10000000-"},
                                         HeadRow{"NineDigits", 123456789, "123456789"},
                                         HeadRow{"TenDigits", 2147483647, "214748364"},
                                         HeadRow{"Negative", 0xFFFFFFFF, "-1--"},
                                         HeadRow{"MostNegative", 0x80000000, "-21474836"}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(HexDump, ReturnsMinusOneWhenTheDescriptorTakesNothing) {
    char buffer[8];
    const unsigned char data[] = {1};

    EXPECT_EQ(FillDebugFileHex(buffer, sizeof buffer, -1, data, 1), -1);
    EXPECT_EQ(FillDebugFileHex(nullptr, 0, -1, nullptr, 0), -1);
}

}  // namespace
