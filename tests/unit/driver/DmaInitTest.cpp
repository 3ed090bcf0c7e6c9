#include <cerrno>

#include "tests/unit/driver/DmaFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class DmaInit : public DmaFixture {
protected:
    // Streams of that name on the card, and a record that asks for them.
    void UseName(const std::string& name) {
        hw.a2cStreams = hw.c2aStreams = {name};
        record.strName = name;
    }
};

TEST_F(DmaInit, ANewDriverIsClosedAndEmpty) {
    EXPECT_EQ(dma->m_uiBusId, 0u);
    EXPECT_EQ(dma->m_strCfgName, "");
    EXPECT_FALSE(dma->m_bInited);
    EXPECT_EQ(dma->m_lpC2a, nullptr);
    EXPECT_EQ(dma->m_lpA2c, nullptr);
    EXPECT_EQ(dma->m_uiA2cMtu, 0u);
    EXPECT_EQ(dma->m_uiC2aMtu, 0u);
    EXPECT_EQ(dma->m_pfnHandler, nullptr);
    EXPECT_EQ(dma->m_pHandlerCtx, nullptr);
    EXPECT_EQ(dma->m_strDmaName, "");
}

TEST_F(DmaInit, OpensBothStreamsOfTheName) {
    EXPECT_EQ(dma->Init(&record), 0);

    EXPECT_THAT(
        hw.TakeCalls(),
        ElementsAre("filter_create -> filter2", "filter_set_name filter2 CUSTOM_CHAN0_DATA -> 0",
                    "accelerator_enumerate_a2c_streams acc0 filter2 1 -> 1 a2c_descriptor1",
                    "a2c_stream_create a2c_descriptor1 null -> a2c1", "free_a2c_stream_descriptors a2c_descriptor1 1",
                    "accelerator_enumerate_c2a_streams acc0 filter2 1 -> 1 c2a_descriptor1",
                    "c2a_stream_create c2a_descriptor1 null -> c2a1", "free_c2a_stream_descriptors c2a_descriptor1 1",
                    "filter_destroy filter2", "a2c_stream_get_mtu a2c1 -> 0 4096",
                    "c2a_stream_get_mtu c2a1 -> 0 2048"));
    EXPECT_THAT(log.Take(), ElementsAre("INFO Init dma channel :CUSTOM_CHAN0_DATA success."));
    EXPECT_THAT(hw.Live(), ElementsAre("a2c1", "c2a1"));
}

TEST_F(DmaInit, KeepsWhatItWasGivenAndWhatItFound) {
    hw.cards = 2;
    UseName("CUSTOM_CHAN7_DATA");
    record = {1, "CUSTOM_CHAN7_DATA", 11, 22, 33};

    EXPECT_EQ(dma->Init(&record), 0);

    EXPECT_EQ(dma->m_uiBusId, 1u);
    EXPECT_EQ(dma->m_strCfgName, "CUSTOM_CHAN7_DATA");
    EXPECT_EQ(dma->m_uiParm1, 11u);
    EXPECT_EQ(dma->m_uiParm2, 22u);
    EXPECT_EQ(dma->m_uiParm3, 33u);
    EXPECT_TRUE(dma->m_bInited);
    EXPECT_NE(dma->m_lpC2a, nullptr);
    EXPECT_NE(dma->m_lpA2c, nullptr);
    EXPECT_EQ(dma->m_uiA2cMtu, 4096u);
    EXPECT_EQ(dma->m_uiC2aMtu, 2048u);
    EXPECT_EQ(dma->m_strDmaName, "CUSTOM_CHAN7_DATA");
    EXPECT_EQ(dma->m_iChannel, 7);
    EXPECT_EQ(CDrvDMAEnyx::m_lpAcc.load(), DrvEnyxCoreGetAcc(1));
}

TEST_F(DmaInit, WithoutARecordFails) {
    EXPECT_EQ(dma->Init(nullptr), -1);

    EXPECT_THAT(log.Take(), ElementsAre("ERROR Init DMA param is NULL!"));
    EXPECT_THAT(hw.TakeCalls(), IsEmpty());
}

