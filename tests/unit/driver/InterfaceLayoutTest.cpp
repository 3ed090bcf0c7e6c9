#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <type_traits>
#include <vector>

#include "src/driver/DmaStream.h"
#include "src/driver/IDrv.h"
#include "src/driver/IDrvDMA.h"
#include "src/driver/RegisterDriver.h"

// Other programs implement and call these interfaces through their virtual tables, so the order of the slots is part
// of the binary interface.
namespace {

// Position in the virtual table, counted from 1, as the C++ ABI of this platform encodes it in a member pointer. The
// two destructors hold the first two.
template <typename Member>
std::size_t Slot(Member member) {
    static_assert(sizeof(Member) >= sizeof(std::size_t));
    std::size_t offsetAndOne = 0;
    std::memcpy(&offsetAndOne, &member, sizeof offsetAndOne);
    EXPECT_EQ(offsetAndOne % 2, 1u) << "not virtual";
    return offsetAndOne / sizeof(void*) + 1;
}

TEST(RegisterInterface, KeepsTheOrderOfItsSlots) {
    EXPECT_EQ(Slot(&IDrv::Init), 3u);
    EXPECT_EQ(Slot(&IDrv::ReadInt8), 4u);
    EXPECT_EQ(Slot(&IDrv::ReadInt16), 5u);
    EXPECT_EQ(Slot(&IDrv::ReadInt32), 6u);
    EXPECT_EQ(Slot(&IDrv::ReadInt64), 7u);
    EXPECT_EQ(Slot(&IDrv::ReadLess128Bytes), 8u);
    EXPECT_EQ(Slot(&IDrv::ReadBytes), 9u);
    EXPECT_EQ(Slot(&IDrv::WriteInt8), 10u);
    EXPECT_EQ(Slot(&IDrv::WriteInt16), 11u);
    EXPECT_EQ(Slot(&IDrv::WriteInt32), 12u);
    EXPECT_EQ(Slot(&IDrv::WriteInt32_Log), 13u);
    EXPECT_EQ(Slot(&IDrv::WriteInt32_LogWithRead), 14u);
    EXPECT_EQ(Slot(&IDrv::WriteInt64), 15u);
    EXPECT_EQ(Slot(&IDrv::WriteLess128Bytes), 16u);
    EXPECT_EQ(Slot(&IDrv::WriteBytes), 17u);
}

TEST(StreamInterface, KeepsTheOrderOfItsSlots) {
    EXPECT_EQ(Slot(&IDrvDMA::Init), 3u);
    EXPECT_EQ(Slot(&IDrvDMA::Send), 4u);
    EXPECT_EQ(Slot(&IDrvDMA::RecvOnce), 5u);
    EXPECT_EQ(Slot(&IDrvDMA::RecvOnceCb), 6u);
    EXPECT_EQ(Slot(&IDrvDMA::RegisterHandler), 7u);
    EXPECT_EQ(Slot(&IDrvDMA::PollData), 8u);
}

// Checked by the compiler: an interface has no data, only its table, and is ended through it.
static_assert(sizeof(IDrv) == sizeof(void*) && sizeof(IDrvDMA) == sizeof(void*));
static_assert(std::is_abstract_v<IDrv> && std::is_abstract_v<IDrvDMA>);
static_assert(std::has_virtual_destructor_v<IDrv> && std::has_virtual_destructor_v<IDrvDMA>);
static_assert(std::is_same_v<decltype(&IDrv::Init), int (IDrv::*)(void*)>);
static_assert(std::is_same_v<decltype(&IDrv::ReadInt64), int (IDrv::*)(unsigned long, unsigned long&)>);
static_assert(std::is_same_v<decltype(&IDrv::ReadBytes), long (IDrv::*)(unsigned long, unsigned char*, unsigned long)>);
static_assert(std::is_same_v<decltype(&IDrv::WriteInt8), int (IDrv::*)(unsigned long, unsigned char)>);
static_assert(std::is_same_v<decltype(&IDrvDMA::Send), int (IDrvDMA::*)(void*, unsigned int)>);
static_assert(std::is_same_v<decltype(&IDrvDMA::RecvOnce), int (IDrvDMA::*)(void*, void*)>);
static_assert(std::is_same_v<decltype(&IDrvDMA::RegisterHandler), int (IDrvDMA::*)(void*, void*)>);
static_assert(std::is_same_v<DmaPacketHandler, void (*)(const unsigned char*, unsigned int, void*)>);

// Offsets of members in the order given, to be found ascending.
template <typename Object, typename... Members>
std::vector<std::size_t> Offsets(const Object& object, Members... members) {
    const auto* start = reinterpret_cast<const char*>(&object);
    return {static_cast<std::size_t>(reinterpret_cast<const char*>(&(object.*members)) - start)...};
}

bool IsStrictlyAscending(const std::vector<std::size_t>& offsets) {
    for (std::size_t i = 1; i < offsets.size(); ++i)
        if (offsets[i] <= offsets[i - 1]) return false;
    return true;
}

TEST(RegisterDriver, KeepsTheOrderOfItsFields) {
    const CDrvEnyxReg drv;

    EXPECT_EQ(Offsets(drv, &CDrvEnyxReg::m_lpCore, &CDrvEnyxReg::m_bInited), (std::vector<std::size_t>{8, 16}));
}

TEST(RegisterDriver, TakesARecordOfTwoSixteenBitNumbers) {
    const EnyxRegInitParms_t parms{};

    EXPECT_EQ(Offsets(parms, &EnyxRegInitParms_t::uiBusId, &EnyxRegInitParms_t::uiCoreId),
              (std::vector<std::size_t>{0, 2}));
    EXPECT_EQ(sizeof parms, 4u);
}

TEST(StreamDriver, KeepsTheOrderOfItsFields) {
    // Never ended: its end would log, and this test looks at the layout alone.
    alignas(CDrvDMAEnyx) static unsigned char room[sizeof(CDrvDMAEnyx)];
    const auto* dma = new (room) CDrvDMAEnyx;

    EXPECT_TRUE(IsStrictlyAscending(
        Offsets(*dma, &CDrvDMAEnyx::m_uiBusId, &CDrvDMAEnyx::m_strCfgName, &CDrvDMAEnyx::m_uiParm1,
                &CDrvDMAEnyx::m_uiParm2, &CDrvDMAEnyx::m_uiParm3, &CDrvDMAEnyx::m_bInited, &CDrvDMAEnyx::m_lpC2a,
                &CDrvDMAEnyx::m_lpA2c, &CDrvDMAEnyx::m_uiA2cMtu, &CDrvDMAEnyx::m_uiC2aMtu, &CDrvDMAEnyx::m_pfnHandler,
                &CDrvDMAEnyx::m_pHandlerCtx, &CDrvDMAEnyx::m_strDmaName, &CDrvDMAEnyx::m_iChannel)));
}

TEST(StreamDriver, TakesARecordOfBusNameAndThreeNumbers) {
    const EnyxDmaInitParms_t parms{};

    EXPECT_TRUE(IsStrictlyAscending(Offsets(parms, &EnyxDmaInitParms_t::uiBusId, &EnyxDmaInitParms_t::strName,
                                            &EnyxDmaInitParms_t::uiParm1, &EnyxDmaInitParms_t::uiParm2,
                                            &EnyxDmaInitParms_t::uiParm3)));
}

}  // namespace
