// A compressed capture that is damaged: what precedes the damage is read, and what may be wrong of it is told.
#include "tools/data/CaptureSource.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zstd.h>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "capture/Reader.h"
#include "tests/support/TempDir.h"
#include "tests/unit/capture/CaptureSample.h"
#include "tests/unit/tools/QuoteSample.h"

using namespace capture;
using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr std::size_t kBlock = ZSTD_BLOCKSIZE_MAX;  // of the content, but for the last one
constexpr std::size_t kChecksum = 4;                // bytes at the end of a frame
constexpr char kDoubt[] = "packets before this byte may be wrong, too, and nobody can tell which";

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
            packets.push_back(randomQuote(random).packet());
            appendPacket(blocks, 0, 1, packets.back());
            ends.push_back(blocks.size());
        }
        content = text(blocks);
        frame = Compressed(content);
    }

    /// One frame with a checksum, as the program zstd writes it.
    static std::string Compressed(const std::string& bytes) {
        const std::unique_ptr<ZSTD_CCtx, std::size_t (*)(ZSTD_CCtx*)> packer(ZSTD_createCCtx(), ZSTD_freeCCtx);
        ZSTD_CCtx_setParameter(packer.get(), ZSTD_c_checksumFlag, 1);
        std::string out(ZSTD_compressBound(bytes.size()), '\0');
        out.resize(ZSTD_compress2(packer.get(), out.data(), out.size(), bytes.data(), bytes.size()));
        return out;
    }
    /// Reads a file with these bytes. Why it cannot be read on is in @p damage.
    /// @return how many packets it gives; how many of them are others than those that were written is in @p wrong
    std::size_t PacketsOf(const std::string& bytes) {
        vexo::data::CaptureSource source(dir.Write("a.zst", bytes));
        Reader reader(source.stream());
        std::size_t count = 0;
        wrong = 0;
        firstWrong = packets.size();
        for (Packet packet; reader.next(packet); ++count) {
            const std::string_view got(reinterpret_cast<const char*>(packet.data), packet.size);
            if (got == packets[count % packets.size()]) continue;
            if (wrong++ == 0) firstWrong = count;
        }
        damage = vexo::data::faultOf(reader, source);
        return count;
    }
    /// The packets that end in the first so many bytes.
    std::size_t PacketsWithin(std::size_t bytes) const {
        std::size_t count = 0;
        while (count < ends.size() && ends[count] <= bytes) ++count;
        return count;
    }

    test_support::TempDir dir;
    std::string content;
    std::string frame;
    std::vector<std::string> packets;
    std::vector<std::size_t> ends;  // of the packets
    std::string damage;
    std::size_t wrong = 0;
    std::size_t firstWrong = 0;
};

}  // namespace

TEST_F(CaptureSourceTest, AWholeFileIsReadToItsEnd) {
    EXPECT_EQ(PacketsOf(frame), ends.size());
    EXPECT_EQ(damage, "");
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(PacketsOf(frame + frame), 2 * ends.size());  // two frames: two sections
    EXPECT_EQ(damage, "");
    EXPECT_EQ(wrong, 0U);
}

TEST_F(CaptureSourceTest, AllPacketsBeforeADamagedBlockAreReadAndRight) {
    const std::vector<std::size_t> blocks = BlocksOf(frame);
    ASSERT_EQ(blocks.size(), 6U);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        std::string bytes = frame;
        bytes[blocks[i]] = static_cast<char>(bytes[blocks[i]] | 6);  // a kind of block that there is not
        const std::size_t before = PacketsWithin(i * kBlock);
        EXPECT_EQ(PacketsOf(bytes), before) << "block " << i;
        EXPECT_EQ(wrong, 0U) << "block " << i;
        const std::size_t firstLost = before == 0 ? 0 : ends[before - 1];
        EXPECT_THAT(damage, HasSubstr("at byte " + std::to_string(firstLost) + ": "));
        EXPECT_THAT(damage, HasSubstr("the compressed file is damaged: ")) << "block " << i;
    }
}