TEST_F(DmaInit, ANameWithoutChanFailsWithAnInfoLineAndOpensNothing) {
    for (const char* name : {"", "CUSTOM_DATA", "CUSTOM_chan0_DATA", "CHA", "C HAN0"}) {
        UseName(name);
        record.uiBusId = 5;

        EXPECT_EQ(dma->Init(&record), -1) << name;

        EXPECT_THAT(log.Take(), ElementsAre("INFO Extract dma channel fail.")) << name;
        EXPECT_EQ(dma->m_strCfgName, name);
        EXPECT_EQ(dma->m_uiBusId, 5u);
        EXPECT_FALSE(dma->m_bInited);
    }
    EXPECT_THAT(hw.TakeCalls(), IsEmpty());
}

struct ChannelRow {
    const char* name;
    int channel;
};

class ChannelNumber : public DmaInit, public testing::WithParamInterface<ChannelRow> {};

TEST_P(ChannelNumber, IsTheDecimalNumberBehindTheFirstChan) {
    UseName(GetParam().name);

    EXPECT_EQ(dma->Init(&record), 0);

    EXPECT_EQ(dma->m_iChannel, GetParam().channel);
}

INSTANTIATE_TEST_SUITE_P(DmaInit, ChannelNumber,
                         testing::Values(ChannelRow{"CUSTOM_CHAN0_DATA", 0}, ChannelRow{"CUSTOM_CHAN15_DATA", 15},
                                         ChannelRow{"CHAN12", 12}, ChannelRow{"CHANX", 0}, ChannelRow{"CHAN", 0},
                                         ChannelRow{"CHAN_3", 0}, ChannelRow{"CHAN010", 10},
                                         ChannelRow{"CHAN3_CHAN5", 3}, ChannelRow{"CHANCHAN5", 0},
                                         ChannelRow{"CHAN1x2", 1}, ChannelRow{"CHAN0x10", 0},
                                         ChannelRow{"CHAN2147483647", 2147483647}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(DmaInit, TheLowSixteenBitsOfTheBusIdChooseTheCard) {
    record.uiBusId = 0x20000;

    EXPECT_EQ(dma->Init(&record), 0);

    EXPECT_EQ(CDrvDMAEnyx::m_lpAcc.load(), DrvEnyxCoreGetAcc(0));
}

TEST_F(DmaInit, TheLastInitDecidesTheSharedAccelerator) {
    hw.cards = 2;
    CDrvDMAEnyx other;
    EnyxDmaInitParms_t second{1, "CUSTOM_CHAN1_DATA", 0, 64, 0};

    EXPECT_EQ(dma->Init(&record), 0);
    EXPECT_EQ(other.Init(&second), 0);

    EXPECT_EQ(CDrvDMAEnyx::m_lpAcc.load(), DrvEnyxCoreGetAcc(1));
}

TEST_F(DmaInit, ACardThatIsNotThereFailsAndIsNoLongerTheSharedAccelerator) {
    CDrvDMAEnyx before;
    EnyxDmaInitParms_t first{0, "CUSTOM_CHAN1_DATA", 0, 64, 0};
    ASSERT_EQ(before.Init(&first), 0);
    log.Take();
    DrvEnyxVarClear();
    hw.AnswerCount("enumerate_accelerators", 0, false, ENODEV);

    EXPECT_EQ(dma->Init(&record), -1);

    EXPECT_THAT(log.Take(),
                ElementsAre("ERROR Could not find accelerator. ernno:19, msg:No such device, get acc num:0.",
                            "ERROR Init Accelerator error!", "ERROR Init DMA error!"));
    EXPECT_EQ(CDrvDMAEnyx::m_lpAcc.load(), nullptr);
    EXPECT_EQ(hw.Count("filter_set_name"), 1u) << "that of the channel opened before";
}

TEST_F(DmaInit, ABusOfTenOrMoreFails) {
    record.uiBusId = 10;

    EXPECT_EQ(dma->Init(&record), -1);

    EXPECT_THAT(log.Take(),
                ElementsAre("ERROR Could not find accelerator. ernno:19, msg:No such device, get acc num:0.",
                            "ERROR Init Accelerator error!", "ERROR Init DMA error!"));
}

// ---- failures between the accelerator and the second MTU ----

constexpr char kSetName[] = "filter_set_name filter2 CUSTOM_CHAN0_DATA -> 0";
constexpr char kFindA2c[] = "accelerator_enumerate_a2c_streams acc0 filter2 1 -> 1 a2c_descriptor1";
constexpr char kOpenA2c[] = "a2c_stream_create a2c_descriptor1 null -> a2c1";
constexpr char kFreeA2c[] = "free_a2c_stream_descriptors a2c_descriptor1 1";
constexpr char kFindC2a[] = "accelerator_enumerate_c2a_streams acc0 filter2 1 -> 1 c2a_descriptor1";
constexpr char kOpenC2a[] = "c2a_stream_create c2a_descriptor1 null -> c2a1";
constexpr char kFreeC2a[] = "free_c2a_stream_descriptors c2a_descriptor1 1";
constexpr char kNewFilter[] = "filter_create -> filter2";
constexpr char kEndFilter[] = "filter_destroy filter2";

struct OpenFailure {
    const char* name;
    const char* call;
    int error;
    std::vector<std::string> lines;
    std::vector<std::string> calls;
    std::vector<std::string> stayOpen;
};

class OpenFailures : public DmaInit, public testing::WithParamInterface<OpenFailure> {
protected:
    void FailOnce() { hw.Fail(GetParam().call, GetParam().error); }
};

TEST_P(OpenFailures, AreLoggedAndReleaseAllButTheStreams) {
    FailOnce();

    EXPECT_EQ(dma->Init(&record), -1);

    Lines lines = GetParam().lines;
    lines.push_back("ERROR Init DMA error!");
    EXPECT_EQ(log.Take(), lines);
    EXPECT_EQ(hw.TakeCalls(), GetParam().calls);
    EXPECT_EQ(hw.Live(), GetParam().stayOpen);
    EXPECT_FALSE(dma->m_bInited);
}

TEST_P(OpenFailures, LeaveStreamsThatTheEndOfTheDriverDoesNotClose) {
    FailOnce();
    dma->Init(&record);
    hw.TakeCalls();
    log.Take();

    dma.reset();

    EXPECT_THAT(hw.TakeCalls(), IsEmpty());
    EXPECT_EQ(hw.Live(), GetParam().stayOpen);
    EXPECT_THAT(log.Take(), ElementsAre("INFO dma channel CUSTOM_CHAN0_DATA has released."));
}

INSTANTIATE_TEST_SUITE_P(
    DmaInit, OpenFailures,
    testing::Values(
        OpenFailure{"NoFilter",
                    "filter_create",
                    ENOMEM,
                    {"ERROR Could not create dma filter. err:Cannot allocate memory"},
                    {"filter_create -> null errno=12"},
                    {}},
        OpenFailure{"NoFilterName",
                    "filter_set_name",
                    EINVAL,
                    {"ERROR Could not set dma filter name: CUSTOM_CHAN0_DATA. err:Invalid argument"},
                    {kNewFilter, "filter_set_name filter2 CUSTOM_CHAN0_DATA -> -1 errno=22", kEndFilter},
                    {}},
        OpenFailure{
            "EnumerationOfA2cFails",
            "accelerator_enumerate_a2c_streams",
            EIO,
            {"ERROR Could not find a2c stream. dmaName:CUSTOM_CHAN0_DATA, err:Input/output error"},
            {kNewFilter, kSetName, "accelerator_enumerate_a2c_streams acc0 filter2 1 -> -1 errno=5", kEndFilter},
            {}},
        OpenFailure{"A2cIsHeldByAnotherProcess",
                    "a2c_stream_create",
                    EBUSY,
                    {"ERROR Could not create a2c stream.dmaName:CUSTOM_CHAN0_DATA,  err:Device or resource busy",
                     "ERROR Note !! A software program can only have one instance running at a time!"},
                    {kNewFilter, kSetName, kFindA2c, "a2c_stream_create a2c_descriptor1 null -> null errno=16",
                     kFreeA2c, kEndFilter},
                    {}},
        OpenFailure{"EnumerationOfC2aFails",
                    "accelerator_enumerate_c2a_streams",
                    EIO,
                    {"ERROR Could not find c2a stream. dmaName:CUSTOM_CHAN0_DATA, err:Input/output error"},
                    {kNewFilter, kSetName, kFindA2c, kOpenA2c, kFreeA2c,
                     "accelerator_enumerate_c2a_streams acc0 filter2 1 -> -1 errno=5", kEndFilter},
                    {"a2c1"}},
        OpenFailure{"C2aDoesNotOpen",
                    "c2a_stream_create",
                    EACCES,
                    {"ERROR Could not create c2a stream. dmaName:CUSTOM_CHAN0_DATA, err:Permission denied"},
                    {kNewFilter, kSetName, kFindA2c, kOpenA2c, kFreeA2c, kFindC2a,
                     "c2a_stream_create c2a_descriptor1 null -> null errno=13", kFreeC2a, kEndFilter},
                    {"a2c1"}},
        OpenFailure{"NoMtuOfA2c",
                    "a2c_stream_get_mtu",
                    EIO,
                    {"ERROR Could not get mtu.dmaName:CUSTOM_CHAN0_DATA, err:Input/output error"},
                    {kNewFilter, kSetName, kFindA2c, kOpenA2c, kFreeA2c, kFindC2a, kOpenC2a, kFreeC2a, kEndFilter,
                     "a2c_stream_get_mtu a2c1 -> -1 errno=5"},
                    {"a2c1", "c2a1"}},
        OpenFailure{"NoMtuOfC2a",
                    "c2a_stream_get_mtu",
                    EIO,
                    {"ERROR Could not get mtu.dmaName:CUSTOM_CHAN0_DATA, err:Input/output error"},
                    {kNewFilter, kSetName, kFindA2c, kOpenA2c, kFreeA2c, kFindC2a, kOpenC2a, kFreeC2a, kEndFilter,
                     "a2c_stream_get_mtu a2c1 -> 0 4096", "c2a_stream_get_mtu c2a1 -> -1 errno=5"},
                    {"a2c1", "c2a1"}}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(DmaInit, AnMtuCallWithAnyOtherResultThanZeroFails) {
    hw.Answer("c2a_stream_get_mtu", 1, EIO);

    EXPECT_EQ(dma->Init(&record), -1);

    EXPECT_FALSE(dma->m_bInited);
}

struct StreamCountRow {
    const char* name;
    const char* way;
    int count;
    unsigned freedDescriptors;
};

class StreamCount : public DmaInit, public testing::WithParamInterface<StreamCountRow> {};

TEST_P(StreamCount, OtherThanOneIsNotFound) {
    const std::string way = GetParam().way;
    hw.AnswerCount("accelerator_enumerate_" + way + "_streams", GetParam().count, GetParam().count > 0, ENODEV);

    EXPECT_EQ(dma->Init(&record), -1);

    EXPECT_THAT(log.Take(),
                ElementsAre("ERROR Could not find " + way + " stream. dmaName:CUSTOM_CHAN0_DATA, err:No such device",
                            "ERROR Init DMA error!"));
    EXPECT_EQ(hw.Count("free_" + way + "_stream_descriptors"), GetParam().freedDescriptors);
}

INSTANTIATE_TEST_SUITE_P(DmaInit, StreamCount,
                         testing::Values(StreamCountRow{"NoA2c", "a2c", 0, 0}, StreamCountRow{"TwoA2c", "a2c", 2, 1},
                                         StreamCountRow{"NoC2a", "c2a", 0, 0}, StreamCountRow{"TwoC2a", "c2a", 2, 1}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(DmaInit, AStreamThatThisProcessHoldsAlreadyIsRefused) {
    InitOk();
    CDrvDMAEnyx second;

    EXPECT_EQ(second.Init(&record), -1);

    EXPECT_THAT(log.Take(),
                ElementsAre("ERROR Could not create a2c stream.dmaName:CUSTOM_CHAN0_DATA,  err:Device or resource busy",
                            "ERROR Note !! A software program can only have one instance running at a time!",
                            "ERROR Init DMA error!"));
}

TEST_F(DmaInit, InitDmaAloneOpensTheStreamsOfItsName) {
    std::string name = "CUSTOM_CHAN9_DATA";

    EXPECT_EQ(dma->InitDma(name), 0);

    EXPECT_EQ(dma->m_strDmaName, "CUSTOM_CHAN9_DATA");
    EXPECT_EQ(dma->m_strCfgName, "");
    EXPECT_TRUE(dma->m_bInited);
    EXPECT_THAT(log.Take(), ElementsAre("INFO Init dma channel :CUSTOM_CHAN9_DATA success."));
}

}  // namespace
