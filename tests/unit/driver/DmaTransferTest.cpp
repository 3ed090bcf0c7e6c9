#include <cerrno>

#include "tests/unit/driver/DmaFixture.h"

namespace {

using test_support::FakeEnyxHw;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr std::int64_t kSecond = 1000000000;

// ---- sending ----

class DmaSend : public DmaFixture {
protected:
    DmaSend() { InitOk(); }
    int Send() { return dma->Send(data, sizeof data); }

    static constexpr char kFailed[] = "ERROR DMA(CUSTOM_CHAN0_DATA) Send failed. err:";
    unsigned char data[4] = {1, 2, 3, 4};
};

TEST_F(DmaSend, HandsTheBytesToTheStreamOnce) {
    EXPECT_EQ(Send(), 0);

    EXPECT_THAT(hw.TakeCalls(), ElementsAre("c2a_stream_send c2a1 4 -> 0"));
    EXPECT_THAT(hw.sent, ElementsAre(Pair("CUSTOM_CHAN0_DATA", ElementsAre(1, 2, 3, 4))));
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(DmaSend, TriesAgainWithoutSleepingWhileTheStreamIsBusy) {
    hw.sendResults = {EAGAIN, EAGAIN, EAGAIN};

    EXPECT_EQ(Send(), 0);

    EXPECT_THAT(hw.sent, testing::SizeIs(4));
    EXPECT_THAT(hw.sent, testing::Each(Pair("CUSTOM_CHAN0_DATA", ElementsAre(1, 2, 3, 4))));
    EXPECT_THAT(clock.Sleeps(), IsEmpty());
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(DmaSend, GivesUpOnceTheSecondsHaveAdvancedByThree) {
    hw.sendResult = EAGAIN;
    clock.SetStepPerRead(kSecond);

    EXPECT_EQ(Send(), -1);

    EXPECT_THAT(hw.sent, testing::SizeIs(4)) << "the first, and one in each of three seconds";
    EXPECT_THAT(log.Take(), ElementsAre(kFailed + std::string("Resource temporarily unavailable")));
}

TEST_F(DmaSend, CountsWholeSecondsOfTheClockNotElapsedTime) {
    hw.sendResult = EAGAIN;
    clock.SetEpoch(1740967200, kSecond * 9 / 10);
    clock.SetStepPerRead(kSecond / 10);

    EXPECT_EQ(Send(), -1);

    EXPECT_THAT(hw.sent, testing::SizeIs(1 + 21)) << "gives up 2.1 seconds after the start";
}

TEST_F(DmaSend, StillTriesAfterExactlyTwoSeconds) {
    hw.sendResults = {EAGAIN, EAGAIN, 0};
    clock.SetStepPerRead(kSecond);

    EXPECT_EQ(Send(), 0);

    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(DmaSend, ReportsASendThatGetsThroughAfterTheTimeAsFailed) {
    hw.sendResults = {EAGAIN, EAGAIN, EAGAIN, 0};
    clock.SetStepPerRead(kSecond);

    EXPECT_EQ(Send(), -1);

    EXPECT_THAT(hw.sent, testing::SizeIs(4));
    EXPECT_THAT(log.Take(), ElementsAre(kFailed + std::string("Resource temporarily unavailable")));
}

TEST_F(DmaSend, TheTimeOfTheFirstAttemptDoesNotCount) {
    hw.sendResults = {EAGAIN, 0};
    hw.onCall = [this](const char*) {
        if (hw.Count("c2a_stream_send") == 1) clock.Advance(60);
    };

    EXPECT_EQ(Send(), 0);
}

TEST_F(DmaSend, AnotherErrorFailsAtOnce) {
    hw.sendResult = EIO;

    EXPECT_EQ(Send(), -1);

    EXPECT_THAT(hw.TakeCalls(), ElementsAre("c2a_stream_send c2a1 4 -> 5 errno=5"));
    EXPECT_THAT(log.Take(), ElementsAre(kFailed + std::string("Input/output error")));
}

TEST_F(DmaSend, AnotherErrorEndsTheRetries) {
    hw.sendResults = {EAGAIN, EAGAIN, ENODEV};

    EXPECT_EQ(Send(), -1);

    EXPECT_THAT(hw.sent, testing::SizeIs(3));
    EXPECT_THAT(log.Take(), ElementsAre(kFailed + std::string("No such device")));
}

TEST_F(DmaSend, NamesTheConfiguredStream) {
    dma->m_strCfgName = "AS_CONFIGURED";
    hw.sendResult = EIO;

    EXPECT_EQ(Send(), -1);

    EXPECT_THAT(log.Take(), ElementsAre("ERROR DMA(AS_CONFIGURED) Send failed. err:Input/output error"));
}

TEST_F(DmaFixture, ASendWithoutAnOpenStreamFails) {
    unsigned char data[4] = {};

    EXPECT_EQ(dma->Send(data, 4), -1);

    EXPECT_THAT(log.Take(), ElementsAre("ERROR DMA() Send failed. err:Bad file descriptor"));
    EXPECT_THAT(hw.TakeCalls(), IsEmpty());
}

// ---- receiving ----

struct Received {
    FakeEnyxHw::Bytes bytes;
    unsigned int size;
    void* context;
};
std::vector<Received> g_received;

void Keep(const unsigned char* pkt, unsigned int len, void* ctx) { g_received.push_back({{pkt, pkt + len}, len, ctx}); }
void MustNotBeCalled(const unsigned char*, unsigned int, void*) { ADD_FAILURE() << "the wrong handler was called"; }

void* AsVoid(DmaPacketHandler handler) { return reinterpret_cast<void*>(handler); }

class DmaReceive : public DmaFixture {
protected:
    DmaReceive() {
        g_received.clear();
        InitOk();
        packets = &hw.packets[kName];
    }

    std::deque<FakeEnyxHw::Bytes>* packets;
    int context = 0;
};

TEST_F(DmaReceive, TheRegisteredHandlerGetsBytesLengthAndContext) {
    EXPECT_EQ(dma->RegisterHandler(AsVoid(Keep), &context), 0);
    packets->push_back({9, 8, 7});

    EXPECT_EQ(dma->RecvOnceCb(), 0);

    ASSERT_THAT(g_received, testing::SizeIs(1));
    EXPECT_THAT(g_received[0].bytes, ElementsAre(9, 8, 7));
    EXPECT_EQ(g_received[0].size, 3u);
    EXPECT_EQ(g_received[0].context, &context);
    EXPECT_THAT(hw.TakeCalls(), ElementsAre("a2c_stream_poll_once a2c1 -> 1"));
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(DmaReceive, WithNoPacketReadyNoHandlerIsCalledAndTheResultIsMinusOne) {
    dma->RegisterHandler(AsVoid(MustNotBeCalled), &context);

    EXPECT_EQ(dma->RecvOnceCb(), -1);

    EXPECT_THAT(hw.TakeCalls(), ElementsAre("a2c_stream_poll_once a2c1 -> 0"));
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(DmaReceive, OnePollHandsOverOnePacketInTheOrderOfArrival) {
    dma->RegisterHandler(AsVoid(Keep), nullptr);
    *packets = {{1}, {}, {3, 3, 3}};

    EXPECT_EQ(dma->PollData(), 0);
    EXPECT_THAT(g_received, testing::SizeIs(1));
    EXPECT_EQ(dma->PollData(), 0);
    EXPECT_EQ(dma->PollData(), 0);
    EXPECT_EQ(dma->PollData(), -1);

    ASSERT_THAT(g_received, testing::SizeIs(3));
    EXPECT_THAT(g_received[0].bytes, ElementsAre(1));
    EXPECT_THAT(g_received[1].bytes, IsEmpty());
    EXPECT_THAT(g_received[2].bytes, ElementsAre(3, 3, 3));
}

TEST_F(DmaReceive, AnyOtherResultThanOnePacketIsMinusOne) {
    dma->RegisterHandler(AsVoid(MustNotBeCalled), nullptr);

    for (const long result : {-1L, -5L, 0L, 2L}) {
        hw.Answer("a2c_stream_poll_once", result);
        EXPECT_EQ(dma->RecvOnceCb(), -1) << result;
    }
}

TEST_F(DmaReceive, WithoutARegisteredHandlerNothingIsPolled) {
    packets->push_back({1});

    EXPECT_EQ(dma->RecvOnceCb(), -1);
    EXPECT_EQ(dma->PollData(), -1);

    EXPECT_THAT(hw.TakeCalls(), IsEmpty());
    EXPECT_THAT(*packets, testing::SizeIs(1)) << "the packet waits for a handler";
}

TEST_F(DmaReceive, ALaterRegistrationReplacesHandlerAndContext) {
    int later = 0;
    dma->RegisterHandler(AsVoid(MustNotBeCalled), &context);

    EXPECT_EQ(dma->RegisterHandler(AsVoid(Keep), &later), 0);
    packets->push_back({1});
    dma->RecvOnceCb();

    ASSERT_THAT(g_received, testing::SizeIs(1));
    EXPECT_EQ(g_received[0].context, &later);
}

TEST_F(DmaReceive, RecvOnceUsesTheHandlerItIsGiven) {
    int given = 0;
    dma->RegisterHandler(AsVoid(MustNotBeCalled), &context);
    packets->push_back({4, 5});

    EXPECT_EQ(dma->RecvOnce(AsVoid(Keep), &given), 1);

    ASSERT_THAT(g_received, testing::SizeIs(1));
    EXPECT_THAT(g_received[0].bytes, ElementsAre(4, 5));
    EXPECT_EQ(g_received[0].context, &given);
    EXPECT_EQ(dma->m_pHandlerCtx, &context) << "the registered one stays";
}

TEST_F(DmaReceive, RecvOnceReturnsTheResultUnchanged) {
    EXPECT_EQ(dma->RecvOnce(AsVoid(MustNotBeCalled), nullptr), 0);
    for (const long result : {-1L, -7L, 2L}) {
        hw.Answer("a2c_stream_poll_once", result);
        EXPECT_EQ(dma->RecvOnce(AsVoid(MustNotBeCalled), nullptr), result);
    }
}

TEST_F(DmaReceive, PollDataGoesThroughTheVirtualRecvOnceCb) {
    class Replaced : public CDrvDMAEnyx {
    public:
        int RecvOnceCb() override { return 42; }
    } replaced;
    IDrvDMA& throughTheInterface = replaced;

    EXPECT_EQ(throughTheInterface.PollData(), 42);
}

TEST_F(DmaFixture, PollingAClosedDriverFindsNothing) {
    dma->RegisterHandler(AsVoid(MustNotBeCalled), nullptr);

    EXPECT_EQ(dma->RecvOnceCb(), -1);
    EXPECT_EQ(dma->PollData(), -1);
    EXPECT_EQ(dma->RecvOnce(AsVoid(MustNotBeCalled), nullptr), 0);

    EXPECT_THAT(hw.TakeCalls(), IsEmpty());
}

}  // namespace