// Most flips decode without a complaint, and only the checksum at the end of the frame shows them.
TEST_F(CaptureSourceTest, AFlippedBitLeavesEarlierBlocksRightAndNoWrongPacketGoesUntold) {
    const std::vector<std::size_t> blocks = BlocksOf(frame);
    std::mt19937 random(20261122);
    int untilChecksum = 0;
    int withWrong = 0;
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        const std::size_t end = i + 1 < blocks.size() ? blocks[i + 1] : frame.size() - kChecksum;
        for (int round = 0; round < 20; ++round) {
            std::string bytes = frame;
            const std::size_t at = blocks[i] + random() % (end - blocks[i]);
            bytes[at] = static_cast<char>(bytes[at] ^ 1 << random() % 8);
            const std::size_t count = PacketsOf(bytes);
            EXPECT_GE(count, PacketsWithin(i * kBlock)) << "byte " << at;
            EXPECT_GE(firstWrong, PacketsWithin(i * kBlock)) << "byte " << at;
            // Some bits mean nothing: then the file is whole.
            EXPECT_THAT(damage, AnyOf("", HasSubstr(kDoubt))) << "byte " << at;
            if (damage.empty()) {
                EXPECT_EQ(count, packets.size()) << "byte " << at;
                EXPECT_EQ(wrong, 0U) << "byte " << at;
            }
            withWrong += wrong > 0 ? 1 : 0;
            untilChecksum += damage.find("its checksum is wrong") != std::string::npos ? 1 : 0;
        }
    }
    EXPECT_GT(withWrong, 10);
    EXPECT_GT(untilChecksum, 10);
}

TEST_F(CaptureSourceTest, PacketsOfAFrameWithAWrongChecksumMayBeWrongThoseOfAWholeOneAreNot) {
    std::string bytes = frame;
    bytes.back() = static_cast<char>(bytes.back() ^ 1);
    EXPECT_EQ(PacketsOf(bytes), ends.size());
    EXPECT_THAT(damage, AllOf(HasSubstr("at byte " + std::to_string(content.size()) + ": the file cannot be read: "),
                              HasSubstr("the compressed file is damaged: its checksum is wrong; "), HasSubstr(kDoubt),
                              HasSubstr(" (use another copy of the file)")));
    PacketsOf(frame + bytes);
    EXPECT_THAT(damage, HasSubstr(kDoubt));
    PacketsOf(bytes + frame);
    EXPECT_THAT(damage, HasSubstr(kDoubt));
}

// A capture that was damaged before it was compressed is as good as its plain file up to there.
TEST_F(CaptureSourceTest, ABadBlockOfTheCaptureCastsNoDoubtIfTheChecksumIsRight) {
    std::string bad = content;
    const std::size_t at = ends[ends.size() / 2];
    bad.replace(at + 4, 4, 4, '\x01');  // length of the block
    std::string bytes = Compressed(bad);
    EXPECT_EQ(PacketsOf(bytes), ends.size() / 2 + 1);
    EXPECT_THAT(damage, AllOf(HasSubstr("at byte " + std::to_string(at) + ": "), Not(HasSubstr("checksum"))));
    bytes.back() = static_cast<char>(bytes.back() ^ 1);
    EXPECT_EQ(PacketsOf(bytes), ends.size() / 2 + 1);
    EXPECT_THAT(damage, AllOf(HasSubstr("at byte " + std::to_string(at) + ": "), HasSubstr("its checksum is wrong"),
                              HasSubstr(kDoubt)));
}

TEST_F(CaptureSourceTest, AllPacketsOfTheWholeBlocksOfACutFileAreRead) {
    const std::vector<std::size_t> blocks = BlocksOf(frame);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        EXPECT_EQ(PacketsOf(frame.substr(0, blocks[i] + 2)), PacketsWithin(i * kBlock)) << "block " << i;
        EXPECT_EQ(wrong, 0U) << "block " << i;
        EXPECT_THAT(damage, HasSubstr("the compressed file is cut off"));
    }
}
