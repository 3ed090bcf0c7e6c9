#include <cerrno>

#include "tests/unit/driver/DmaFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kReleased[] = "INFO dma channel CUSTOM_CHAN0_DATA has released.";

class DmaClose : public DmaFixture {
protected:
    void InitAndClose() {
        InitOk();
        dma.reset();
    }
};

TEST_F(DmaClose, ReportsTheCountersAndClosesBothStreams) {
    hw.counters[kName] = {0, 22, 33, 44};

    InitAndClose();

    EXPECT_THAT(
        hw.TakeCalls(),
        ElementsAre("a2c_stream_stats_get_backpressure a2c1 -> 0 0", "a2c_stream_stats_get_packet_count a2c1 -> 0 22",
                    "a2c_stream_stats_get_fifo_errors a2c1 -> 0 33", "a2c_stream_stats_get_errors a2c1 -> 0 44",
                    "a2c_stream_destroy a2c1", "c2a_stream_destroy c2a1"));
    EXPECT_THAT(log.Take(), ElementsAre("INFO [channel:0] DMA count info: backpress:0, dma2soft:22, fifo:33, "
                                        "error:44.",
                                        kReleased));
    EXPECT_THAT(hw.Live(), IsEmpty());
    EXPECT_EQ(CDrvDMAEnyx::m_lpAcc.load(), nullptr);
}

TEST_F(DmaClose, WarnsOfBackPressure) {
    hw.counters[kName] = {1, 2, 3, 4};

    InitAndClose();

    EXPECT_THAT(log.Take(), ElementsAre("INFO [channel:0] DMA count info: backpress:1, dma2soft:2, fifo:3, error:4.",
                                        "WARN Back pressure happens! may loss some data !", kReleased));
}

TEST_F(DmaClose, PrintsTheLargestCountersUnsignedAndTheChannelOfTheName) {
    record.strName = "CUSTOM_CHAN15_DATA";
    hw.counters["CUSTOM_CHAN15_DATA"] = {4294967295, 4294967295, 4294967295, 4294967295};

    InitAndClose();

    EXPECT_THAT(log.Take(), ElementsAre("INFO [channel:15] DMA count info: backpress:4294967295, dma2soft:4294967295, "
                                        "fifo:4294967295, error:4294967295.",
                                        "WARN Back pressure happens! may loss some data !",
                                        "INFO dma channel CUSTOM_CHAN15_DATA has released."));
}

struct CounterRow {
    const char* name;
    const char* call;
    const char* failure;
    const char* report;  // of the counters 11, 22, 33, 44 without that one
    bool isBackPressureKnown;
};

class UnreadableCounter : public DmaClose, public testing::WithParamInterface<CounterRow> {};

TEST_P(UnreadableCounter, IsSaidAndCountsAsZeroAndTheStreamsAreClosed) {
    hw.counters[kName] = {11, 22, 33, 44};
    hw.Fail(GetParam().call, EIO);

    InitAndClose();

    Lines lines{GetParam().failure, GetParam().report};
    if (GetParam().isBackPressureKnown) lines.push_back("WARN Back pressure happens! may loss some data !");
    lines.push_back(kReleased);
    EXPECT_EQ(log.Take(), lines);
    EXPECT_THAT(hw.Live(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    DmaClose, UnreadableCounter,
    testing::Values(
        CounterRow{"BackPressure", "a2c_stream_stats_get_backpressure", "INFO get a2c stream backpress num fail.",
                   "INFO [channel:0] DMA count info: backpress:0, dma2soft:22, fifo:33, error:44.", false},
        CounterRow{"PacketCount", "a2c_stream_stats_get_packet_count", "INFO get a2c stream packet count fail.",
                   "INFO [channel:0] DMA count info: backpress:11, dma2soft:0, fifo:33, error:44.", true},
        CounterRow{"FifoErrors", "a2c_stream_stats_get_fifo_errors", "INFO get a2c stream fifo count fail.",
                   "INFO [channel:0] DMA count info: backpress:11, dma2soft:22, fifo:0, error:44.", true},
        CounterRow{"ErrorsWithTheTextOfTheFifo", "a2c_stream_stats_get_errors", "INFO get a2c stream fifo count fail.",
                   "INFO [channel:0] DMA count info: backpress:11, dma2soft:22, fifo:33, error:0.", true}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(DmaClose, SaysEachOfFourUnreadableCounters) {
    for (const char* call : {"a2c_stream_stats_get_backpressure", "a2c_stream_stats_get_packet_count",
                             "a2c_stream_stats_get_fifo_errors", "a2c_stream_stats_get_errors"})
        hw.Fail(call, EIO);

    InitAndClose();

    EXPECT_THAT(log.Take(),
                ElementsAre("INFO get a2c stream backpress num fail.", "INFO get a2c stream packet count fail.",
                            "INFO get a2c stream fifo count fail.", "INFO get a2c stream fifo count fail.",
                            "INFO [channel:0] DMA count info: backpress:0, dma2soft:0, fifo:0, error:0.", kReleased));
}

TEST_F(DmaClose, ANeverInitedDriverReadsNoCountersAndClosesNothing) {
    dma.reset();

    EXPECT_THAT(log.Take(), ElementsAre("INFO dma channel  has released."));
    EXPECT_THAT(hw.TakeCalls(), IsEmpty());
}

TEST_F(DmaClose, ANeverInitedDriverForgetsTheOpenCardToo) {
    dma.reset();

    EXPECT_NE(DrvEnyxCoreGetAcc(0), nullptr);

    EXPECT_EQ(hw.Count("accelerator_get"), 2u);
}

TEST_F(DmaClose, ANeverInitedDriverLeavesTheSharedAcceleratorAlone) {
    InitOk();
    enyx_hw_accelerator* const acc = CDrvDMAEnyx::m_lpAcc;

    { const CDrvDMAEnyx neverInited; }

    EXPECT_EQ(CDrvDMAEnyx::m_lpAcc.load(), acc);
}

TEST_F(DmaClose, TheCardIsOpenedAndResetAgainAfterwards) {
    enyx_hw_core* core = nullptr;
    EXPECT_EQ(DrvEnyxGetCore(0, 474, &core, 1), 1);

    InitAndClose();
    EXPECT_EQ(DrvEnyxGetCore(0, 474, &core, 1), 1);

    EXPECT_EQ(hw.Count("accelerator_get"), 2u);
    EXPECT_EQ(hw.Count("core_reset"), 2u);
    EXPECT_EQ(hw.Count("mmio_destroy"), 0u);
}

TEST_F(DmaClose, TheStreamsCanBeOpenedAgainAfterwards) {
    InitAndClose();
    CDrvDMAEnyx second;

    EXPECT_EQ(second.Init(&record), 0);
}

TEST_F(DmaClose, HappensThroughTheInterface) {
    InitOk();
    std::unique_ptr<IDrvDMA> throughTheInterface = std::move(dma);

    throughTheInterface.reset();

    EXPECT_THAT(hw.Live(), IsEmpty());
}

}  // namespace
