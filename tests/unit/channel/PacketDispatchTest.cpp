#include "tests/support/HostCalls.h"
#include "tests/unit/channel/ChannelFixture.h"

#include <cstdio>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using PacketDispatch = PacketTest;

constexpr bool IsMarketData(std::uint32_t type) { return type >= 17 && type <= 20; }

// ---- every length of every type ----

class TypeTable : public PacketTest, public testing::WithParamInterface<std::uint32_t> {
protected:
    /// What the operator reads of a packet of this type and size whose other bytes are zero.
    static std::vector<std::string> LinesOf(std::uint32_t type, std::size_t size) {
        const std::string tooShort = "WARN Unexpect dma size, size " + std::to_string(size);
        if (size < 4) return {tooShort};
        if (type == 2) return size < 15 ? std::vector<std::string>{tooShort} : std::vector<std::string>{};
        if (IsMarketData(type)) return size < 12 ? std::vector<std::string>{tooShort} : std::vector<std::string>{};
        char text[64];
        std::snprintf(text, sizeof text, "ERROR Unsupported dma type 0x%x", type);
        return {text};
    }
};

TEST_P(TypeTable, EveryLengthIsDeliveredOrRefusedWithOneLine) {
    const std::uint32_t type = GetParam();
    for (std::size_t size = 0; size <= 64; ++size) {
        SCOPED_TRACE(size);
        std::vector<unsigned char> packet(size);
        SetType(packet, type);
        spi.calls.clear();
        channel->m_bRecvData = 0;

        Deliver(packet);

        ExpectTimeline(LinesOf(type, size));
        const bool delivered = IsMarketData(type) && size >= 12;
        EXPECT_EQ(spi.calls.size(), delivered ? 1U : 0U);
        EXPECT_EQ(channel->m_bRecvData, delivered ? 1U : 0U);
    }
    EXPECT_THAT(channel->m_mapInstIdx, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(PacketDispatch, TypeTable, testing::Range(0U, 25U));
INSTANTIATE_TEST_SUITE_P(PacketDispatchFarTypes, TypeTable,
                         testing::Values(0x100U, 0x1100U, 0x02000000U, 0x11000000U, 0x7FFFFFFFU, 0x80000011U,
                                         0xFFFFFFFFU));

TEST_F(PacketDispatch, HugePacketsOfEveryTypeAreHandled) {
    for (const std::uint32_t type : {1U, 2U, 17U, 18U, 19U, 20U, 21U}) {
        std::vector<unsigned char> packet(1 << 20);
        SetType(packet, type);
        Deliver(packet);
    }
    EXPECT_EQ(spi.calls.size(), 4U);
    ExpectTimeline({"ERROR Unsupported dma type 0x1", "ERROR Unsupported dma type 0x15"});
}

TEST_F(PacketDispatch, Type21DeliversNothing) {
    Deliver(Packet(21, 64));

    ExpectTimeline({"ERROR Unsupported dma type 0x15"});
    EXPECT_THAT(spi.calls, IsEmpty());
    EXPECT_EQ(channel->m_bRecvData, 0U);
}

// ---- market data ----

class MarketDataType : public PacketTest, public testing::WithParamInterface<int> {};

TEST_P(MarketDataType, ReachesTheCallbackOfItsSlotUncopied) {
    const auto packet = Packet(static_cast<std::uint32_t>(GetParam()), 64);

    CZceDmaChanImpl::DmaEntrance(packet.data(), 64, channel.get());

    EXPECT_THAT(spi.calls, ElementsAre(testing::Pair(GetParam(), packet.data() + 12)));
    EXPECT_EQ(channel->m_bRecvData, 1U);
}

TEST_P(MarketDataType, HandsBackTheResultOfTheCallback) {
    const auto packet = Packet(static_cast<std::uint32_t>(GetParam()), 64);
    spi.result = -4711;

    EXPECT_EQ(channel->HandleUpSubsResult(packet.data(), 64, channel.get()), -4711);
}

TEST_P(MarketDataType, PacketOfNothingButAHeadIsDelivered) {
    const auto packet = Packet(static_cast<std::uint32_t>(GetParam()), 12);

    Deliver(packet);

    EXPECT_EQ(spi.calls.size(), 1U);
}

TEST_P(MarketDataType, WritesNoLogLine) {
    Deliver(Packet(static_cast<std::uint32_t>(GetParam()), 64));

    ExpectTimeline({});
}

INSTANTIATE_TEST_SUITE_P(PacketDispatch, MarketDataType, testing::Values(17, 18, 19, 20));

TEST_F(PacketDispatch, MarkOfReceivedDataStaysWhenOtherPacketsFollow) {
    Deliver(Packet(17, 64));
    Deliver(Packet(21, 64));
    Deliver(MapPacket().Add("SR505", 7));

    EXPECT_EQ(channel->m_bRecvData, 1U);
}

TEST_F(PacketDispatch, PacketThatACallbackThrewAwayIsNotMarkedAsReceived) {
    spi.onCall = [](const unsigned char*) { throw 1; };

    Deliver(Packet(17, 64));

    EXPECT_EQ(channel->m_bRecvData, 0U);
}

// ---- what only a caller of the handler itself can bring there ----

TEST_F(PacketDispatch, OtherTypeAtTheMarketDataHandlerIsDumped) {
    const auto packet = Packet(21, 16);

    EXPECT_EQ(channel->HandleUpSubsResult(packet.data(), 16, channel.get()), 0);

    ExpectTimeline({"ERROR Unsupported dma type, type:21.", "1500000005060708090A0B0C0D0E0F10"});
    EXPECT_EQ(channel->m_bRecvData, 0U);
}

TEST_F(PacketDispatch, DumpShowsEveryByteValue) {
    std::vector<unsigned char> packet(256 + 4);
    for (unsigned int i = 0; i < 256; ++i) packet[i + 4] = static_cast<unsigned char>(i);
    SetType(packet, 0xFFFFFFFF);

    channel->HandleUpSubsResult(packet.data(), 260, channel.get());

    std::string hex = "FFFFFFFF";
    for (unsigned int i = 0; i < 256; ++i) {
        char pair[3];
        std::snprintf(pair, sizeof pair, "%02X", i);
        hex += pair;
    }
    ExpectTimeline({"ERROR Unsupported dma type, type:4294967295.", hex});
}

TEST_F(PacketDispatch, ContractMapAtTheMarketDataHandlerIsDumped) {
    const auto packet = Packet(2, 5);

    channel->HandleUpSubsResult(packet.data(), 5, channel.get());

    ExpectTimeline({"ERROR Unsupported dma type, type:2.", "0200000005"});
}

TEST_F(PacketDispatch, MarketDataHandlerRefusesWhatHasNoType) {
    for (unsigned int size = 0; size < 4; ++size) {
        const auto packet = Packet(17, size);
        EXPECT_EQ(channel->HandleUpSubsResult(packet.data(), size, channel.get()), 0);
        ExpectTimeline({"WARN Unexpect dma size, size " + std::to_string(size)});
    }
}

// ---- stop signals ----

class FirstPacket : public PacketTest {
protected:
    FirstPacket() { CZceDmaChanImpl::m_bSignalRegister = false; }

    std::vector<int> Signals() const {
        std::vector<int> signals;
        for (const HostCalls::Installed& call : host.installed) signals.push_back(call.signal);
        return signals;
    }
    HostCalls host;
};

TEST_F(FirstPacket, NothingButMarketDataCatchesTheStopSignals) {
    Deliver(Packet(16, 64));
    Deliver(Packet(21, 64));
    Deliver(Packet(2, 3));
    Deliver(MapPacket().Add("SR505", 7));

    EXPECT_THAT(Signals(), IsEmpty());
    EXPECT_FALSE(CZceDmaChanImpl::m_bSignalRegister);
}

TEST_F(FirstPacket, EachMarketDataTypeCatchesTheStopSignals) {
    for (std::uint32_t type = 17; type <= 20; ++type) {
        CZceDmaChanImpl::m_bSignalRegister = false;
        host.installed.clear();
        Deliver(Packet(type, 64));
        EXPECT_THAT(Signals(), ElementsAre(SIGINT, SIGTERM, SIGPIPE)) << type;
        EXPECT_TRUE(CZceDmaChanImpl::m_bSignalRegister);
    }
}

TEST_F(FirstPacket, SignalsAreCaughtBeforeTheCallbackRuns) {
    std::size_t caught = 0;
    spi.onCall = [&](const unsigned char*) { caught = host.installed.size(); };

    Deliver(Packet(17, 64));

    EXPECT_EQ(caught, 3U);
}

TEST_F(FirstPacket, SignalsAreCaughtOnceInAProcess) {
    Deliver(Packet(17, 64));
    Deliver(Packet(18, 64));
    CZceDmaChanImpl other(drv, &api, cfg.get());
    const auto packet = Packet(19, 64);
    CZceDmaChanImpl::DmaEntrance(packet.data(), 64, &other);

    EXPECT_EQ(host.installed.size(), 3U);
}

TEST_F(FirstPacket, FailedInstallationIsNotTriedAgainAndCostsNoPacket) {
    host.refusedSignal = SIGTERM;

    Deliver(Packet(17, 64));
    Deliver(Packet(18, 64));

    EXPECT_THAT(Signals(), ElementsAre(SIGINT, SIGTERM));
    EXPECT_TRUE(CZceDmaChanImpl::m_bSignalRegister);
    EXPECT_EQ(spi.calls.size(), 2U);
    ExpectTimeline({"ERROR Failed to install SIGTERM handle! msg:Invalid argument."});
}

// ---- a channel without services ----

class ServicelessChannel : public ChannelTest {
protected:
    ServicelessChannel() { MakeChannel(kSlaveIni); }

    void DeliverTo(CZceDmaChanImpl& chan, const std::vector<unsigned char>& packet) {
        CZceDmaChanImpl::DmaEntrance(packet.data(), static_cast<unsigned int>(packet.size()), &chan);
    }
    const std::vector<unsigned char> map = MapPacket().Add("SR505", 7).Bytes();
    const std::string warning = "WARN [channel:3] Contract map packets are ignored, only channel 0 learns the map!";
};

TEST_F(ServicelessChannel, ContractMapIsIgnoredWithOneWarning) {
    for (int i = 0; i < 1000; ++i) DeliverTo(*channel, map);

    ExpectTimeline({warning});
    EXPECT_THAT(channel->m_mapInstIdx, IsEmpty());
    EXPECT_EQ(channel->m_ulParsedCnt, 0U);
}

TEST_F(ServicelessChannel, AnIgnoredContractMapIsNoError) {
    EXPECT_EQ(channel->HandleContMapPkt(map.data(), static_cast<unsigned int>(map.size()), channel.get()), 0);
}

TEST_F(ServicelessChannel, EachChannelWarnsForItself) {
    CZceDmaChanImpl second(drv, &api, cfg.get());
    DeliverTo(*channel, map);
    DeliverTo(second, map);

    ExpectTimeline({warning, warning});
}

TEST_F(ServicelessChannel, ShortContractMapIsStillCalledShort) {
    DeliverTo(*channel, std::vector<unsigned char>(map.begin(), map.begin() + 14));

    ExpectTimeline({"WARN Unexpect dma size, size 14"});
}

TEST_F(ServicelessChannel, MarketDataBehindAContractMapIsDelivered) {
    std::vector<unsigned char> quote(64);
    quote[0] = 17;
    DeliverTo(*channel, map);
    DeliverTo(*channel, quote);

    EXPECT_EQ(spi.calls.size(), 1U);
}

}  // namespace
