#include "tests/unit/channel/ChannelFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

using IncrementalSubscription = PacketTest;

// ---- who gets an instrument ----

struct Wish {
    std::vector<std::string> ids = {};
    std::vector<std::string> classes = {};
    bool all = false;
    bool options = false;
    bool ips = false;
    bool spd = false;
};

struct DecisionRow {
    const char* name;
    const char* id;
    Wish wish;
    int table;  // that the instrument is subscribed in; -1 = in none
};

class DecisionTable : public PacketTest, public testing::WithParamInterface<DecisionRow> {
protected:
    static constexpr unsigned int kChannel = 9;

    void SetUp() override {
        const Wish& wish = GetParam().wish;
        Vexo2_U50::ZceSubsInfo_t& rules = Rules(kChannel);
        rules.m_SubsContractId = {wish.ids.begin(), wish.ids.end()};
        rules.m_SubsContractClass = {wish.classes.begin(), wish.classes.end()};
        rules.bSubAll = wish.all;
        rules.bOptionsRecv = wish.options;
        rules.bIpsRecv = wish.ips;
        rules.bSpdRecv = wish.spd;
    }
};

TEST_P(DecisionTable, InstrumentIsSubscribedForTheChannelsThatWantIt) {
    channel->IncreQuoteSub(GetParam().id, 77);

    const auto& oneLeg = channel->m_pFpgaServ->oneLegChanBits;
    const auto& combine = channel->m_pFpgaServ->combineChanBits;
    constexpr unsigned short kMask = 1 << kChannel;
    const Vexo2_U50::IndexToChanBit subscribed = {{77, kMask}};
    EXPECT_EQ(oneLeg, GetParam().table == 0 ? subscribed : Vexo2_U50::IndexToChanBit());
    EXPECT_EQ(combine, GetParam().table == 1 ? subscribed : Vexo2_U50::IndexToChanBit());
    EXPECT_EQ(drv->Mask(0, 77), GetParam().table == 0 ? kMask : 0U);
    EXPECT_EQ(drv->Mask(1, 77), GetParam().table == 1 ? kMask : 0U);
}

INSTANTIATE_TEST_SUITE_P(
    IncrementalSubscription, DecisionTable,
    testing::Values(
        // calendar spreads
        DecisionRow{"SpreadWanted", "SPD-SR505/SR509", {{}, {}, false, false, false, true}, 1},
        DecisionRow{"SpreadUnwanted", "SPD-SR505/SR509", {{"SPD-SR505/SR509"}, {"SPD"}, true, true, true, false}, -1},
        DecisionRow{"SpreadOfFiveCharacters", "SPD-X", {{}, {}, false, false, false, true}, 1},
        DecisionRow{"SpreadOfFourCharacters", "SPD-", {{}, {}, true, true, true, true}, -1},
        DecisionRow{"SpreadThatReadsLikeAnOption", "SPD-SR505C6000", {{}, {}, false, false, false, true}, 1},
        DecisionRow{"SpreadInSmallLettersIsAFuture", "spd-SR505", {{}, {"spd"}, false, false, false, false}, 0},
        // inter-product spreads
        DecisionRow{"InterProductWanted", "IPS-SF505/SM505", {{}, {}, false, false, true, false}, 1},
        DecisionRow{
            "InterProductUnwanted", "IPS-SF505/SM505", {{"IPS-SF505/SM505"}, {"IPS"}, true, true, false, true}, -1},
        // futures
        DecisionRow{"FutureByAll", "SR505", {{}, {}, true, false, false, false}, 0},
        DecisionRow{"FutureByClass", "SR505", {{}, {"TA", "SR"}, false, false, false, false}, 0},
        DecisionRow{"FutureById", "SR505", {{"TA505", "SR505"}, {}, false, false, false, false}, 0},
        DecisionRow{"FutureByNothing", "SR505", {{"SR506"}, {"TA", "S"}, false, true, true, true}, -1},
        DecisionRow{"FutureOfAClassInSmallLetters", "SR505", {{}, {"sr"}, false, false, false, false}, -1},
        DecisionRow{"FutureOfFourCharacters", "SR50", {{"SR50"}, {"SR"}, true, true, true, true}, -1},
        DecisionRow{"DigitsOnly", "12345", {{}, {""}, false, false, false, false}, 0},
        // options
        DecisionRow{"OptionByClass", "SR505C6000", {{}, {"SR"}, false, true, false, false}, 0},
        DecisionRow{"OptionByUnderlying", "SR505P6000", {{"SR505"}, {}, false, true, false, false}, 0},
        DecisionRow{"OptionByAll", "SR505C6000", {{}, {}, true, true, false, false}, 0},
        DecisionRow{"OptionByItsOwnId", "SR505C6000", {{"SR505C6000"}, {}, false, true, false, false}, -1},
        DecisionRow{"OptionOfAnUnwantedClass", "SR505C6000", {{"SR506"}, {"TA"}, false, true, true, true}, -1},
        DecisionRow{
            "OptionWithoutOptions", "SR505C6000", {{"SR505", "SR505C6000"}, {"SR"}, true, false, true, true}, -1},
        DecisionRow{"CallWithoutAStrikeIsAFuture", "SR505C", {{"SR505C"}, {}, false, false, false, false}, 0}),
    [](const auto& test) { return test.param.name; });

