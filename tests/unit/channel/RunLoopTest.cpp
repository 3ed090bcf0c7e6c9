#include "src/log/elog.h"
#include "tests/support/Child.h"
#include "tests/unit/channel/ChannelFixture.h"

#include <pthread.h>

#include <stdexcept>

namespace {

using test_support::FakeDma;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

/// A channel that has a stream; the stream's packets go to the application.
class RunLoop : public PacketTest {
protected:
    RunLoop() : dma(MakeDma()) {}
    FakeDma& dma;
};

// ---- PollOnce ----

TEST_F(RunLoop, PollWithoutAPacketReturns0) {
    EXPECT_EQ(channel->PollOnce(), 0);
    EXPECT_EQ(dma.polls, 1);
}

TEST_F(RunLoop, PollHandsItsEntryAndItselfToTheStream) {
    channel->PollOnce();

    EXPECT_EQ(dma.lastHandler, &CZceDmaChanImpl::DmaEntrance);
    EXPECT_EQ(dma.lastContext, channel.get());
}

TEST_F(RunLoop, PollReturns1OnceForADeliveredPacket) {
    dma.packets.push_back(Packet(17, 64));

    EXPECT_EQ(channel->PollOnce(), 1);
    EXPECT_EQ(channel->PollOnce(), 0);
}

TEST_F(RunLoop, PollTakesOnePacketAtATime) {
    dma.packets = {Packet(17, 64), Packet(18, 64)};

    channel->PollOnce();

    EXPECT_THAT(spi.calls, ElementsAre(Pair(17, testing::_)));
}

TEST_F(RunLoop, PollReturns1WhateverTheCallbackReturned) {
    for (const int result : {-1, 0, 1, 4711}) {
        spi.result = result;
        dma.packets.push_back(Packet(20, 64));
        EXPECT_EQ(channel->PollOnce(), 1) << result;
    }
}

TEST_F(RunLoop, PollOfAContractMapPacketReturns0) {
    dma.packets.push_back(MapPacket().Add("SR505", 7).Bytes());

    EXPECT_EQ(channel->PollOnce(), 0);
    EXPECT_EQ(channel->m_mapInstIdx.count("SR505"), 1U);
}

TEST_F(RunLoop, PollOfARejectedPacketReturns0) {
    dma.packets = {Packet(21, 64), Packet(17, 11), Packet(17, 3)};

    for (int i = 0; i < 3; ++i) EXPECT_EQ(channel->PollOnce(), 0);
    EXPECT_THAT(spi.calls, IsEmpty());
}

// ---- exceptions of a callback ----

TEST_F(RunLoop, ExceptionOfACallbackLeavesThroughThePoll) {
    spi.onCall = [](const unsigned char*) { throw std::runtime_error("application failed"); };
    dma.packets.push_back(Packet(17, 64));

    try {
        channel->PollOnce();
        FAIL() << "nothing was thrown";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "application failed");
    }
    EXPECT_FALSE(dma.unwound);
}

TEST_F(RunLoop, ExceptionOfAnyTypeLeavesThroughThePoll) {
    spi.onCall = [](const unsigned char*) { throw 42; };
    dma.packets.push_back(Packet(18, 64));

    EXPECT_THROW(channel->PollOnce(), int);
}

TEST_F(RunLoop, NothingIsLostBehindAnException) {
    spi.onCall = [this](const unsigned char*) {
        if (spi.calls.size() == 1) throw std::runtime_error("application failed");
    };
    dma.packets = {Packet(17, 64), Packet(18, 64), Packet(19, 64)};

    EXPECT_THROW(channel->PollOnce(), std::runtime_error);

    EXPECT_EQ(channel->PollOnce(), 1);
    EXPECT_EQ(channel->PollOnce(), 1);
    EXPECT_EQ(channel->PollOnce(), 0);
    EXPECT_THAT(spi.calls, ElementsAre(Pair(17, testing::_), Pair(18, testing::_), Pair(19, testing::_)));
}

TEST_F(RunLoop, ExceptionThatWasThrownOnIsNotThrownAgain) {
    spi.onCall = [](const unsigned char*) { throw std::runtime_error("application failed"); };
    dma.packets.push_back(Packet(17, 64));
    EXPECT_THROW(channel->PollOnce(), std::runtime_error);

    EXPECT_NO_THROW(channel->PollOnce());
}

