#include <string>
#include <type_traits>
#include <vector>

#include "tests/unit/card/CardServiceFixture.h"
#include "tests/unit/card/MutexProbe.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using Vexo2_U50::CZceFpgaServ;

static_assert(std::has_virtual_destructor_v<CZceFpgaServ>, "channels delete it through a base of their own");

class CardTables : public test_support::CardServiceFixture {
protected:
    std::vector<bool> lockHeld;

    void WatchLock() {
        drv.onAccess = [this] { lockHeld.push_back(test_support::IsHeld(CZceFpgaServ::subscribe_mutex)); };
    }
};

// ---- construction ----

TEST_F(CardTables, NewServiceHasNoDriverAndEmptyMaps) {
    const CZceFpgaServ fresh(idToIndex, 7);

    EXPECT_EQ(fresh.channel, 7u);
    EXPECT_EQ(fresh.driver, nullptr);
    EXPECT_EQ(&fresh.instIdToIndex, &idToIndex);
    EXPECT_THAT(fresh.oneLegNames, IsEmpty());
    EXPECT_THAT(fresh.combineNames, IsEmpty());
    EXPECT_THAT(fresh.oneLegChanBits, IsEmpty());
    EXPECT_THAT(fresh.combineChanBits, IsEmpty());
}

TEST_F(CardTables, MembersStandInTheirFixedOrder) {
    auto& [channel, driver, instIdToIndex, oneLegNames, combineNames, oneLegBits, combineBits] = serv;

    EXPECT_EQ(&channel, &serv.channel);
    EXPECT_EQ(&driver, &serv.driver);
    EXPECT_EQ(&instIdToIndex, &serv.instIdToIndex);
    EXPECT_EQ(&oneLegNames, &serv.oneLegNames);
    EXPECT_EQ(&combineNames, &serv.combineNames);
    EXPECT_EQ(&oneLegBits, &serv.oneLegChanBits);
    EXPECT_EQ(&combineBits, &serv.combineChanBits);
}

TEST_F(CardTables, InitKeepsTheDriverAndTouchesNoRegister) {
    CZceFpgaServ fresh(idToIndex, 0);

    fresh.Init(&drv);

    EXPECT_EQ(fresh.driver, &drv);
    EXPECT_THAT(drv.TakeCalls(), IsEmpty());
}

TEST_F(CardTables, DebugLogAllInstDoesNothing) {
    serv.oneLegChanBits[1] = 1;

    serv.DebugLogAllInst();

    EXPECT_THAT(drv.TakeCalls(), IsEmpty());
    EXPECT_THAT(log.Take(), IsEmpty());
}

// ---- writing a mask ----

TEST_F(CardTables, SingleLegMaskGoesToTheDataRegisterAndThenTheRowIsCommanded) {
    serv.oneLegNames[7] = "SR505";

    serv.SubsOneInst(0, 7, 0x5);

    EXPECT_THAT(drv.TakeCalls(), ElementsAre("WR 0x11001 0x5", "WR 0x11000 0x1c0"));
    EXPECT_THAT(log.Take(), ElementsAre("INFO Subscribes:Write to fpga:chanbit:0x5, index:7, instId:SR505"));
}

TEST_F(CardTables, CombinationMaskUsesTheCombinationRegistersAndNames) {
    serv.oneLegNames[7] = "SR505";
    serv.combineNames[7] = "SPD-SR505/SR509";

    serv.SubsOneInst(1, 7, 0x8001);

    EXPECT_THAT(drv.TakeCalls(), ElementsAre("WR 0x12001 0x8001", "WR 0x12000 0x1c0"));
    EXPECT_THAT(log.Take(),
                ElementsAre("INFO Subscribes:Write to fpga:chanbit:0x8001, index:7, instId:SPD-SR505/SR509"));
}

