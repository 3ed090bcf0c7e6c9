#include <cerrno>
#include <functional>
#include <limits>
#include <stdexcept>

#include "tests/unit/driver/DrvFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned long kAddr = 0x102;

// ---- reads ----

struct ReadRow {
    const char* name;
    std::function<int(IDrv&, unsigned long addr, std::uint64_t& value)> read;
    int width;
    std::uint64_t lowBits;  // of 0xfedcba9876543210
    const char* failure;    // at kAddr, with errno EIO
};

template <typename T>
std::function<int(IDrv&, unsigned long, std::uint64_t&)> Through(int (IDrv::*op)(unsigned long, T&)) {
    return [op](IDrv& drv, unsigned long addr, std::uint64_t& value) {
        T narrow = static_cast<T>(value);
        const int result = (drv.*op)(addr, narrow);
        value = narrow;
        return result;
    };
}

class SingleRead : public RegisterFixture, public testing::WithParamInterface<ReadRow> {
protected:
    int Read(unsigned long addr, std::uint64_t& value) { return GetParam().read(drv, addr, value); }
    std::string ReadCall(const std::string& rest) const {
        return "read core1 0x408 0 " + std::to_string(GetParam().width) + " -> " + rest;
    }
};

TEST_P(SingleRead, TakesTheLowBitsOfOneLockedAccess) {
    hw.scripted[kAddr] = {0xfedcba9876543210};
    std::uint64_t value = 0;

    EXPECT_EQ(Read(kAddr, value), 0);

    EXPECT_EQ(value, GetParam().lowBits);
    EXPECT_THAT(hw.TakeCalls(),
                ElementsAre("core_lock core1 -> 0", ReadCall("0 0xfedcba9876543210"), "core_unlock core1 -> 0"));
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_P(SingleRead, ThatFailsLeavesTheOutputAndUnlocks) {
    hw.Fail("read", EIO);
    std::uint64_t value = 0x5A;

    EXPECT_EQ(Read(kAddr, value), -1);

    EXPECT_EQ(value, 0x5Au);
    EXPECT_THAT(log.Take(), ElementsAre(GetParam().failure));
    EXPECT_THAT(hw.TakeCalls(), ElementsAre("core_lock core1 -> 0", ReadCall("-1 errno=5"), "core_unlock core1 -> 0"));
}

TEST_P(SingleRead, FailsForAnyNegativeResultOnly) {
    std::uint64_t value = 0x5A;

    hw.Answer("read", -5, EIO);
    EXPECT_EQ(Read(kAddr, value), -1);
    hw.Answer("read", 1);
    EXPECT_EQ(Read(kAddr, value), 0);

    EXPECT_THAT(log.Take(), ElementsAre(GetParam().failure));
}

TEST_P(SingleRead, GivesTheLockBackWhenAnExceptionPasses) {
    hw.onReadWord = [](unsigned long, unsigned int&) -> int { throw std::runtime_error("card gone"); };
    std::uint64_t value = 0;

    EXPECT_THROW(Read(kAddr, value), std::runtime_error);

    EXPECT_FALSE(hw.Locked());
}

INSTANTIATE_TEST_SUITE_P(RegisterAccess, SingleRead,
                         testing::Values(ReadRow{"Int8", Through<unsigned char>(&IDrv::ReadInt8), 8, 0x10,
                                                 "ERROR read int8 failed, addr:258"},
                                         ReadRow{"Int16", Through<unsigned short>(&IDrv::ReadInt16), 16, 0x3210,
                                                 "ERROR read int16 failed, addr:258"},
                                         ReadRow{"Int32", Through<unsigned int>(&IDrv::ReadInt32), 32, 0x76543210,
                                                 "ERROR read int32 failed, addr[0x102], errmsg:Input/output error."},
                                         ReadRow{"Int64", Through<unsigned long>(&IDrv::ReadInt64), 64,
                                                 0xfedcba9876543210, "ERROR read int64 failed, addr[0x102] "}),
                         [](const auto& row) { return std::string(row.param.name); });

// ---- writes ----

struct WriteRow {
    const char* name;
    std::function<int(IDrv&, unsigned long addr, std::uint64_t value)> write;
    int width;
    const char* lowBits;  // of 0xfedcba9876543210
    const char* failure;  // of writing that to kAddr, with errno EIO
};

template <typename T>
std::function<int(IDrv&, unsigned long, std::uint64_t)> Through(int (IDrv::*op)(unsigned long, T)) {
    return [op](IDrv& drv, unsigned long addr, std::uint64_t value) { return (drv.*op)(addr, static_cast<T>(value)); };
}

class SingleWrite : public RegisterFixture, public testing::WithParamInterface<WriteRow> {
protected:
    int Write() { return GetParam().write(drv, kAddr, 0xfedcba9876543210); }
    std::string WriteCall(const std::string& result) const {
        return "write core1 0x408 0 " + std::to_string(GetParam().width) + ' ' + GetParam().lowBits + " -> " + result;
    }
};

TEST_P(SingleWrite, PassesItsWidthInOneLockedAccessAndSaysNothing) {
    EXPECT_EQ(Write(), 0);

    EXPECT_THAT(hw.TakeCalls(), ElementsAre("core_lock core1 -> 0", WriteCall("0"), "core_unlock core1 -> 0"));
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_P(SingleWrite, ThatFailsIsLoggedAndUnlocks) {
    hw.Fail("write", EIO);

    EXPECT_EQ(Write(), -1);

    EXPECT_THAT(log.Take(), ElementsAre(GetParam().failure));
    EXPECT_THAT(hw.TakeCalls(), ElementsAre("core_lock core1 -> 0", WriteCall("-1 errno=5"), "core_unlock core1 -> 0"));
}

TEST_P(SingleWrite, FailsForAnyNegativeResultOnly) {
    hw.Answer("write", -5, EIO);
    EXPECT_EQ(Write(), -1);
    hw.Answer("write", 1);
    EXPECT_EQ(Write(), 0);

    EXPECT_THAT(log.Take(), ElementsAre(GetParam().failure));
}

TEST_P(SingleWrite, GivesTheLockBackWhenAnExceptionPasses) {
    hw.onWriteWord = [](unsigned long, unsigned int) -> int { throw std::runtime_error("card gone"); };

    EXPECT_THROW(Write(), std::runtime_error);

    EXPECT_FALSE(hw.Locked());
}

INSTANTIATE_TEST_SUITE_P(
    RegisterAccess, SingleWrite,
    testing::Values(WriteRow{"Int8", Through<unsigned char>(&IDrv::WriteInt8), 8, "0x10",
                             "ERROR write int8 failed, addr:258"},
                    WriteRow{"Int16", Through<unsigned short>(&IDrv::WriteInt16), 16, "0x3210",
                             "ERROR write int16 failed, addr:258"},
                    WriteRow{"Int32", Through<unsigned int>(&IDrv::WriteInt32), 32, "0x76543210",
                             "ERROR Write int32 failed, addr[0x102] value[0x76543210], errmsg:Input/output error."},
                    WriteRow{"Int32Log", Through<unsigned int>(&IDrv::WriteInt32_Log), 32, "0x76543210",
                             "ERROR Write int32 failed, addr[0x102] value[0x76543210], errmsg:Input/output error."},
                    WriteRow{"Int64", Through<unsigned long>(&IDrv::WriteInt64), 64, "0xfedcba9876543210",
                             "ERROR write int64 failed, addr:258"}),
    [](const auto& row) { return std::string(row.param.name); });

// ---- write with read-back ----

class WriteWithRead : public RegisterFixture {
protected:
    static constexpr char kWriteFailed[] =
        "ERROR Write int32 failed, addr[0x102] value[0x76543210], errmsg:Input/output error.";
    static constexpr char kReadFailed[] = "ERROR ReadReg int32 failed, addr[0x102], errmsg:No such device.";

    int Write() { return drv.WriteInt32_LogWithRead(kAddr, 0x76543210); }
};

TEST_F(WriteWithRead, WritesAndReadsBackUnderOneLockAndSaysNothing) {
    EXPECT_EQ(Write(), 0);

    EXPECT_THAT(hw.TakeCalls(), ElementsAre("core_lock core1 -> 0", "write core1 0x408 0 32 0x76543210 -> 0",
                                            "read core1 0x408 0 32 -> 0 0x76543210", "core_unlock core1 -> 0"));
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(WriteWithRead, SucceedsWhenOnlyTheWriteFailed) {
    hw.Fail("write", EIO);

    EXPECT_EQ(Write(), 0);

    EXPECT_THAT(log.Take(), ElementsAre(kWriteFailed));
    EXPECT_THAT(hw.TakeCalls(), ElementsAre("core_lock core1 -> 0", "write core1 0x408 0 32 0x76543210 -> -1 errno=5",
                                            "read core1 0x408 0 32 -> 0 0x0", "core_unlock core1 -> 0"));
}

TEST_F(WriteWithRead, FailsWhenTheReadBackFails) {
    hw.Fail("read", ENODEV);

    EXPECT_EQ(Write(), -1);

    EXPECT_THAT(log.Take(), ElementsAre(kReadFailed));
    EXPECT_EQ(hw.registers[kAddr], 0x76543210u);
    EXPECT_FALSE(hw.Locked());
}

TEST_F(WriteWithRead, LogsBothFailures) {
    hw.Fail("write", EIO);
    hw.Fail("read", ENODEV);

    EXPECT_EQ(Write(), -1);

    EXPECT_THAT(log.Take(), ElementsAre(kWriteFailed, kReadFailed));
    EXPECT_FALSE(hw.Locked());
}

TEST_F(WriteWithRead, DoesNotCompareWhatItReadBack) {
    hw.scripted[kAddr] = {0};

    EXPECT_EQ(Write(), 0);

    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(WriteWithRead, GivesTheLockBackWhenAnExceptionPassesTheReadBack) {
    hw.onReadWord = [](unsigned long, unsigned int&) -> int { throw std::runtime_error("card gone"); };

    EXPECT_THROW(Write(), std::runtime_error);

    EXPECT_FALSE(hw.Locked());
}

// ---- addresses and values ----

using RegisterAccess = RegisterFixture;

TEST_F(RegisterAccess, AWordIndexIsAQuarterOfTheByteAddress) {
    const std::pair<unsigned long, const char*> addresses[] = {{0, "0x0"},
                                                               {1, "0x4"},
                                                               {0x102, "0x408"},
                                                               {0x12003, "0x4800c"},
                                                               {0x3fffffff, "0xfffffffc"},
                                                               {0x40000000, "0x100000000"},
                                                               {0xffffffff, "0x3fffffffc"}};

    for (const auto& [word, bytes] : addresses) {
        unsigned int value = 0;
        EXPECT_EQ(drv.ReadInt32(word, value), 0);
        EXPECT_EQ(drv.WriteInt32(word, 0), 0);
        const Lines calls = hw.TakeCalls();
        ASSERT_EQ(calls.size(), 6u);
        EXPECT_EQ(calls[1], std::string("read core1 ") + bytes + " 0 32 -> 0 0x0");
        EXPECT_EQ(calls[4], std::string("write core1 ") + bytes + " 0 32 0x0 -> 0");
    }
}

TEST_F(RegisterAccess, TheWidestValueOfEachWidthPassesUnchanged) {
    drv.WriteInt8(0x10, std::numeric_limits<unsigned char>::max());
    drv.WriteInt16(0x10, std::numeric_limits<unsigned short>::max());
    drv.WriteInt32(0x10, std::numeric_limits<unsigned int>::max());
    drv.WriteInt64(0x10, std::numeric_limits<unsigned long>::max());

    const Lines calls = hw.TakeCalls();
    ASSERT_EQ(calls.size(), 12u);
    EXPECT_EQ(calls[1], "write core1 0x40 0 8 0xff -> 0");
    EXPECT_EQ(calls[4], "write core1 0x40 0 16 0xffff -> 0");
    EXPECT_EQ(calls[7], "write core1 0x40 0 32 0xffffffff -> 0");
    EXPECT_EQ(calls[10], "write core1 0x40 0 64 0xffffffffffffffff -> 0");
}

TEST_F(RegisterAccess, WhatWasWrittenIsReadBack) {
    unsigned long value = 0;

    EXPECT_EQ(drv.WriteInt64(0x2000, 0x1122334455667788), 0);
    EXPECT_EQ(drv.ReadInt64(0x2000, value), 0);

    EXPECT_EQ(value, 0x1122334455667788u);
    EXPECT_EQ(hw.registers[0x2000], 0x55667788u) << "the low word at the lower address";
}

}  // namespace
