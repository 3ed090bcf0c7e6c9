#include "tests/support/FailingNew.h"
#include "tests/support/HostCalls.h"
#include "tests/unit/channel/ChannelFixture.h"

#include "src/dayfile/DayFile.h"

namespace {

using test_support::FakeDrv;
using testing::ElementsAre;
using testing::IsEmpty;

using ChannelInit = ChannelTest;

std::vector<std::string> operator+(std::vector<std::string> head, const std::vector<std::string>& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

// The reset decision at noon, on a card that holds today's date: outside every window, no reset.
const std::vector<std::string> kUntouchedAtNoon = {
    "INFO [channel:0] Doesn't need to bind cpu.",
    "R 0x106",
    "INFO First time read fpga date:DATE, system date:DATE.",
    "R 0x106",
    "R 0x104",
    "R 0x105",
    "INFO [channel:0] Current fpga time:0. system time:120000.",
    "INFO System time:120000.",
    "R 0x106",
};

const std::vector<std::string> kReset = {
    "WL 0x10 0x1",
    "sleep 1",
    "WL 0x10 0x0",
    "ZERO 0x11000 0x0..0x3ffc0 by 0x1",
    "ZERO 0x12000 0x0..0x3ffc0 by 0x1",
    "INFO [channel:0] Clear all inst table over",
    "INFO Reset and Clear fpga table over.",
    "ZERO 0x11000 0x0..0x3ffc0 by 0x1",
    "ZERO 0x12000 0x0..0x3ffc0 by 0x1",
    "INFO [channel:0] Clear all inst table over",
};

const std::vector<std::string> kVersionAccepted = {
    "INFO Current soft version 1.1.2.13.",
    "INFO master channel addr 0x102, litte Endian  0x13020101",
    "W 0x102 0x1010213",
    "INFO master channel addr 0x102, big Endian  0x01010213",
    "R 0x101",
    "INFO hardware version check is success.",
    "R 0x103",
    "INFO hardware and soft version check is success.",
};

const std::vector<std::string> kNetworkAndFeeds = {
    "R 0x103",
    "INFO Fiber linkstatus 0x103:0xf.",
    "INFO config:L5_DSTPORT=28501",
    "W 0x304 0x6f55",
    "INFO Netfunction: L5 config item count is 1. Maybe lack item! please check! ",
    "INFO config:L5_IPA=239.3.50.1",
    "INFO multi channel 0x200 = 0x013203ef",
    "W 0x200 0xef033201",
    "INFO config:L5_IPB=239.3.51.1",
    "INFO multi channel 0x201 = 0x013303ef",
    "W 0x201 0xef033301",
    "INFO config:L1_IPA=239.3.10.1",
    "INFO multi channel 0x203 = 0x010a03ef",
    "W 0x203 0xef030a01",
    "INFO config:L1_IPB=239.3.11.1",
    "INFO multi channel 0x204 = 0x010b03ef",
    "W 0x204 0xef030b01",
    "INFO multi channel 0x202, config:L5_PORT = 18501",
    "W 0x202 0x4845",
    "INFO multi channel 0x205, config:L1_PORT = 18101",
    "W 0x205 0x46b5",
    "INFO L1 and L5 switch on.",
};

const std::vector<std::string> kOnePass = {
    "ZERO 0x11000 0x0..0x7ffc0 by 0x40",
    "ZERO 0x12000 0x0..0x7ffc0 by 0x40",
};

const std::vector<std::string> kDateThenNoSubscription =
    std::vector<std::string>{"W 0x106 HEXDATE", "INFO Update fpga addr 0x106 to DATE over"} + kOnePass + kOnePass +
    kOnePass + kOnePass + kOnePass + kOnePass + std::vector<std::string>{"INFO Unsubscribe all insts now"};

// ---- construction ----

TEST_F(ChannelInit, NewChannelKnowsItsThreePartnersAndNothingElse) {
    MakeChannel();

    EXPECT_EQ(channel->m_pDrv, drv);
    EXPECT_EQ(channel->m_pApi, &api);
    EXPECT_EQ(channel->m_pCfgFile, cfg.get());
    EXPECT_EQ(channel->m_uiChannel, 255U);
    EXPECT_FALSE(channel->m_bCfgParsed);
    EXPECT_FALSE(channel->m_bCfgInsSuccess);
    EXPECT_EQ(channel->m_tCfgSuccTime.time_since_epoch().count(), 0);
    EXPECT_EQ(channel->m_bRecvData, 0U);
    EXPECT_EQ(channel->m_ulParsedCnt, 0U);
    EXPECT_EQ(channel->m_pfnHandler, nullptr);
    EXPECT_EQ(channel->m_pHandlerCtx, nullptr);
    EXPECT_EQ(channel->m_pDma, nullptr);
    EXPECT_EQ(channel->m_pFpgaServ, nullptr);
    EXPECT_EQ(channel->m_pContractServ, nullptr);
    EXPECT_EQ(channel->m_pBinFile, nullptr);
    EXPECT_THAT(channel->m_mapInstIdx, IsEmpty());
    EXPECT_THAT(channel->m_vecRecvClass, IsEmpty());
}

TEST_F(ChannelInit, FieldsLieInTheirDocumentedOrder) {
    MakeChannel();
    const std::vector<const void*> fields = {
        &channel->m_bCfgParsed,  &channel->m_bCfgInsSuccess, &channel->m_tCfgSuccTime, &channel->m_bRecvData,
        &channel->m_ulParsedCnt, &channel->m_pfnHandler,     &channel->m_pHandlerCtx,  &channel->m_pDma,
        &channel->m_mapInstIdx,  &channel->m_vecRecvClass,   &channel->m_pFpgaServ,    &channel->m_pContractServ,
        &channel->m_pBinFile,    &channel->m_pCfgFile,       &channel->m_pDrv,         &channel->m_pApi,
        &channel->m_uiChannel};

    EXPECT_TRUE(std::is_sorted(fields.begin(), fields.end()));
}

// ---- Init ----

TEST_F(ChannelInit, MasterPreparesTheCardStepByStep) {
    MakeChannel();

    EXPECT_EQ(channel->Init(&parms), 0);

    ExpectTimeline(kUntouchedAtNoon + kVersionAccepted + kNetworkAndFeeds + kDateThenNoSubscription);
    EXPECT_EQ(channel->m_uiChannel, 0U);
}

TEST_F(ChannelInit, MasterResetsACardOfAnotherDayBeforeTheVersionCheck) {
    MakeChannel();
    drv->registers[0x106] = 20250303;

    EXPECT_EQ(channel->Init(&parms), 0);

    ExpectTimeline(std::vector<std::string>{"INFO [channel:0] Doesn't need to bind cpu.", "R 0x106",
                                            "INFO First time read fpga date:20250303, system date:DATE."} +
                   kReset + kVersionAccepted + kNetworkAndFeeds + kDateThenNoSubscription);
}

TEST_F(ChannelInit, ServicesShareTheChannelsMapDriverAndRules) {
    MakeChannel();

    ASSERT_EQ(channel->Init(&parms), 0);

    EXPECT_EQ(&channel->m_pFpgaServ->instIdToIndex, &channel->m_mapInstIdx);
    EXPECT_EQ(channel->m_pFpgaServ->driver, drv);
    EXPECT_EQ(channel->m_pFpgaServ->channel, 0U);
    EXPECT_EQ(&channel->m_pBinFile->m_Intrade_AllInstMap, &channel->m_mapInstIdx);
    EXPECT_EQ(channel->m_pBinFile->m_uiChannel, 0U);
    EXPECT_EQ(&channel->m_pContractServ->instIdToIndex, &channel->m_mapInstIdx);
    EXPECT_EQ(channel->m_pContractServ->config, cfg.get());
    EXPECT_EQ(channel->m_pContractServ->binFile, channel->m_pBinFile);
    EXPECT_EQ(channel->m_pContractServ->fpgaServ, channel->m_pFpgaServ);
    EXPECT_EQ(&channel->m_pContractServ->subsInfo, &cfg->getArrayReference());
    EXPECT_EQ(channel->m_pContractServ->channel, 0U);
}

TEST_F(ChannelInit, OtherChannelsOnlyBindTheirCpu) {
    MakeChannel(kSlaveIni);

    EXPECT_EQ(channel->Init(&parms), 0);

    ExpectTimeline({"INFO [channel:3] Doesn't need to bind cpu."});
    EXPECT_EQ(channel->m_uiChannel, 255U);
    EXPECT_EQ(channel->m_pFpgaServ, nullptr);
    EXPECT_EQ(channel->m_pContractServ, nullptr);
    EXPECT_EQ(channel->m_pBinFile, nullptr);
}

TEST_F(ChannelInit, OtherChannelsDoNotAskForAWritableDirectory) {
    HostCalls host;
    host.accessError = EACCES;
    time.SetLocal(day.year, day.month, day.day, 8, 0, 0);
    MakeChannel(kSlaveIni);

    EXPECT_EQ(channel->Init(&parms), 0);
    EXPECT_THAT(host.accessModes, IsEmpty());
}

TEST_F(ChannelInit, VersionRefusedEndsThePreparation) {
    MakeChannel();
    drv->registers[0x101] = 11;

    EXPECT_EQ(channel->Init(&parms), -1);

    ExpectTimeline(kUntouchedAtNoon + std::vector<std::string>{
                                          "INFO Current soft version 1.1.2.13.",
                                          "INFO master channel addr 0x102, litte Endian  0x13020101",
                                          "W 0x102 0x1010213",
                                          "INFO master channel addr 0x102, big Endian  0x01010213",
                                          "R 0x101",
                                          "ERROR you will need to update your hardware version.",
                                          "ERROR soft version 1.1.2.13, hwVersion is 12 > fpga hwVersion is 11",
                                      });
}

TEST_F(ChannelInit, UnwritableDirectoryEndsItBeforeAnythingIsMade) {
    HostCalls host;
    host.accessError = EACCES;
    host.users[0] = "root";
    time.SetLocal(day.year, day.month, day.day, 8, 30, 0);
    MakeChannel();

    EXPECT_EQ(channel->Init(&parms), -1);

    ExpectTimeline({"INFO [channel:0] Doesn't need to bind cpu.",
                    "INFO Error! Current user does not have read/write access to the current directory.",
                    "INFO Please run this program as user root or root!"});
    EXPECT_EQ(channel->m_uiChannel, 255U);
    EXPECT_EQ(channel->m_pFpgaServ, nullptr);
}

struct ServiceRow {
    const char* name;
    int nth;
    const char* message;
    int made;
};

class ServiceTable : public ChannelInit, public testing::WithParamInterface<ServiceRow> {};

TEST_P(ServiceTable, ServiceThatGetsNoMemoryEndsThePreparation) {
    MakeChannel();
    int result = 0;
    {
        const FailingNew failing(GetParam().nth);
        result = channel->Init(&parms);
    }
    EXPECT_EQ(result, -1);
    ExpectTimeline({"INFO [channel:0] Doesn't need to bind cpu.", GetParam().message});
    const int made = (channel->m_pFpgaServ != nullptr ? 1 : 0) + (channel->m_pBinFile != nullptr ? 1 : 0) +
                     (channel->m_pContractServ != nullptr ? 1 : 0);
    EXPECT_EQ(made, GetParam().made);
}

INSTANTIATE_TEST_SUITE_P(ChannelInit, ServiceTable,
                         testing::Values(ServiceRow{"Card", 1, "ERROR New fpga service fail", 0},
                                         ServiceRow{"IndexFile", 2, "ERROR New bin file service fail", 1},
                                         ServiceRow{"Contract", 3, "ERROR New contract service fail", 2}),
                         [](const auto& test) { return test.param.name; });

// ---- end of a channel ----

TEST_F(ChannelInit, EndOfAChannelEndsItsStreamDriver) {
    MakeChannel(kSlaveIni);
    MakeDma();
    const int before = test_support::FakeDma::destroyed;

    channel.reset();

    EXPECT_EQ(test_support::FakeDma::destroyed, before + 1);
}

TEST_F(ChannelInit, EndOfChannel0EndsTheRegisterDriver) {
    MakeChannel();
    ASSERT_EQ(channel->Init(&parms), 0);
    auto* fpga = channel->m_pFpgaServ;
    auto* contract = channel->m_pContractServ;
    auto* bin = channel->m_pBinFile;
    const int before = FakeDrv::destroyed;
    Timeline();

    channel.reset();

    EXPECT_EQ(FakeDrv::destroyed, before + 1);
    // What a service of an ended channel still answers shows that it lives on.
    EXPECT_EQ(contract->binFile, bin);
    EXPECT_EQ(contract->fpgaServ, fpga);
    delete contract;
    delete bin;
    delete fpga;
    drv = nullptr;
}

TEST_F(ChannelInit, EndOfAnotherChannelLeavesTheRegisterDriver) {
    MakeChannel(kSlaveIni);
    ASSERT_EQ(channel->Init(&parms), 0);
    const int before = FakeDrv::destroyed;

    channel.reset();

    EXPECT_EQ(FakeDrv::destroyed, before);
}

TEST_F(ChannelInit, DriverThatTwoChannel0ObjectsShareEndsWithTheLast) {
    MakeChannel();
    ASSERT_EQ(channel->Init(&parms), 0);
    drv->scripted[0x103] = {1};
    auto second = std::make_unique<CZceDmaChanImpl>(drv, &api, cfg.get());
    ASSERT_EQ(second->Init(&parms), 0);
    auto* fpga = second->m_pFpgaServ;
    auto* contract = second->m_pContractServ;
    auto* bin = second->m_pBinFile;
    const int before = FakeDrv::destroyed;

    second.reset();
    EXPECT_EQ(FakeDrv::destroyed, before);
    delete contract;
    delete bin;
    delete fpga;

    // The fixture ends the first one; its driver must still be there to be asked.
    unsigned int value = 0;
    EXPECT_EQ(channel->m_pDrv->ReadInt32(0x101, value), 0);
    EXPECT_EQ(value, 12U);
}

TEST_F(ChannelInit, Channel0ThatIsPreparedAgainAfterAFailureEndsTheRegisterDriver) {
    MakeChannel();
    drv->scripted[card_reg::kVerdictOrFibre] = {card_reg::kVerdictTooOld, card_reg::kVerdictAccepted};
    ASSERT_EQ(channel->Init(&parms), -1);
    delete channel->m_pContractServ;
    delete channel->m_pBinFile;
    delete channel->m_pFpgaServ;
    ASSERT_EQ(channel->Init(&parms), 0);
    const int before = FakeDrv::destroyed;

    EndChannel();

    EXPECT_EQ(FakeDrv::destroyed, before + 1);
}

TEST_F(ChannelInit, Channel0ThatNeverTookTheDriverOverEndsItAllTheSame) {
    MakeChannel();
    channel->m_uiChannel = 0;
    const int before = FakeDrv::destroyed;

    channel.reset();

    EXPECT_EQ(FakeDrv::destroyed, before + 1);
    drv = nullptr;
}

}  // namespace