TEST_F(CardTables, EveryTypeButZeroIsTheCombinationTable) {
    for (const int type : {1, 2, 128, 255}) {
        serv.SubsOneInst(static_cast<std::uint8_t>(type), 1, 1);
        EXPECT_THAT(drv.TakeCalls(), ElementsAre("WR 0x12001 0x1", "WR 0x12000 0x40")) << "type " << type;

        serv.SubsOneInstWithName(static_cast<std::uint8_t>(type), "", 1);
        EXPECT_EQ(drv.TakeCalls().front(), "WR 0x12002 0x40") << "type " << type;

        serv.IsSubscribeOk(static_cast<std::uint8_t>(type), 1, 1);
        EXPECT_THAT(drv.TakeCalls(), ElementsAre("WR 0x12002 0x40", "R 0x12003")) << "type " << type;
    }
}

TEST_F(CardTables, MaskReplacesWhatTheRowHeldBefore) {
    drv.words[0][5 << 6] = 0xFF;

    serv.SubsOneInst(0, 5, 0x2);

    EXPECT_EQ(drv.Mask(0, 5), 0x2u);
}

TEST_F(CardTables, MaskOfZeroIsWrittenToo) {
    serv.SubsOneInst(0, 5, 0);

    EXPECT_THAT(drv.TakeCalls(), ElementsAre("WR 0x11001 0x0", "WR 0x11000 0x140"));
    EXPECT_THAT(log.Take(), ElementsAre("INFO Subscribes:Write to fpga:chanbit:0x0, index:5, instId:"));
}

TEST_F(CardTables, WritingAMaskInsertsAnEmptyNameIntoItsOwnTableOnly) {
    serv.SubsOneInst(0, 3, 1);
    EXPECT_THAT(serv.oneLegNames, ElementsAre(Pair(3, "")));
    EXPECT_THAT(serv.combineNames, IsEmpty());

    serv.SubsOneInst(1, 4, 1);
    EXPECT_THAT(serv.oneLegNames, ElementsAre(Pair(3, "")));
    EXPECT_THAT(serv.combineNames, ElementsAre(Pair(4, "")));
}

TEST_F(CardTables, IndexesUpTo8192AreWrittenWithoutAnError) {
    for (const int index : {0, 1, 4095, 4096, 8191, 8192}) {
        serv.SubsOneInst(0, static_cast<std::uint16_t>(index), 1);
        EXPECT_THAT(
            log.Take(),
            ElementsAre("INFO Subscribes:Write to fpga:chanbit:0x1, index:" + std::to_string(index) + ", instId:"));
    }
}

TEST_F(CardTables, IndexAbove8192IsLoggedAsFailedAndWrittenAllTheSame) {
    serv.oneLegNames[8193] = "SR505";

    serv.SubsOneInst(0, 8193, 0x3);

    EXPECT_THAT(log.Take(),
                ElementsAre("ERROR Subscribes:Write to fpga failed ! :chanbit:0x3, index:8193, instId:SR505",
                            "INFO Subscribes:Write to fpga:chanbit:0x3, index:8193, instId:SR505"));
    EXPECT_THAT(drv.TakeCalls(), ElementsAre("WR 0x11001 0x3", "WR 0x11000 0x80040"));
}

TEST_F(CardTables, HighestIndexOfAllIsLoggedAsFailedAndWrittenAllTheSame) {
    serv.SubsOneInst(0, 65535, 0xFFFF);

    EXPECT_THAT(log.Take(), ElementsAre("ERROR Subscribes:Write to fpga failed ! :chanbit:0xffff, index:65535, instId:",
                                        "INFO Subscribes:Write to fpga:chanbit:0xffff, index:65535, instId:"));
    EXPECT_THAT(drv.TakeCalls(), ElementsAre("WR 0x11001 0xffff", "WR 0x11000 0x3fffc0"));
}