// The end of a thread unwinds it as an exception does; one that was swallowed would end the process.
TEST_F(RunLoop, CallbackMayEndItsThread) {
    int last = 0;
    spi.onCall = [&](const unsigned char*) { ::pthread_exit(&last); };
    dma.packets.push_back(Packet(17, 64));
    pthread_t thread{};
    const auto poll = [](void* self) -> void* {
        static_cast<CZceDmaChanImpl*>(self)->PollOnce();
        return nullptr;
    };
    ASSERT_EQ(::pthread_create(&thread, nullptr, poll, channel.get()), 0);
    void* result = nullptr;
    ASSERT_EQ(::pthread_join(thread, &result), 0);

    EXPECT_EQ(result, &last);
    EXPECT_TRUE(dma.unwound);
}

// ---- KeepRecv ----

void NeverCalled(const unsigned char*, unsigned int, void*) { FAIL() << "packets go the usual way"; }

TEST_F(RunLoop, BlockingLoopNeedsAHandler) {
    bool run = true;

    EXPECT_EQ(channel->KeepRecv(nullptr, &run, nullptr), -1);

    ExpectTimeline({"Invalid parameter. "});
    EXPECT_EQ(dma.polls, 0);
}

TEST_F(RunLoop, BlockingLoopNeedsARunFlag) {
    EXPECT_EQ(channel->KeepRecv(NeverCalled, nullptr, this), -1);

    ExpectTimeline({"Invalid parameter. "});
    EXPECT_EQ(channel->m_pfnHandler, nullptr);
    EXPECT_EQ(channel->m_pHandlerCtx, nullptr);
    EXPECT_EQ(dma.registeredHandler, nullptr);
}

TEST_F(RunLoop, BlockingLoopPollsUntilTheFlagFalls) {
    bool run = true;
    dma.onPoll = [&] { run = dma.polls < 3; };

    EXPECT_EQ(channel->KeepRecv(NeverCalled, &run, this), 0);

    EXPECT_EQ(dma.polls, 3);
}

TEST_F(RunLoop, BlockingLoopWithAFallenFlagOnlyRegisters) {
    bool run = false;

    EXPECT_EQ(channel->KeepRecv(NeverCalled, &run, this), 0);

    EXPECT_EQ(dma.polls, 0);
    EXPECT_EQ(dma.registeredHandler, &CZceDmaChanImpl::DmaEntrance);
    EXPECT_EQ(dma.registeredContext, channel.get());
}

TEST_F(RunLoop, BlockingLoopKeepsTheGivenHandlerButPacketsGoTheUsualWay) {
    bool run = true;
    dma.onPoll = [&] { run = dma.polls < 2; };
    dma.packets = {Packet(17, 64), Packet(20, 64)};

    EXPECT_EQ(channel->KeepRecv(NeverCalled, &run, this), 0);

    EXPECT_THAT(spi.calls, ElementsAre(Pair(17, testing::_), Pair(20, testing::_)));
    EXPECT_EQ(channel->m_pfnHandler, NeverCalled);
    EXPECT_EQ(channel->m_pHandlerCtx, this);
}

TEST_F(RunLoop, ExceptionOfACallbackLeavesTheBlockingLoop) {
    bool run = true;
    spi.onCall = [](const unsigned char*) { throw std::runtime_error("application failed"); };
    dma.packets = {Packet(17, 64)};

    EXPECT_THROW(channel->KeepRecv(NeverCalled, &run, nullptr), std::runtime_error);
    EXPECT_FALSE(dma.unwound);
}

// ---- where a line comes from ----

TEST_F(RunLoop, LinesNameTheirSourceAndFunction) {
    for (const std::uint8_t level : {ELOG_LVL_ERROR, ELOG_LVL_WARN})
        elog_set_fmt(level, ELOG_FMT_LVL | ELOG_FMT_TAG | ELOG_FMT_FILE | ELOG_FMT_FUNC);
    channel->InitDma(nullptr);
    Deliver(Packet(21, 64));
    Deliver(std::vector<unsigned char>(3));
    Deliver(Packet(2, 14));
    Deliver(Packet(17, 11));

    ExpectTimeline({"ERROR (VexoZceUpdmaImpl InitDma)Init dma null fail",
                    "ERROR (VexoZceUpdmaImpl DmaEntrance)Unsupported dma type 0x15",
                    "WARN (VexoZceUpdmaImpl DmaEntrance)Unexpect dma size, size 3",
                    "WARN (VexoZceUpdmaImpl HandleContMapPkt)Unexpect dma size, size 14",
                    "WARN (VexoZceUpdmaImpl HandleUpSubsResult)Unexpect dma size, size 11"});
}

// ---- subscription rules ----

class RuleParsing : public ChannelTest {};

TEST_F(RuleParsing, RulesAreParsedOnce) {
    MakeChannel(std::string(kMasterIni) + "[channel5]\ninsts = SR\noptions = norecv\n");

    channel->GetConfig();
    channel->GetConfig();

    EXPECT_TRUE(channel->m_bCfgParsed);
    EXPECT_THAT(Rules(5).m_SubsContractClass, ElementsAre("SR"));
}