// ---- what is written ----

TEST_F(IncrementalSubscription, RowIsWrittenAndReadBack) {
    Rules(0).bSubAll = true;

    Deliver(MapPacket().Add("SR505", 7));

    ExpectTimeline({"WR 0x11001 0x1", "WR 0x11000 0x1c0",
                    "INFO Subscribes:Write to fpga:chanbit:0x1, index:7, instId:SR505", "WR 0x11002 0x1c0",
                    "R 0x11003"});
}

TEST_F(IncrementalSubscription, CombinationGoesToTheCombinationTable) {
    Rules(15).bIpsRecv = true;

    Deliver(MapPacket().Add("IPS-SF505/SM505", 8191));

    ExpectTimeline({"WR 0x12001 0x8000", "WR 0x12000 0x7ffc0",
                    "INFO Subscribes:Write to fpga:chanbit:0x8000, index:8191, instId:IPS-SF505/SM505",
                    "WR 0x12002 0x7ffc0", "R 0x12003"});
}

TEST_F(IncrementalSubscription, LaterChannelsWriteTheRowAgainWithTheGrowingMask) {
    for (const unsigned int chan : {0U, 2U, 15U}) Rules(chan).bSubAll = true;

    Deliver(MapPacket().Add("SR505", 7));

    std::vector<std::string> expected;
    for (const char* mask : {"0x1", "0x5", "0x8005"}) {
        expected.push_back(std::string("WR 0x11001 ") + mask);
        expected.push_back("WR 0x11000 0x1c0");
        expected.push_back(std::string("INFO Subscribes:Write to fpga:chanbit:") + mask + ", index:7, instId:SR505");
        expected.push_back("WR 0x11002 0x1c0");
        expected.push_back("R 0x11003");
    }
    ExpectTimeline(expected);
    EXPECT_EQ(drv->Mask(0, 7), 0x8005U);
}

TEST_F(IncrementalSubscription, TwoIdsOfOneIndexShareTheRow) {
    Rules(0).m_SubsContractId = {"SR505"};
    Rules(1).m_SubsContractId = {"TA505"};

    Deliver(MapPacket().Add("SR505", 7).Add("TA505", 7));

    EXPECT_THAT(channel->m_pFpgaServ->oneLegChanBits, ElementsAre(Pair(7, 3)));
    EXPECT_THAT(channel->m_pFpgaServ->oneLegNames, ElementsAre(Pair(7, "TA505")));
    EXPECT_EQ(drv->Mask(0, 7), 3U);
}

TEST_F(IncrementalSubscription, EachTableKeepsItsOwnMaskOfAnIndex) {
    Rules(0).bSubAll = true;
    Rules(1).bSpdRecv = true;

    Deliver(MapPacket().Add("SR505", 7).Add("SPD-SR505/SR509", 7));

    EXPECT_THAT(channel->m_pFpgaServ->oneLegChanBits, ElementsAre(Pair(7, 1)));
    EXPECT_THAT(channel->m_pFpgaServ->combineChanBits, ElementsAre(Pair(7, 2)));
}

TEST_F(IncrementalSubscription, RowThatDoesNotTakeItsMaskIsOnlyLogged) {
    Rules(0).bSubAll = true;
    drv->deafRows[0] = {7};

    Deliver(MapPacket().Add("SR505", 7).Add("SR506", 8));

    ExpectTimeline({"WR 0x11001 0x1", "WR 0x11000 0x1c0",
                    "INFO Subscribes:Write to fpga:chanbit:0x1, index:7, instId:SR505", "WR 0x11002 0x1c0", "R 0x11003",
                    "WARN Attention! Maybe subscribed fail! Type 0, index:7, shouldbe:0x1, fpgavalue:0x0,",
                    "WR 0x11001 0x1", "WR 0x11000 0x200",
                    "INFO Subscribes:Write to fpga:chanbit:0x1, index:8, instId:SR506", "WR 0x11002 0x200",
                    "R 0x11003"});
}

TEST_F(IncrementalSubscription, UnwantedInstrumentTouchesNoRegister) {
    Rules(0).m_SubsContractClass = {"TA"};

    Deliver(MapPacket().Add("SR505", 7).Add("SPD-SR505/SR509", 3).Add("SR505C6000", 9));

    ExpectTimeline({});
    EXPECT_EQ(channel->m_mapInstIdx.size(), 3U);
    EXPECT_THAT(channel->m_pFpgaServ->oneLegNames, IsEmpty());
}

}  // namespace
