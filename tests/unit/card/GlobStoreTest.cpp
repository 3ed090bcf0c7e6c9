#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "src/instruments/SubsInfo.h"
#include "tests/unit/card/CardServiceFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using Vexo2_U50::IndexToInstId;
using Vexo2_U50::ZceSubsInfo_t;

using GlobStore = test_support::CardServiceFixture;

// ---- a channel's rules ----

TEST(SubscriptionRules, NewRecordSubscribesNothing) {
    const ZceSubsInfo_t rules;

    EXPECT_THAT(rules.m_SubsContractId, IsEmpty());
    EXPECT_THAT(rules.m_SubsContractClass, IsEmpty());
    EXPECT_FALSE(rules.bSubAll);
    EXPECT_FALSE(rules.bOptionsRecv);
    EXPECT_FALSE(rules.bIpsRecv);
    EXPECT_FALSE(rules.bSpdRecv);
    EXPECT_EQ(rules.uiReserved3, 3u);
    EXPECT_EQ(rules.strIds, "");
    EXPECT_EQ(rules.strClasses, "");
    EXPECT_EQ(rules.strOptions, "");
    EXPECT_EQ(rules.strIps, "");
    EXPECT_EQ(rules.strSpd, "");
}

TEST(SubscriptionRules, FieldsStandInTheirFixedOrder) {
    ZceSubsInfo_t rules;

    auto& [ids, classes, all, options, ips, spd, reserved, idText, classText, optionText, ipsText, spdText] = rules;

    EXPECT_EQ(&ids, &rules.m_SubsContractId);
    EXPECT_EQ(&classes, &rules.m_SubsContractClass);
    EXPECT_EQ(&all, &rules.bSubAll);
    EXPECT_EQ(&options, &rules.bOptionsRecv);
    EXPECT_EQ(&ips, &rules.bIpsRecv);
    EXPECT_EQ(&spd, &rules.bSpdRecv);
    EXPECT_EQ(&reserved, &rules.uiReserved3);
    EXPECT_EQ(&idText, &rules.strIds);
    EXPECT_EQ(&classText, &rules.strClasses);
    EXPECT_EQ(&optionText, &rules.strOptions);
    EXPECT_EQ(&ipsText, &rules.strIps);
    EXPECT_EQ(&spdText, &rules.strSpd);
}

// ---- one instrument ----

TEST_F(GlobStore, SingleLegInstrumentGetsTheChannelsBitAndItsName) {
    serv.StoreInstToGlob(0, 7, "SR505", 2);

    EXPECT_THAT(serv.oneLegChanBits, ElementsAre(Pair(7, 0x4)));
    EXPECT_THAT(serv.oneLegNames, ElementsAre(Pair(7, "SR505")));
    EXPECT_THAT(serv.combineChanBits, IsEmpty());
    EXPECT_THAT(serv.combineNames, IsEmpty());
    EXPECT_THAT(log.Take(), IsEmpty());
    EXPECT_THAT(drv.TakeCalls(), IsEmpty());
}

TEST_F(GlobStore, EveryTypeButZeroIsACombination) {
    for (const int type : {1, 2, 255})
        serv.StoreInstToGlob(static_cast<std::uint8_t>(type), static_cast<std::uint16_t>(type), "SPD-A", 0);

    EXPECT_THAT(serv.combineChanBits, ElementsAre(Pair(1, 0x1), Pair(2, 0x1), Pair(255, 0x1)));
    EXPECT_THAT(serv.combineNames, ElementsAre(Pair(1, "SPD-A"), Pair(2, "SPD-A"), Pair(255, "SPD-A")));
    EXPECT_THAT(serv.oneLegChanBits, IsEmpty());
    EXPECT_THAT(serv.oneLegNames, IsEmpty());
}

TEST_F(GlobStore, TwoChannelsChoosingOneIndexShareARowUnderTheLastName) {
    serv.StoreInstToGlob(0, 7, "SR505", 0);
    serv.StoreInstToGlob(0, 7, "SR507", 2);

    EXPECT_THAT(serv.oneLegChanBits, ElementsAre(Pair(7, 0x5)));
    EXPECT_THAT(serv.oneLegNames, ElementsAre(Pair(7, "SR507")));
}

