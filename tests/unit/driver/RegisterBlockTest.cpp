#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include "tests/unit/driver/DrvFixture.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned long kAddr = 0x102;
constexpr char kTooLong[] = "ERROR length should less than 128!";

// Exactly as long as asked for, on the heap: the address sanitizer sees one byte too many.
class Buffer {
public:
    explicit Buffer(unsigned long size) : m_size(size), m_bytes(new unsigned char[size]) {
        std::fill_n(m_bytes.get(), size, kUntouched);
    }
    static Buffer Counting(unsigned long size) {
        Buffer buffer(size);
        for (unsigned long i = 0; i < size; ++i) buffer.m_bytes[i] = static_cast<unsigned char>(i + 1);
        return buffer;
    }

    unsigned char* Get() { return m_bytes.get(); }
    std::vector<unsigned char> Bytes() const { return {m_bytes.get(), m_bytes.get() + m_size}; }

    static constexpr unsigned char kUntouched = 0xEE;

private:
    unsigned long m_size;
    std::unique_ptr<unsigned char[]> m_bytes;
};

std::vector<unsigned char> Counted(unsigned long size) { return Buffer::Counting(size).Bytes(); }

std::vector<unsigned char> Reversed(std::vector<unsigned char> bytes) {
    std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

std::string Hex(unsigned long value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%lx", value);
    return text;
}

class RegisterBlock : public RegisterFixture {
protected:
    // Registers from kAddr on hold the bytes 1, 2, 3, ...
    void FillCard(unsigned long bytes) {
        for (unsigned long i = 0; i < bytes; ++i)
            hw.registers[kAddr + i / 4] |= static_cast<unsigned int>(i + 1) << (i % 4 * 8);
    }
    // The first bytes of the registers from kAddr on.
    std::vector<unsigned char> CardBytes(unsigned long size) {
        std::vector<unsigned char> bytes;
        for (unsigned long i = 0; i < size; ++i)
            bytes.push_back(static_cast<unsigned char>(hw.registers[kAddr + i / 4] >> (i % 4 * 8)));
        return bytes;
    }
};

// ---- block reads ----

TEST_F(RegisterBlock, ReadsTwelveBytesAsTwoFullWords) {
    hw.scripted[kAddr] = {0x0807060504030201};
    hw.scripted[kAddr + 2] = {0x100f0e0d0c0b0a09};
    Buffer buffer(12);

    EXPECT_EQ(drv.ReadBytes(kAddr, buffer.Get(), 12), 12);

    EXPECT_EQ(buffer.Bytes(), Counted(12));
    EXPECT_THAT(hw.TakeCalls(), ElementsAre("core_lock core1 -> 0", "read core1 0x408 0 64 -> 0 0x807060504030201",
                                            "read core1 0x410 0 64 -> 0 0x100f0e0d0c0b0a09", "core_unlock core1 -> 0"));
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(RegisterBlock, ReadsEveryLengthInWordsOf64BitsUnderOneLock) {
    FillCard(80);

    for (unsigned long size = 0; size <= 65; ++size) {
        Buffer buffer(size);

        EXPECT_EQ(drv.ReadBytes(kAddr, buffer.Get(), size), static_cast<long>(size));

        EXPECT_EQ(buffer.Bytes(), Counted(size));
        const Lines calls = hw.TakeCalls();
        ASSERT_EQ(calls.size(), 2 + (size + 7) / 8) << size;
        EXPECT_EQ(calls.front(), "core_lock core1 -> 0");
        EXPECT_EQ(calls.back(), "core_unlock core1 -> 0");
        for (unsigned long word = 0; word < (size + 7) / 8; ++word)
            EXPECT_THAT(calls[word + 1], testing::StartsWith("read core1 " + Hex(0x408 + word * 8) + " 0 64 ")) << size;
    }
}

TEST_F(RegisterBlock, AReadIntoNothingMovesNothing) {
    EXPECT_EQ(drv.ReadBytes(kAddr, nullptr, 8), 0);

    EXPECT_THAT(log.Take(), ElementsAre("ERROR Didn't inited in yet!"));
    EXPECT_THAT(hw.TakeCalls(), ElementsAre("core_lock core1 -> 0", "core_unlock core1 -> 0"));
}

TEST_F(RegisterBlock, AReadThatFailsAtAnyWordStopsThereAndKeepsWhatItHas) {
    FillCard(32);

    for (unsigned failing = 1; failing <= 3; ++failing) {
        Buffer buffer(20);
        hw.Fail("read", EIO, failing);

        EXPECT_EQ(drv.ReadBytes(kAddr, buffer.Get(), 20), -1);

        std::vector<unsigned char> expected(20, Buffer::kUntouched);
        const std::vector<unsigned char> delivered = Counted((failing - 1) * 8);
        std::copy(delivered.begin(), delivered.end(), expected.begin());
        EXPECT_EQ(buffer.Bytes(), expected) << failing;
        EXPECT_THAT(log.Take(), ElementsAre("ERROR Read value failed, addr:258")) << failing;
        EXPECT_EQ(hw.TakeCalls().size(), 2 + failing);
        EXPECT_FALSE(hw.Locked());
    }
}

TEST_F(RegisterBlock, AReadFailsForAnyNegativeResultOnly) {
    Buffer buffer(8);

    hw.Answer("read", -7, EIO);
    EXPECT_EQ(drv.ReadBytes(kAddr, buffer.Get(), 8), -1);
    hw.Answer("read", 1);
    EXPECT_EQ(drv.ReadBytes(kAddr, buffer.Get(), 8), 8);
}

TEST_F(RegisterBlock, AReadGivesTheLockBackWhenAnExceptionPasses) {
    hw.onReadWord = [](unsigned long, unsigned int&) -> int { throw std::runtime_error("card gone"); };
    Buffer buffer(8);

    EXPECT_THROW(drv.ReadBytes(kAddr, buffer.Get(), 8), std::runtime_error);

    EXPECT_FALSE(hw.Locked());
}

// ---- block writes ----

TEST_F(RegisterBlock, WritesThreeBytesAsOneAccessOf24Bits) {
    Buffer buffer = Buffer::Counting(3);

    EXPECT_EQ(drv.WriteBytes(kAddr, buffer.Get(), 3), 3);

    EXPECT_THAT(hw.TakeCalls(),
                ElementsAre("core_lock core1 -> 0", "write core1 0x408 0 24 0x30201 -> 0", "core_unlock core1 -> 0"));
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(RegisterBlock, WritesNothingForNoBytes) {
    Buffer buffer(0);

    EXPECT_EQ(drv.WriteBytes(kAddr, buffer.Get(), 0), 0);

    EXPECT_THAT(hw.TakeCalls(), ElementsAre("core_lock core1 -> 0", "core_unlock core1 -> 0"));
}

TEST_F(RegisterBlock, WritesEveryLengthInWordsOf64BitsAndANarrowTailUnderOneLock) {
    for (unsigned long size = 0; size <= 65; ++size) {
        Buffer buffer = Buffer::Counting(size);
        hw.registers.clear();

        EXPECT_EQ(drv.WriteBytes(kAddr, buffer.Get(), size), static_cast<long>(size));

        EXPECT_EQ(CardBytes(size), Counted(size));
        EXPECT_THAT(CardBytes(size + 8).back(), 0) << "a byte behind the block, at " << size;
        const Lines calls = hw.TakeCalls();
        ASSERT_EQ(calls.size(), 2 + (size + 7) / 8) << size;
        EXPECT_EQ(calls.front(), "core_lock core1 -> 0");
        EXPECT_EQ(calls.back(), "core_unlock core1 -> 0");
        for (unsigned long done = 0; done < size; done += 8) {
            const std::string width = std::to_string(std::min(size - done, 8UL) * 8);
            const std::string start = "write core1 " + Hex(0x408 + done) + " 0 " + width + ' ';
            EXPECT_THAT(calls[done / 8 + 1], testing::StartsWith(start)) << size;
        }
    }
}

TEST_F(RegisterBlock, AWriteOfNothingMovesNothing) {
    EXPECT_EQ(drv.WriteBytes(kAddr, nullptr, 8), 0);

    EXPECT_THAT(log.Take(), ElementsAre("ERROR Didn't inited out yet!"));
    EXPECT_THAT(hw.TakeCalls(), ElementsAre("core_lock core1 -> 0", "core_unlock core1 -> 0"));
}

TEST_F(RegisterBlock, AWriteThatFailsAtAFullWordStopsThereAndWhatWasWrittenStays) {
    for (unsigned failing = 1; failing <= 2; ++failing) {
        Buffer buffer = Buffer::Counting(19);
        hw.registers.clear();
        hw.Fail("write", EIO, failing);

        EXPECT_EQ(drv.WriteBytes(kAddr, buffer.Get(), 19), -1);

        std::vector<unsigned char> expected = Counted((failing - 1) * 8);
        expected.resize(24);
        EXPECT_EQ(CardBytes(24), expected) << failing;
        EXPECT_THAT(log.Take(), ElementsAre("ERROR write int8 failed, addr:258")) << failing;
        EXPECT_EQ(hw.TakeCalls().size(), 2 + failing);
        EXPECT_FALSE(hw.Locked());
    }
}

TEST_F(RegisterBlock, AWriteThatFailsAtItsTailSaysSoWithACapitalLetter) {
    Buffer buffer = Buffer::Counting(19);
    hw.Fail("write", EIO, 3);

    EXPECT_EQ(drv.WriteBytes(kAddr, buffer.Get(), 19), -1);

    EXPECT_EQ(CardBytes(16), Counted(16));
    EXPECT_THAT(log.Take(), ElementsAre("ERROR Write int8 failed, addr:258"));
    EXPECT_FALSE(hw.Locked());
}

TEST_F(RegisterBlock, AWriteFailsForAnyNegativeResultOnly) {
    Buffer buffer = Buffer::Counting(8);

    hw.Answer("write", -7, EIO);
    EXPECT_EQ(drv.WriteBytes(kAddr, buffer.Get(), 8), -1);
    hw.Answer("write", 1);
    EXPECT_EQ(drv.WriteBytes(kAddr, buffer.Get(), 8), 8);
}

TEST_F(RegisterBlock, AWriteGivesTheLockBackWhenAnExceptionPasses) {
    hw.onWriteWord = [](unsigned long, unsigned int) -> int { throw std::runtime_error("card gone"); };
    Buffer buffer(8);

    EXPECT_THROW(drv.WriteBytes(kAddr, buffer.Get(), 8), std::runtime_error);

    EXPECT_FALSE(hw.Locked());
}

// ---- big-endian fields of up to 128 bytes ----

TEST_F(RegisterBlock, AFieldIsReadLastByteFirst) {
    FillCard(3);
    Buffer buffer(3);

    EXPECT_EQ(drv.ReadLess128Bytes(kAddr, buffer.Get(), 3), 3);

    EXPECT_THAT(buffer.Bytes(), ElementsAre(3, 2, 1));
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(RegisterBlock, AFieldOfEveryLengthUpTo128IsReadReversed) {
    FillCard(128);

    for (unsigned long size = 0; size <= 128; ++size) {
        Buffer buffer(size);
        EXPECT_EQ(drv.ReadLess128Bytes(kAddr, buffer.Get(), size), static_cast<long>(size));
        EXPECT_EQ(buffer.Bytes(), Reversed(Counted(size)));
    }
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(RegisterBlock, AFieldOfEveryLengthUpTo128IsWrittenReversed) {
    for (unsigned long size = 0; size <= 128; ++size) {
        Buffer buffer = Buffer::Counting(size);
        EXPECT_EQ(drv.WriteLess128Bytes(kAddr, buffer.Get(), size), static_cast<long>(size));
        EXPECT_EQ(CardBytes(size), Reversed(Counted(size)));
        EXPECT_EQ(buffer.Bytes(), Counted(size)) << "the caller's bytes stay as they are";
    }
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(RegisterBlock, AFieldOf128BytesIsSixteenAccesses) {
    Buffer buffer(128);

    EXPECT_EQ(drv.WriteLess128Bytes(kAddr, buffer.Get(), 128), 128);
    EXPECT_EQ(drv.ReadLess128Bytes(kAddr, buffer.Get(), 128), 128);

    EXPECT_EQ(hw.Count("write"), 16u);
    EXPECT_EQ(hw.Count("read"), 16u);
}

TEST_F(RegisterBlock, AFieldOf129BytesIsRefusedWithoutTouchingTheCard) {
    Buffer buffer(129);

    EXPECT_EQ(drv.ReadLess128Bytes(kAddr, buffer.Get(), 129), 0);
    EXPECT_EQ(drv.WriteLess128Bytes(kAddr, buffer.Get(), 129), 0);

    EXPECT_THAT(log.Take(), ElementsAre(kTooLong, kTooLong));
    EXPECT_THAT(hw.TakeCalls(), IsEmpty());
    EXPECT_THAT(buffer.Bytes(), Each(Buffer::kUntouched));
}

TEST_F(RegisterBlock, AFieldWithoutABufferIsRefusedWithTheSameMessage) {
    EXPECT_EQ(drv.ReadLess128Bytes(kAddr, nullptr, 8), 0);
    EXPECT_EQ(drv.WriteLess128Bytes(kAddr, nullptr, 8), 0);

    EXPECT_THAT(log.Take(), ElementsAre(kTooLong, kTooLong));
    EXPECT_THAT(hw.TakeCalls(), IsEmpty());
}

TEST_F(RegisterBlock, AFieldWhoseReadFailsLeavesTheBuffer) {
    hw.Fail("read", EIO, 2);
    Buffer buffer(16);

    EXPECT_EQ(drv.ReadLess128Bytes(kAddr, buffer.Get(), 16), -1);

    EXPECT_THAT(log.Take(),
                ElementsAre("ERROR Read value failed, addr:258", "ERROR Read failed, should Read 16, now -1"));
    EXPECT_THAT(buffer.Bytes(), Each(Buffer::kUntouched));
}

TEST_F(RegisterBlock, AFieldWhoseWriteFailsReturnsThatResult) {
    hw.Fail("write", EIO);
    Buffer buffer(16);

    EXPECT_EQ(drv.WriteLess128Bytes(kAddr, buffer.Get(), 16), -1);

    EXPECT_THAT(log.Take(), ElementsAre("ERROR write int8 failed, addr:258"));
}

// A driver whose block operations are its own: what the field operations hand them.
class OwnBlocks : public CDrvEnyxReg {
public:
    long ReadBytes(unsigned long addr, unsigned char* buf, unsigned long len) override {
        Note(addr, buf, len);
        std::fill_n(buf, len, static_cast<unsigned char>(7));
        return result;
    }
    long WriteBytes(unsigned long addr, unsigned char* buf, unsigned long len) override {
        Note(addr, buf, len);
        return result;
    }

    long result = 0;
    unsigned long address = 0;
    unsigned long length = 0;
    std::vector<unsigned char> room;  // the 128 bytes handed over

private:
    void Note(unsigned long addr, const unsigned char* buf, unsigned long len) {
        address = addr;
        length = len;
        room.assign(buf, buf + 128);
    }
};

class OverriddenBlocks : public DrvFixture {
protected:
    OwnBlocks own;
};

TEST_F(OverriddenBlocks, ServeTheReadOfAField) {
    own.result = 3;
    Buffer buffer(3);

    EXPECT_EQ(own.ReadLess128Bytes(kAddr, buffer.Get(), 3), 3);

    EXPECT_EQ(own.address, kAddr);
    EXPECT_EQ(own.length, 3u);
    EXPECT_THAT(own.room, Each(0)) << "the room is zeroed";
    EXPECT_THAT(buffer.Bytes(), Each(7));
    EXPECT_THAT(hw.TakeCalls(), IsEmpty());
}

TEST_F(OverriddenBlocks, ServeTheWriteOfAField) {
    own.result = 99;
    Buffer buffer = Buffer::Counting(3);

    EXPECT_EQ(own.WriteLess128Bytes(kAddr, buffer.Get(), 3), 99) << "the result as it stands";

    std::vector<unsigned char> expected{3, 2, 1};
    expected.resize(128);
    EXPECT_EQ(own.room, expected);
    EXPECT_EQ(own.address, kAddr);
    EXPECT_EQ(own.length, 3u);
    EXPECT_THAT(hw.TakeCalls(), IsEmpty());
}

TEST_F(OverriddenBlocks, ThatReadTooFewBytesAreReportedAndTheBufferIsLeft) {
    own.result = 2;
    Buffer buffer(3);

    EXPECT_EQ(own.ReadLess128Bytes(kAddr, buffer.Get(), 3), 2);

    EXPECT_THAT(log.Take(), ElementsAre("ERROR Read failed, should Read 3, now 2"));
    EXPECT_THAT(buffer.Bytes(), Each(Buffer::kUntouched));
}

}  // namespace
