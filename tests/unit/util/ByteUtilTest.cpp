#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "VexoZceUtil.h"
#include "tests/support/CaptureOutput.h"
#include "tests/support/TempDir.h"

namespace {

using test_support::CaptureOutput;
using test_support::TempDir;

// ---- shifts ----

constexpr unsigned long kValues[] = {
    0, 1, 0x0000000180000000, 0x0000000100000002, 0x8000000080000001, 0x123456789ABCDEF0, 0xFFFFFFFFFFFFFFFF};

/// What a count shifts by: -1 for "gives 0", 0 for "unchanged".
int ShiftOf(int n) {
    if (n == 64) return -1;
    if (n >= 32 && n <= 63) return 0;
    int remainder = n % 32;
    if (remainder < 0) remainder += 32;
    return remainder;
}

/// One bit at a time, so that nothing here resembles what it checks.
unsigned long Doubled(unsigned long v) { return (v & 0xFFFFFFFF) + ((v >> 32) * 2 % 0x100000000) * 0x100000000; }
unsigned long Halved(unsigned long v) { return (v / 0x100000000) * 0x100000000 + (v & 0xFFFFFFFF) / 2; }

unsigned long Expected(unsigned long v, int n, unsigned long (*step)(unsigned long)) {
    const int shift = ShiftOf(n);
    if (shift < 0) return 0;
    for (int i = 0; i < shift; ++i) v = step(v);
    return v;
}

std::vector<int> Counts() {
    std::vector<int> counts = {INT_MIN, INT_MIN + 1, INT_MAX - 1, INT_MAX};
    for (int n = -130; n <= 200; ++n) counts.push_back(n);
    return counts;
}

TEST(Move64, LeftMovesTheHighHalfForEveryCount) {
    for (const int n : Counts()) {
        for (const unsigned long v : kValues) {
            EXPECT_EQ(Uti_MoveLeft64(v, n), Expected(v, n, Doubled)) << std::hex << v << " by " << std::dec << n;
        }
    }
}

TEST(Move64, RightMovesTheLowHalfForEveryCount) {
    for (const int n : Counts()) {
        for (const unsigned long v : kValues) {
            EXPECT_EQ(Uti_MoveRight64(v, n), Expected(v, n, Halved)) << std::hex << v << " by " << std::dec << n;
        }
    }
}

TEST(Move64, LeftByOneLosesTheTopBitAndCarriesNothingIn) {
    EXPECT_EQ(Uti_MoveLeft64(0x0000000180000000, 1), 0x0000000280000000u);
    EXPECT_EQ(Uti_MoveLeft64(0x8000000000000001, 1), 0x0000000000000001u);
}

TEST(Move64, RightByOneLosesTheBottomBitAndCarriesNothingIn) {
    EXPECT_EQ(Uti_MoveRight64(0x0000000100000002, 1), 0x0000000100000001u);
    EXPECT_EQ(Uti_MoveRight64(0x0000000100000001, 1), 0x0000000100000000u);
}

TEST(Move64, By64GivesZeroAndBy40ChangesNothing) {
    EXPECT_EQ(Uti_MoveLeft64(0x123456789ABCDEF0, 64), 0u);
    EXPECT_EQ(Uti_MoveLeft64(0x123456789ABCDEF0, 40), 0x123456789ABCDEF0u);
    EXPECT_EQ(Uti_MoveRight64(0x123456789ABCDEF0, 64), 0u);
    EXPECT_EQ(Uti_MoveRight64(0x123456789ABCDEF0, 40), 0x123456789ABCDEF0u);
}

TEST(Move64, ANegativeCountIsTakenModulo32) {
    EXPECT_EQ(Uti_MoveLeft64(0x0000000180000001, -31), 0x0000000280000001u);
    EXPECT_EQ(Uti_MoveRight64(0x0000000180000002, -31), 0x0000000140000001u);
}

TEST(HostByteOrder, IsLittleEndian) { EXPECT_FALSE(Uti_IsBigEndian()); }

// ---- sequence numbers ----

class SequenceCheck : public testing::Test {
protected:
    /// One number for every slot: @p first for slot 0, rising by 1 from slot to slot.
    void FeedEverySlot(unsigned int first) {
        for (unsigned int slot = 0; slot < 256; ++slot) {
            CheckSeqNumIncre(last, first + slot, static_cast<unsigned char>(slot));
        }
    }