TEST_F(GlobStore, SameChannelTwiceChangesNothing) {
    serv.StoreInstToGlob(1, 7, "SPD-A", 3);
    serv.StoreInstToGlob(1, 7, "SPD-A", 3);

    EXPECT_THAT(serv.combineChanBits, ElementsAre(Pair(7, 0x8)));
}

TEST_F(GlobStore, EachOf16ChannelsHasABitOfItsOwn) {
    for (std::uint32_t chan = 0; chan < 16; ++chan) {
        serv.StoreInstToGlob(0, static_cast<std::uint16_t>(chan), "SR505", chan);
        EXPECT_EQ(serv.oneLegChanBits[static_cast<std::uint16_t>(chan)], 1u << chan);
        serv.StoreInstToGlob(0, 65535, "SR505", chan);
    }
    EXPECT_EQ(serv.oneLegChanBits[65535], 0xFFFF);
}

TEST_F(GlobStore, ChannelOf16OrMoreSetsNoBitOfTheMask) {
    for (const std::uint32_t chan : {16U, 31U, 32U, 0xFFFFFFFFU}) serv.StoreInstToGlob(0, 7, "SR505", chan);

    EXPECT_THAT(serv.oneLegChanBits, ElementsAre(Pair(7, 0)));
    EXPECT_THAT(serv.oneLegNames, ElementsAre(Pair(7, "SR505")));
}

TEST_F(GlobStore, ChannelsOnThreadsOfTheirOwnLoseNoBit) {
    std::vector<std::thread> channels;
    for (std::uint32_t chan = 0; chan < 4; ++chan) {
        channels.emplace_back([this, chan] {
            for (std::uint16_t index = 0; index < 500; ++index) serv.StoreInstToGlob(0, index, "SR505", chan);
        });
    }
    for (std::thread& channel : channels) channel.join();

    ASSERT_EQ(serv.oneLegChanBits.size(), 500u);
    for (const auto& [index, mask] : serv.oneLegChanBits) EXPECT_EQ(mask, 0xF) << index;
}

// ---- all of a channel ----

TEST_F(GlobStore, ChannelsInstrumentsAreCountedAndStored) {
    IndexToInstId oneLeg = {{9, "SR509"}, {7, "SR507"}};
    IndexToInstId combine = {{7, "SPD-SR505/SR509"}};

    serv.StoreInstsToGlob(oneLeg, combine, 3);

    EXPECT_THAT(log.Take(),
                ElementsAre("INFO [channel:3] Record func:Meeting conditions count is:OneLeg:2, Combine:1."));
    EXPECT_THAT(serv.oneLegChanBits, ElementsAre(Pair(7, 0x8), Pair(9, 0x8)));
    EXPECT_THAT(serv.oneLegNames, ElementsAre(Pair(7, "SR507"), Pair(9, "SR509")));
    EXPECT_THAT(serv.combineChanBits, ElementsAre(Pair(7, 0x8)));
    EXPECT_THAT(serv.combineNames, ElementsAre(Pair(7, "SPD-SR505/SR509")));
    EXPECT_THAT(drv.TakeCalls(), IsEmpty());
}

TEST_F(GlobStore, ChannelWithoutInstrumentsIsTold) {
    IndexToInstId none;

    serv.StoreInstsToGlob(none, none, 15);

    EXPECT_THAT(log.Take(),
                ElementsAre("INFO [channel:15] Record func:Meeting conditions count is:OneLeg:0, Combine:0.",
                            "INFO [channel:15] Matched subs inst count is 0. you doesn't subscribe inst."));
    EXPECT_THAT(serv.oneLegChanBits, IsEmpty());
    EXPECT_THAT(serv.combineChanBits, IsEmpty());
}

TEST_F(GlobStore, ChannelWithOnlyOneKindOfInstrumentsIsNotToldThatItHasNone) {
    IndexToInstId some = {{7, "SR507"}};
    IndexToInstId none;

    serv.StoreInstsToGlob(some, none, 1);
    serv.StoreInstsToGlob(none, some, 1);

    EXPECT_THAT(log.Take(),
                ElementsAre("INFO [channel:1] Record func:Meeting conditions count is:OneLeg:1, Combine:0.",
                            "INFO [channel:1] Record func:Meeting conditions count is:OneLeg:0, Combine:1."));
}