TEST_F(RuleParsing, RulesThatDoNotParseAreNotTriedAgain) {
    MakeChannel(std::string(kMasterIni) + "[channel5]\ninsts = SR\n");

    channel->GetConfig();
    EXPECT_THAT(Timeline(), testing::EndsWith("Lack item: options=xxx , please check !\n"));
    channel->GetConfig();
    ExpectTimeline({});
}

// ---- call auction ----

/// The reference stamp is taken once in a process, so every case has a process of its own.
class CallAuction : public ChannelTest {
protected:
    CallAuction() { MakeChannel(); }

    int Ask(unsigned int a, unsigned int b) {
        drv->registers[0x104] = a;
        drv->registers[0x105] = b;
        return channel->IsCallTimeExpired();
    }
    void SetHour(int hour) { time.SetLocal(day.year, day.month, day.day, hour, 0, 0); }
};

TEST_F(CallAuction, FirstCallOnlyTakesTheReference) {
    const ChildResult child = RunInChild([&] {
        SetHour(9);
        EXPECT_EQ(Ask(90000, 90000), 0);
        EXPECT_EQ(CZceDmaChanImpl::g_uiContractSettleTm, 0U);
    });
    EXPECT_TRUE(child.returned) << child.err;
    EXPECT_EQ(drv->Timeline(child.out), "R 0x104\nR 0x105\n");
}

struct AuctionRow {
    const char* name;
    int hour;
    unsigned int first, last;
};

class AuctionTable : public CallAuction, public testing::WithParamInterface<AuctionRow> {};

TEST_P(AuctionTable, TimeInsideTheWindowIsTakenOver) {
    const AuctionRow& row = GetParam();
    const ChildResult child = RunInChild([&] {
        SetHour(row.hour);
        EXPECT_EQ(Ask(1, 1), 0);
        for (const unsigned int stamp : {row.first, row.first + 1, row.last - 1, row.last}) {
            EXPECT_EQ(Ask(stamp, 0), 1) << stamp;
            EXPECT_EQ(CZceDmaChanImpl::g_uiContractSettleTm, stamp);
        }
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_P(AuctionTable, TimeOutsideTheWindowChangesNothing) {
    const AuctionRow& row = GetParam();
    const ChildResult child = RunInChild([&] {
        SetHour(row.hour);
        EXPECT_EQ(Ask(1, 1), 0);
        CZceDmaChanImpl::g_uiContractSettleTm = 4711;
        for (const unsigned int stamp : {0U, row.first - 1, row.last + 1, 120000U, 235959U, 0xFFFFFFFFU}) {
            EXPECT_EQ(Ask(stamp, 0), 0) << stamp;
            EXPECT_EQ(CZceDmaChanImpl::g_uiContractSettleTm, 4711U);
        }
    });
    EXPECT_TRUE(child.returned) << child.err;
}

// Up to 14:59:59 the morning's window counts, from 15:00:00 the evening's.
INSTANTIATE_TEST_SUITE_P(CallAuction, AuctionTable,
                         testing::Values(AuctionRow{"MorningAtMidnight", 0, 85510, 93000},
                                         AuctionRow{"MorningAt14", 14, 85510, 93000},
                                         AuctionRow{"EveningAt15", 15, 205510, 213000},
                                         AuctionRow{"EveningAt23", 23, 205510, 213000}),
                         [](const auto& test) { return test.param.name; });

TEST_F(CallAuction, SecondStampCountsWhileTheFirstHasNotMoved) {
    const ChildResult child = RunInChild([&] {
        SetHour(9);
        EXPECT_EQ(Ask(90000, 0), 0);
        EXPECT_EQ(Ask(90000, 80000), 0);
        EXPECT_EQ(Ask(90000, 91500), 1);
        EXPECT_EQ(CZceDmaChanImpl::g_uiContractSettleTm, 91500U);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_F(CallAuction, FirstStampCountsOnceItHasMoved) {
    const ChildResult child = RunInChild([&] {
        SetHour(9);
        EXPECT_EQ(Ask(85000, 0), 0);
        EXPECT_EQ(Ask(90000, 91500), 1);
        EXPECT_EQ(CZceDmaChanImpl::g_uiContractSettleTm, 90000U);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_F(CallAuction, AStampThatCannotBeReadCountsAsZero) {
    const ChildResult child = RunInChild([&] {
        SetHour(9);
        EXPECT_EQ(Ask(0, 0), 0);
        drv->failingReads.insert(0x104);
        EXPECT_EQ(Ask(90000, 91500), 1);  // zero is the reference, so the second stamp counts
        EXPECT_EQ(CZceDmaChanImpl::g_uiContractSettleTm, 91500U);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

}  // namespace
