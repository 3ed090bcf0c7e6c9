#include "src/log/elog.h"
#include "tests/doubles/LogLines.h"
#include "tests/unit/api/ApiFixture.h"

#include <sys/stat.h>

#include <cerrno>
#include <stdexcept>
#include <utility>

namespace {

using testing::ElementsAre;

using Receive = ApiTest;

std::vector<unsigned char> ContractMap() {
    return {2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 14, 0, 14, 0, 0, 0, 0, 0, 0, 7, 'S', 'R', '5', '0', '5'};
}

/// Notes the types of the packets that its callbacks got.
class OrderedSpi : public QuoteCallbacks {
public:
    std::vector<int> types;

private:
    int OnQuote(int type, const unsigned char*) override {
        types.push_back(type);
        return 0;
    }
};

// ---- VexoRecv ----

TEST_F(Receive, WithoutAStartThereIsNothingToReceive) {
    CVexoZceMdApiImpl api(nullptr);

    EXPECT_EQ(api.VexoRecv(), -1);
}

TEST_F(Receive, AfterAStartThatFailedThereIsNothingToReceive) {
    const ChildResult child = RunInChild([&] {
        ASSERT_EQ(::mkdir(LogPath().c_str(), 0755), 0);
        CVexoZceMdApiImpl api(nullptr);
        EXPECT_EQ(api.VexoStart(spi, Ini(0, 3).c_str()), -1);
        EXPECT_EQ(api.VexoRecv(), -1);
    });
    EXPECT_TRUE(child.returned);
}

TEST_F(Receive, ReturnsWhatThePollBrought) {
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi* api = Started(0);
        EXPECT_EQ(api->VexoRecv(), 0);
        hw.packets[Stream(0)].push_back(ContractMap());
        EXPECT_EQ(api->VexoRecv(), 0);
        Quote(0);
        EXPECT_EQ(api->VexoRecv(), 1);
        EXPECT_EQ(api->VexoRecv(), 0);
        EXPECT_EQ(spi.calls, 1);
        CSignalProcess::m_isExit = true;
        EXPECT_EQ(api->VexoRecv(), -1);
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_F(Receive, AfterAStopNothingIsPolledAnyMore) {
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi* api = Started(3);
        Quote(3);
        CSignalProcess::m_isExit = true;
        EXPECT_EQ(api->VexoRecv(), -1);
        EXPECT_EQ(hw.Count("a2c_stream_poll_once"), 0U);
        EXPECT_EQ(spi.calls, 0);
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_F(Receive, ExceptionOfACallbackLeavesIt) {
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi* api = Started(3);
        Quote(3);
        Quote(3);
        spi.onCall = [&] {
            if (spi.calls == 1) throw std::runtime_error("application failed");
        };
        EXPECT_THROW(api->VexoRecv(), std::runtime_error);
        EXPECT_EQ(api->VexoRecv(), 1);
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_F(Receive, PacketsThatAreNotDeliveredDoNotHideTheOnesBehindThem) {
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi* api = Started(0);
        Quote(0, 17);
        EXPECT_EQ(api->VexoRecv(), 1);
        const test_support::FakeEnyxHw::Bytes tooShort{18, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        const test_support::FakeEnyxHw::Bytes typeless{17, 0, 0};
        for (const auto& packet : {tooShort, typeless, ContractMap()}) {
            hw.packets[Stream(0)].push_back(packet);
            EXPECT_EQ(api->VexoRecv(), 0);
            Quote(0, 20);
            EXPECT_EQ(api->VexoRecv(), 1);
        }
        for (const int type : {16, 21}) {
            Quote(0, static_cast<unsigned char>(type));
            EXPECT_EQ(api->VexoRecv(), 0);
        }
        EXPECT_EQ(spi.calls, 4);
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_F(Receive, EveryTypeReachesItsCallbackBeforeAndAfterTheFirstPacket) {
    const ChildResult child = RunInChild([&] {
        OrderedSpi ordered;
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        ASSERT_EQ(api->VexoStart(ordered, Ini(0, 3).c_str()), 0);
        for (const int type : {20, 17, 18, 19, 20}) {
            Quote(3, static_cast<unsigned char>(type));
            EXPECT_EQ(api->VexoRecv(), 1);
        }
        EXPECT_THAT(ordered.types, ElementsAre(20, 17, 18, 19, 20));
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_F(Receive, EveryTypeAtEveryLengthReachesOneCallbackOrNone) {
    const ChildResult child = RunInChild([&] {
        OrderedSpi ordered;
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        ASSERT_EQ(api->VexoStart(ordered, Ini(0, 0).c_str()), 0);
        std::vector<int> expected;
        for (std::size_t size = 0; size <= 2048; ++size) {
            for (unsigned int type = 0; type < 256; ++type) {
                // What is not market data writes a line, which takes long: that is shown of each type at few lengths.
                const bool isQuote = type >= 17 && type <= 20;
                if (!isQuote && type != 2 && size > 16 && size % 512 != type % 512) continue;
                test_support::FakeEnyxHw::Bytes packet(size);
                if (size > 0) packet[0] = static_cast<unsigned char>(type);
                hw.packets[Stream(0)].push_back(packet);
                const bool delivered = isQuote && size >= 12;
                if (delivered) expected.push_back(static_cast<int>(type));
                ASSERT_EQ(api->VexoRecv(), delivered ? 1 : 0) << type << " of " << size;
            }
        }
        EXPECT_EQ(ordered.types, expected);
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_F(Receive, PollThatFailsBringsNothingAndIsNotTheEnd) {
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi* api = Started(3);
        hw.Fail("a2c_stream_poll_once", EINVAL);
        EXPECT_EQ(api->VexoRecv(), 0);
        Quote(3);
        EXPECT_EQ(api->VexoRecv(), 1);
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_F(Receive, ExceptionOfALaterCallbackLeavesItToo) {
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi* api = Started(3);
        for (int n = 0; n < 3; ++n) Quote(3);
        spi.onCall = [&] {
            if (spi.calls == 2) throw std::runtime_error("application failed");
        };
        EXPECT_EQ(api->VexoRecv(), 1);
        EXPECT_THROW(api->VexoRecv(), std::runtime_error);
        EXPECT_EQ(api->VexoRecv(), 1);
        EXPECT_EQ(api->VexoRecv(), 0);
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

// ---- VexoRecvStart ----

/// Answers the two operations that the blocking mode is made of.
class ScriptedApi : public CVexoZceMdApiImpl {
public:
    ScriptedApi(int start, std::vector<int> receives)
        : CVexoZceMdApiImpl(nullptr), m_start(start), m_receives(std::move(receives)) {}
    int VexoStart(IVexoZceMdSpi&, const char* cfgPath) override {
        path = cfgPath;
        return m_start;
    }
    int VexoRecv() override { return m_receives.at(polls++); }

    std::string path;
    std::size_t polls = 0;

private:
    int m_start;
    std::vector<int> m_receives;
};

TEST_F(Receive, BlockingModePollsUntilAPollSaysMinus1) {
    ScriptedApi api(0, {0, 1, 0, 1, -2, 7, -1});

    EXPECT_EQ(api.VexoRecvStart(spi, "zce.ini"), 0);

    EXPECT_EQ(api.polls, 7U);
    EXPECT_EQ(api.path, "zce.ini");
}

TEST_F(Receive, BlockingModeReportsAStartThatFailed) {
    for (const int result : {-1, 1}) {
        test_support::LogLines log;
        ScriptedApi api(result, {});
        EXPECT_EQ(api.VexoRecvStart(spi, "zce.ini"), -1);
        EXPECT_THAT(log.Take(), ElementsAre("ERROR Vexo init fail."));
    }
}

TEST_F(Receive, LinesNameTheirSourceAndFunction) {
    test_support::LogLines log;
    elog_set_fmt(ELOG_LVL_ERROR, ELOG_FMT_LVL | ELOG_FMT_TAG | ELOG_FMT_FILE | ELOG_FMT_FUNC);

    ScriptedApi(-1, {}).VexoRecvStart(spi, "zce.ini");

    EXPECT_THAT(log.Take(), ElementsAre("ERROR (VexoZceMdApiImpl VexoRecvStart)Vexo init fail."));
}

TEST_F(Receive, ExceptionOfACallbackLeavesTheBlockingMode) {
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        Quote(3);
        Quote(3);
        spi.onCall = [&] {
            if (spi.calls == 1) throw std::runtime_error("application failed");
        };
        EXPECT_THROW(api->VexoRecvStart(spi, Ini(0, 3).c_str()), std::runtime_error);
        EXPECT_EQ(api->VexoRecv(), 1);
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

// ---- several objects in one process ----

using SeveralObjects = ApiTest;

TEST_F(SeveralObjects, DriverEndsWithTheLastChannel0ThatUsesIt) {
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi* first = IVexoZceMdApi::CreateVexoZceMdApi();
        IVexoZceMdApi* second = IVexoZceMdApi::CreateVexoZceMdApi();
        ASSERT_EQ(first->VexoStart(spi, Ini(0, 0).c_str()), 0);
        ASSERT_EQ(second->VexoStart(spi, Ini(1, 0).c_str()), 0);

        IVexoZceMdApi::DestroyVexoZceMdApi(*first);
        EXPECT_NE(CDrvEnyxReg::instance, nullptr);
        Quote(0);
        EXPECT_EQ(second->VexoRecv(), 1);
        IVexoZceMdApi::DestroyVexoZceMdApi(*second);
        EXPECT_EQ(CDrvEnyxReg::instance, nullptr);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_F(SeveralObjects, NewOneStartsTheCardAfreshAfterTheOldOneEnded) {
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi::DestroyVexoZceMdApi(*Started(0));
        EXPECT_EQ(CDrvEnyxReg::instance, nullptr);
        IVexoZceMdApi* next = Started(0);
        EXPECT_EQ(hw.Count("core_reset"), 2U);
        Quote(0);
        EXPECT_EQ(next->VexoRecv(), 1);
        IVexoZceMdApi::DestroyVexoZceMdApi(*next);
        EXPECT_EQ(CDrvEnyxReg::instance, nullptr);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_F(SeveralObjects, OneMadeBeforeTheDriverEndedGetsANewOneWhenItStarts) {
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi* waiting = IVexoZceMdApi::CreateVexoZceMdApi();
        IVexoZceMdApi::DestroyVexoZceMdApi(*Started(0));
        ASSERT_EQ(CDrvEnyxReg::instance, nullptr);

        EXPECT_EQ(waiting->VexoStart(spi, Ini(0, 0).c_str()), 0);
        EXPECT_EQ(dynamic_cast<CVexoZceMdApiImpl&>(*waiting).m_pDrv, CDrvEnyxReg::instance);
        IVexoZceMdApi::DestroyVexoZceMdApi(*waiting);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_F(SeveralObjects, SlaveLivesOnWhenTheMasterEnds) {
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi* master = Started(0);
        IVexoZceMdApi* slave = Started(3);
        IVexoZceMdApi::DestroyVexoZceMdApi(*master);
        Quote(3);
        EXPECT_EQ(slave->VexoRecv(), 1);
        IVexoZceMdApi::DestroyVexoZceMdApi(*slave);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_F(SeveralObjects, MasterKeepsItsDriverWhenASlaveEnds) {
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi* master = Started(0);
        IVexoZceMdApi::DestroyVexoZceMdApi(*Started(3));
        EXPECT_NE(CDrvEnyxReg::instance, nullptr);
        hw.packets[Stream(0)].push_back(ContractMap());
        EXPECT_EQ(master->VexoRecv(), 0);
        IVexoZceMdApi::DestroyVexoZceMdApi(*master);
        EXPECT_EQ(CDrvEnyxReg::instance, nullptr);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_F(SeveralObjects, EndOfAnObjectClosesItsStreams) {
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi::DestroyVexoZceMdApi(*Started(3));
        EXPECT_EQ(hw.Count("a2c_stream_destroy"), 1U);
        EXPECT_EQ(hw.Count("c2a_stream_destroy"), 1U);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

}  // namespace