TEST_F(GlobStore, StoringWorksOnTheMapsAsTheyWereAtTheCall) {
    IndexToInstId oneLeg = {{9, "SR509"}};
    serv.oneLegNames = {{7, "SR507"}};

    serv.StoreInstsToGlob(oneLeg, serv.oneLegNames, 0);

    EXPECT_THAT(serv.combineNames, ElementsAre(Pair(7, "SR507")));
}

// ---- to the card ----

TEST_F(GlobStore, NothingChosenIsReportedAndNoRegisterIsTouched) {
    serv.SubsFromGlobInsts();

    EXPECT_THAT(log.Take(),
                ElementsAre("WARN Subscribe:Meeting conditions count is:OneLeg:0, Combine:0. Now write to fpga!",
                            "INFO Warning !! The number of contracts that comply with the subscription rules is 0. "
                            "You subscribe no contract !!",
                            "INFO Subscribes:Write to fpga Over!", "INFO Already write into fpga, now read back!"));
    EXPECT_THAT(drv.TakeCalls(), IsEmpty());
}

TEST_F(GlobStore, InstrumentOfTwoChannelsIsWrittenOnceWithBothBits) {
    serv.StoreInstToGlob(0, 7, "SR505", 0);
    serv.StoreInstToGlob(0, 7, "SR505", 2);

    serv.SubsFromGlobInsts();

    EXPECT_THAT(drv.TakeCalls(), ElementsAre("WR 0x11001 0x5", "WR 0x11000 0x1c0", "WR 0x11002 0x1c0", "R 0x11003"));
    EXPECT_THAT(log.Take(),
                ElementsAre("WARN Subscribe:Meeting conditions count is:OneLeg:1, Combine:0. Now write to fpga!",
                            "INFO Subscribes:Write to fpga:chanbit:0x5, index:7, instId:SR505",
                            "INFO Subscribes:Write to fpga Over!", "INFO Already write into fpga, now read back!"));
}

TEST_F(GlobStore, SingleLegRowsThenCombinationRowsAreWrittenUpwardsAndThenReadBack) {
    serv.StoreInstToGlob(1, 2, "SPD-B", 1);
    serv.StoreInstToGlob(1, 1, "SPD-A", 1);
    serv.StoreInstToGlob(0, 9, "SR509", 0);
    serv.StoreInstToGlob(0, 7, "SR507", 0);
    drv.deafRows[0] = {9};

    serv.SubsFromGlobInsts();

    EXPECT_THAT(drv.TakeCalls(), ElementsAre("WR 0x11001 0x1", "WR 0x11000 0x1c0", "WR 0x11001 0x1", "WR 0x11000 0x240",
                                             "WR 0x12001 0x2", "WR 0x12000 0x40", "WR 0x12001 0x2", "WR 0x12000 0x80",
                                             "WR 0x11002 0x1c0", "R 0x11003", "WR 0x11002 0x240", "R 0x11003",
                                             "WR 0x12002 0x40", "R 0x12003", "WR 0x12002 0x80", "R 0x12003"));
    EXPECT_THAT(log.Take(),
                ElementsAre("WARN Subscribe:Meeting conditions count is:OneLeg:2, Combine:2. Now write to fpga!",
                            "INFO Subscribes:Write to fpga:chanbit:0x1, index:7, instId:SR507",
                            "INFO Subscribes:Write to fpga:chanbit:0x1, index:9, instId:SR509",
                            "INFO Subscribes:Write to fpga:chanbit:0x2, index:1, instId:SPD-A",
                            "INFO Subscribes:Write to fpga:chanbit:0x2, index:2, instId:SPD-B",
                            "INFO Subscribes:Write to fpga Over!", "INFO Already write into fpga, now read back!",
                            "WARN Attention! Maybe subscribed fail! Type 0, index:9, shouldbe:0x1, fpgavalue:0x0,"));
}

TEST_F(GlobStore, OnlyCombinationsChosenIsNotReportedAsNone) {
    serv.StoreInstToGlob(1, 1, "SPD-A", 0);

    serv.SubsFromGlobInsts();

    EXPECT_THAT(log.Take(),
                ElementsAre("WARN Subscribe:Meeting conditions count is:OneLeg:0, Combine:1. Now write to fpga!",
                            "INFO Subscribes:Write to fpga:chanbit:0x1, index:1, instId:SPD-A",
                            "INFO Subscribes:Write to fpga Over!", "INFO Already write into fpga, now read back!"));
}

}  // namespace