    unsigned int last[256] = {};
};

TEST_F(SequenceCheck, TheFirstNumberOfASlotIsStoredSilently) {
    CaptureOutput out;

    const int result = CheckSeqNumIncre(last, 9, 3);

    EXPECT_EQ(out.Stop(), "");
    EXPECT_EQ(result, 1);
    EXPECT_EQ(last[3], 9u);
}

TEST_F(SequenceCheck, TheNextNumberIsStoredSilentlyAndReturned) {
    last[3] = 7;
    CaptureOutput out;

    const int result = CheckSeqNumIncre(last, 8, 3);

    EXPECT_EQ(out.Stop(), "");
    EXPECT_EQ(result, 8);
    EXPECT_EQ(last[3], 8u);
}

TEST_F(SequenceCheck, AGapIsPrintedAndTheNewNumberStored) {
    last[3] = 7;
    CaptureOutput out;

    const int result = CheckSeqNumIncre(last, 9, 3);

    EXPECT_EQ(out.Stop(), "ERROR! not equal!! old_seq 7, current seq 9. \n");
    EXPECT_EQ(result, 46);
    EXPECT_EQ(last[3], 9u);
}

TEST_F(SequenceCheck, ARepeatedAndALowerNumberArePrintedToo) {
    last[3] = 7;
    CaptureOutput out;

    CheckSeqNumIncre(last, 7, 3);
    CheckSeqNumIncre(last, 6, 3);

    EXPECT_EQ(out.Stop(),
              "ERROR! not equal!! old_seq 7, current seq 7. \n"
              "ERROR! not equal!! old_seq 7, current seq 6. \n");
}

TEST_F(SequenceCheck, NumbersAreUnsignedAndWrapToZero) {
    last[0] = 0xFFFFFFFE;
    CaptureOutput out;

    EXPECT_EQ(CheckSeqNumIncre(last, 0xFFFFFFFF, 0), -1);
    EXPECT_EQ(CheckSeqNumIncre(last, 0, 0), 0);
    last[0] = 0xFFFFFFFF;
    CheckSeqNumIncre(last, 1, 0);

    EXPECT_EQ(out.Stop(), "ERROR! not equal!! old_seq 4294967295, current seq 1. \n");
}

TEST_F(SequenceCheck, EverySlotIsItsOwn) {
    CaptureOutput out;

    FeedEverySlot(100);
    FeedEverySlot(101);

    EXPECT_EQ(out.Stop(), "");
    for (unsigned int slot = 0; slot < 256; ++slot) EXPECT_EQ(last[slot], slot + 101) << "slot " << slot;
}

// ---- file size ----

TEST(FileSize, IsTheNumberOfBytes) {
    const TempDir dir;
    dir.Write("empty", "");
    dir.Write("five", std::string("a\0b\nc", 5));

    EXPECT_EQ(Uti_GetFileSize("empty"), 0);
    EXPECT_EQ(Uti_GetFileSize(dir.Path("five").c_str()), 5);
}

TEST(FileSize, ReachesBeyond32Bits) {
    const TempDir dir;
    dir.Write("sparse", "");
    ASSERT_EQ(::truncate("sparse", 0x100000001), 0);

    EXPECT_EQ(Uti_GetFileSize("sparse"), 0x100000001);
}

TEST(FileSize, FollowsASymbolicLink) {
    const TempDir dir;
    dir.Write("five", "abcde");
    ASSERT_EQ(::symlink("five", "link"), 0);

    EXPECT_EQ(Uti_GetFileSize("link"), 5);
}

TEST(FileSize, IsMinusOneForWhatCannotBeExamined) {
    const TempDir dir;

    EXPECT_EQ(Uti_GetFileSize("missing"), -1);
    EXPECT_EQ(Uti_GetFileSize(""), -1);
    EXPECT_EQ(Uti_GetFileSize(nullptr), -1);
}

// ---- the library itself ----

TEST(Library, TellsItsVersion) { EXPECT_STREQ(GetUpDmaLibVersion(), "1.1.2.13"); }

TEST(Library, WantsTheCardResetUnlessTheApplicationSaysOtherwise) {
    EXPECT_TRUE(g_bFpgaNeedRst);
    EXPECT_TRUE(IsNeedFpgaRst());
    g_bFpgaNeedRst = false;
    EXPECT_FALSE(IsNeedFpgaRst());
    g_bFpgaNeedRst = true;
}

}  // namespace
