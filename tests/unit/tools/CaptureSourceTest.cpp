// A compressed capture that is damaged: what precedes the damage is read.
#include "tools/data/CaptureSource.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zstd.h>
#include <random>
#include <string>
#include <vector>

#include "capture/Reader.h"
#include "tests/support/TempDir.h"
#include "tests/unit/tools/QuoteSample.h"

using namespace capture;
using ::testing::HasSubstr;

namespace {

constexpr std::size_t kBlock = ZSTD_BLOCKSIZE_MAX;  // of the content, but for the last one

// Where each block of a frame begins. The frame has its content's size, and no dictionary.
std::vector<std::size_t> BlocksOf(const std::string& frame) {
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(frame[at]); };
    const bool isSingle = (byte(4) & 0x20) != 0;
    const std::size_t sizeBytes = byte(4) >> 6 == 0 ? 1 : std::size_t{1} << (byte(4) >> 6);
    std::vector<std::size_t> blocks;
    std::size_t at = 5 + (isSingle ? 0 : 1) + sizeBytes;
    for (bool isLast = false; !isLast;) {
        blocks.push_back(at);
        const std::size_t head = byte(at) | byte(at + 1) << 8 | byte(at + 2) << 16;
        isLast = (head & 1) != 0;
        const bool isOneByte = (head >> 1 & 3) == 1;
        at += 3 + (isOneByte ? 1 : head >> 3);
    }
    return blocks;
}

class CaptureSourceTest : public ::testing::Test {
protected:
    /// A capture of several blocks.
    CaptureSourceTest() {
        std::mt19937_64 random(20261122);
        BlockBuffer blocks = emptyCapture();
        while (blocks.size() < 5 * kBlock + kBlock / 2) {
            appendPacket(blocks, 0, 1, randomQuote(random).packet());
            ends.push_back(blocks.size());
        }
        frame.resize(ZSTD_compressBound(blocks.size()));
        frame.resize(ZSTD_compress(frame.data(), frame.size(), blocks.data(), blocks.size(), 3));
    }

    /// The packets of a file with these bytes; why it cannot be read on is in @p damage.
    std::size_t PacketsOf(const std::string& bytes) {
        vexo::data::CaptureSource source(dir.Write("a.zst", bytes));
        Reader reader(source.stream());
        std::size_t count = 0;
        for (Packet packet; reader.next(packet);) ++count;
        damage = reader.damage() ? reader.damage()->text + ": " + source.failure() : "";
        return count;
    }
    /// The packets that end in the first so many bytes.
    std::size_t PacketsWithin(std::size_t bytes) const {
        std::size_t count = 0;
        while (count < ends.size() && ends[count] <= bytes) ++count;
        return count;
    }

    test_support::TempDir dir;
    std::string frame;
    std::vector<std::size_t> ends;  // of the packets
    std::string damage;
};

}  // namespace

TEST_F(CaptureSourceTest, AWholeFileIsReadToItsEnd) {
    EXPECT_EQ(PacketsOf(frame), ends.size());
    EXPECT_EQ(damage, "");
    EXPECT_EQ(PacketsOf(frame + frame), 2 * ends.size());  // two frames: two sections
    EXPECT_EQ(damage, "");
}

TEST_F(CaptureSourceTest, AllPacketsBeforeADamagedBlockAreRead) {
    const std::vector<std::size_t> blocks = BlocksOf(frame);
    ASSERT_EQ(blocks.size(), 6U);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        std::string bytes = frame;
        bytes[blocks[i]] = static_cast<char>(bytes[blocks[i]] | 6);  // a kind of block that there is not
        const std::size_t before = PacketsWithin(i * kBlock);
        EXPECT_EQ(PacketsOf(bytes), before) << "block " << i;
        const std::size_t firstLost = before == 0 ? 0 : ends[before - 1];
        EXPECT_THAT(damage, HasSubstr("at byte " + std::to_string(firstLost) + ": "));
        EXPECT_THAT(damage, HasSubstr("the compressed file is damaged: ")) << "block " << i;
    }
}

TEST_F(CaptureSourceTest, AFlippedBitCostsNoPacketOfAnEarlierBlock) {
    const std::vector<std::size_t> blocks = BlocksOf(frame);
    std::mt19937 random(20261122);
    for (std::size_t i = 1; i < blocks.size(); ++i) {
        const std::size_t end = i + 1 < blocks.size() ? blocks[i + 1] : frame.size();
        for (int round = 0; round < 20; ++round) {
            std::string bytes = frame;
            const std::size_t at = blocks[i] + random() % (end - blocks[i]);
            bytes[at] = static_cast<char>(bytes[at] ^ 1 << random() % 8);
            EXPECT_GE(PacketsOf(bytes), PacketsWithin(i * kBlock)) << "byte " << at;
        }
    }
}

TEST_F(CaptureSourceTest, AllPacketsOfTheWholeBlocksOfACutFileAreRead) {
    const std::vector<std::size_t> blocks = BlocksOf(frame);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        EXPECT_EQ(PacketsOf(frame.substr(0, blocks[i] + 2)), PacketsWithin(i * kBlock)) << "block " << i;
        EXPECT_THAT(damage, HasSubstr("the compressed file is cut off"));
    }
}