TEST_F(CardTables, ErrorForACombinationIndexAbove8192NamesTheSingleLegInstrument) {
    serv.oneLegNames[9000] = "SR505";
    serv.combineNames[9000] = "SPD-SR505/SR509";

    serv.SubsOneInst(1, 9000, 0x1);

    EXPECT_THAT(log.Take(),
                ElementsAre("ERROR Subscribes:Write to fpga failed ! :chanbit:0x1, index:9000, instId:SR505",
                            "INFO Subscribes:Write to fpga:chanbit:0x1, index:9000, instId:SPD-SR505/SR509"));
}

TEST_F(CardTables, CombinationIndexAbove8192InsertsAnEmptyNameIntoBothTables) {
    serv.SubsOneInst(1, 9000, 0x1);

    EXPECT_THAT(serv.oneLegNames, ElementsAre(Pair(9000, "")));
    EXPECT_THAT(serv.combineNames, ElementsAre(Pair(9000, "")));
}

TEST_F(CardTables, WritingAMaskTakesNoLock) {
    WatchLock();

    serv.SubsOneInst(0, 1, 1);

    EXPECT_THAT(lockHeld, ElementsAre(false, false));
}

// ---- writing a mask and an id ----

TEST_F(CardTables, WithNameAddsTheChannelsBitAndWritesThreeIdWords) {
    CZceFpgaServ third(idToIndex, 2);
    third.Init(&drv);
    drv.words[0][7 << 6] = 0x1;

    third.SubsOneInstWithName(0, "SR501", 7);

    EXPECT_THAT(drv.TakeCalls(), ElementsAre("WR 0x11002 0x1c0", "R 0x11003", "WR 0x11001 0x5", "WR 0x11000 0x1c0",
                                             "WR 0x11001 0x53523530", "WR 0x11000 0x1c1", "WR 0x11001 0x31000000",
                                             "WR 0x11000 0x1c2", "WR 0x11001 0x0", "WR 0x11000 0x1c3"));
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(CardTables, WithNameOnACombinationUsesTheCombinationRegisters) {
    serv.SubsOneInstWithName(1, "SPD-A", 8191);

    EXPECT_THAT(drv.TakeCalls(), ElementsAre("WR 0x12002 0x7ffc0", "R 0x12003", "WR 0x12001 0x1", "WR 0x12000 0x7ffc0",
                                             "WR 0x12001 0x5350442d", "WR 0x12000 0x7ffc1", "WR 0x12001 0x41000000",
                                             "WR 0x12000 0x7ffc2", "WR 0x12001 0x0", "WR 0x12000 0x7ffc3"));
}

TEST_F(CardTables, WithNameSetsTheBitOfEachOfThe16Channels) {
    for (unsigned int chan = 0; chan < 16; ++chan) {
        CZceFpgaServ service(idToIndex, chan);
        service.Init(&drv);
        service.SubsOneInstWithName(0, "SR505", static_cast<std::uint16_t>(chan));
        EXPECT_EQ(drv.Mask(0, chan), 1u << chan);
    }
}

TEST_F(CardTables, WithNameKeepsABitThatIsSetAlready) {
    drv.words[0][7 << 6] = 0x8001;

    serv.SubsOneInstWithName(0, "SR505", 7);

    EXPECT_EQ(drv.Mask(0, 7), 0x8001u);
}

TEST_F(CardTables, IdOfTwelveCharactersFillsThreeWordsWithoutAZeroByte) {
    serv.SubsOneInstWithName(0, "ABCDEFGHIJKL", 0);

    EXPECT_EQ(drv.words[0][1], 0x41424344u);
    EXPECT_EQ(drv.words[0][2], 0x45464748u);
    EXPECT_EQ(drv.words[0][3], 0x494A4B4Cu);
}

TEST_F(CardTables, CharactersAfterTheTwelfthAreNotWritten) {
    for (const std::string id : {"ABCDEFGHIJKLM", "ABCDEFGHIJKLMNOP", "ABCDEFGHIJKLMNOPQRST"}) {
        drv.words[0].clear();

        serv.SubsOneInstWithName(0, id, 0);

        EXPECT_EQ(drv.words[0][3], 0x494A4B4Cu) << id;
        EXPECT_EQ(drv.words[0].count(4), 0u) << id;
    }
}

TEST_F(CardTables, EmptyIdWritesThreeZeroWords) {
    drv.SetId(0, 0, "SR505C6000");

    serv.SubsOneInstWithName(0, "", 0);

    EXPECT_EQ(drv.words[0][1], 0u);
    EXPECT_EQ(drv.words[0][2], 0u);
    EXPECT_EQ(drv.words[0][3], 0u);
}

TEST_F(CardTables, IdBytesAbove127ArePackedUnsigned) {
    serv.SubsOneInstWithName(0, "\xFF\x80\x01\xFE", 0);

    EXPECT_EQ(drv.words[0][1], 0xFF8001FEu);
}

TEST_F(CardTables, WithNameHoldsTheLockFromTheFirstAccessToTheLast) {
    WatchLock();

    serv.SubsOneInstWithName(0, "SR505", 1);

    EXPECT_THAT(lockHeld, SizeIs(10));
    EXPECT_THAT(lockHeld, Each(true));
    EXPECT_FALSE(test_support::IsHeld(CZceFpgaServ::subscribe_mutex)) << "free again afterwards";
}

// ---- reading a mask back ----

TEST_F(CardTables, ReadBackSelectsTheRowsMaskWordAndReadsIt) {
    drv.words[0][7 << 6] = 0x3;

    EXPECT_TRUE(serv.IsSubscribeOk(0, 7, 0x3));

    EXPECT_THAT(drv.TakeCalls(), ElementsAre("WR 0x11002 0x1c0", "R 0x11003"));
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(CardTables, ReadBackSharingOneBitOfTheExpectedMaskCountsAsSubscribed) {
    drv.words[0][7 << 6] = 0x2;

    EXPECT_TRUE(serv.IsSubscribeOk(0, 7, 0x3));
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(CardTables, ReadBackWithMoreChannelsThanExpectedCountsAsSubscribed) {
    drv.words[1][7 << 6] = 0xFFFF;

    EXPECT_TRUE(serv.IsSubscribeOk(1, 7, 0x4));
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(CardTables, ReadBackWithoutASharedBitIsReportedAndFails) {
    drv.words[0][7 << 6] = 0x4;

    EXPECT_FALSE(serv.IsSubscribeOk(0, 7, 0x3));
    EXPECT_THAT(log.Take(), ElementsAre("WARN Attention! Maybe subscribed fail! Type 0, index:7, shouldbe:0x3, "
                                        "fpgavalue:0x4,"));
}

TEST_F(CardTables, WarningShowsTheTypeAsGivenAndAllOfTheCardsWord) {
    drv.words[1][65535U << 6] = 0xABCD0000;

    EXPECT_FALSE(serv.IsSubscribeOk(9, 65535, 0xFFFF));
    EXPECT_THAT(log.Take(), ElementsAre("WARN Attention! Maybe subscribed fail! Type 9, index:65535, "
                                        "shouldbe:0xffff, fpgavalue:0xabcd0000,"));
}

TEST_F(CardTables, ReadBackSucceedsExactlyWhenASingleBitIsShared) {
    for (unsigned int expected = 0; expected < 16; ++expected) {
        for (unsigned int value = 0; value < 16; ++value) {
            drv.words[0][0] = 1U << value;
            EXPECT_EQ(serv.IsSubscribeOk(0, 0, static_cast<std::uint16_t>(1U << expected)), expected == value)
                << "expected bit " << expected << ", card's bit " << value;
        }
    }
}

TEST_F(CardTables, NoExpectedBitNeverSucceeds) {
    drv.words[0][0] = 0xFFFF;

    EXPECT_FALSE(serv.IsSubscribeOk(0, 0, 0));
    EXPECT_THAT(log.Take(), ElementsAre("WARN Attention! Maybe subscribed fail! Type 0, index:0, shouldbe:0x0, "
                                        "fpgavalue:0xffff,"));
}

TEST_F(CardTables, ReadBackHoldsTheLockForSelectAndRead) {
    WatchLock();

    serv.IsSubscribeOk(0, 1, 1);

    EXPECT_THAT(lockHeld, ElementsAre(true, true));
    EXPECT_FALSE(test_support::IsHeld(CZceFpgaServ::subscribe_mutex)) << "free again afterwards";
}

// ---- reading everything back ----

TEST_F(CardTables, ReadBackOfNothingLogsItsMessageAndTouchesNoRegister) {
    serv.ReadBackAllInst();

    EXPECT_THAT(log.Take(), ElementsAre("INFO Already write into fpga, now read back!"));
    EXPECT_THAT(drv.TakeCalls(), IsEmpty());
}

TEST_F(CardTables, ReadBackOfAllGoesUpTheSingleLegRowsAndThenTheCombinationRows) {
    serv.oneLegChanBits = {{300, 0x1}, {2, 0x1}};
    serv.combineChanBits = {{8191, 0x1}, {1, 0x1}};
    for (const unsigned int row : {300U, 2U}) drv.words[0][row << 6] = 1;
    for (const unsigned int row : {8191U, 1U}) drv.words[1][row << 6] = 1;

    serv.ReadBackAllInst();

    EXPECT_THAT(drv.TakeCalls(), ElementsAre("WR 0x11002 0x80", "R 0x11003", "WR 0x11002 0x4b00", "R 0x11003",
                                             "WR 0x12002 0x40", "R 0x12003", "WR 0x12002 0x7ffc0", "R 0x12003"));
    EXPECT_THAT(log.Take(), ElementsAre("INFO Already write into fpga, now read back!"));
}

TEST_F(CardTables, ReadBackOfAllReportsEachFailingRowOnceAndRetriesNone) {
    serv.oneLegChanBits = {{2, 0x1}, {3, 0x6}};
    serv.combineChanBits = {{2, 0x8}};
    drv.words[0][2 << 6] = 0x1;
    drv.words[0][3 << 6] = 0x9;

    serv.ReadBackAllInst();

    EXPECT_THAT(log.Take(),
                ElementsAre("INFO Already write into fpga, now read back!",
                            "WARN Attention! Maybe subscribed fail! Type 0, index:3, shouldbe:0x6, fpgavalue:0x9,",
                            "WARN Attention! Maybe subscribed fail! Type 1, index:2, shouldbe:0x8, fpgavalue:0x0,"));
    EXPECT_THAT(drv.TakeCalls(), SizeIs(6));
}

// ---- a driver that reports failures ----

TEST_F(CardTables, FailuresOfTheDriverDoNotStopTheWriteOfAMask) {
    drv.reportFailure = true;

    serv.SubsOneInst(0, 7, 0x5);

    EXPECT_THAT(drv.TakeCalls(), ElementsAre("WR 0x11001 0x5", "WR 0x11000 0x1c0"));
    EXPECT_THAT(log.Take(), ElementsAre("INFO Subscribes:Write to fpga:chanbit:0x5, index:7, instId:"));
}

TEST_F(CardTables, FailuresOfTheDriverDoNotStopTheWriteOfAnId) {
    drv.reportFailure = true;
    drv.words[0][7 << 6] = 0x2;

    serv.SubsOneInstWithName(0, "SR505", 7);

    EXPECT_THAT(drv.TakeCalls(), SizeIs(10));
    EXPECT_EQ(drv.Mask(0, 7), 0x1u) << "a mask that cannot be read counts as empty";
}

TEST_F(CardTables, ReadBackThatFailsCountsAsAnEmptyMask) {
    drv.reportFailure = true;
    drv.words[0][7 << 6] = 0x1;

    EXPECT_FALSE(serv.IsSubscribeOk(0, 7, 0x1));
    EXPECT_THAT(log.Take(), ElementsAre("WARN Attention! Maybe subscribed fail! Type 0, index:7, shouldbe:0x1, "
                                        "fpgavalue:0x0,"));
}

}  // namespace
