#include "tests/unit/channel/ChannelFixture.h"

#include <cerrno>
#include <filesystem>

#include "src/driver/DmaStream.h"
#include "tests/doubles/FakeEnyxHw.h"

namespace {

using test_support::FakeEnyxHw;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class ChannelWork : public ChannelTest {
protected:
    // The stream driver talks to the card when it ends.
    ~ChannelWork() override { EndChannel(); }

    /// The channel as Init leaves it, and a healthy card beneath its stream.
    void MakeReady(const std::string& ini = kMasterIni) {
        MakeChannel(ini);
        if (!cfg->bIsMasterChannel()) return;
        MakeServices();
        channel->m_bCfgParsed = false;
        channel->m_uiChannel = 0;
    }
    FakeEnyxHw hw;
};

const std::vector<std::string> kLearning = {
    "INFO bin file is not exists , [/tmp/.zce_DATE_am].",
    "WL 0x12 0x1",
    "INFO Fpga start transmit inst map pkt.",
    "WL 0x11 0x3",
    "INFO Now Fpga start trans subscribe result! write 0x11 value:0x3.",
};

std::vector<std::string> operator+(std::vector<std::string> head, const std::vector<std::string>& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

// ---- instruments ----

TEST_F(ChannelWork, WithoutADayFileTheCardIsAskedForItsMap) {
    MakeReady();

    EXPECT_EQ(channel->Work(&parms), 0);

    ExpectTimeline(kLearning + std::vector<std::string>{"INFO Init dma channel :CUSTOM_CHAN0_DATA success."});
    EXPECT_EQ(day.ReadMorning(), "inst_index,inst_id\n");
    EXPECT_FALSE(channel->m_bCfgParsed);
}

TEST_F(ChannelWork, DayFileWithoutItsEndTagIsStartedAfresh) {
    MakeReady();
    day.WriteMorning("inst_index,inst_id\n7,SR505\n");

    EXPECT_EQ(channel->Work(&parms), 0);

    EXPECT_THAT(Timeline(), testing::StartsWith("INFO m_Intrade_AllInstMap size is [1].\n"
                                                "INFO loading bin file is fail\n"
                                                "WL 0x12 0x1\n"));
    EXPECT_EQ(day.ReadMorning(), "inst_index,inst_id\n");
    EXPECT_THAT(channel->m_mapInstIdx, IsEmpty());
}

TEST_F(ChannelWork, MapIsLearnedAlsoWhenTheDayFileCannotBeMade) {
    MakeReady();
    std::filesystem::create_directory(day.MorningPath());

    EXPECT_EQ(channel->Work(&parms), 0);

    EXPECT_THAT(Timeline(), testing::HasSubstr("WARN open contract index file failed " + day.MorningPath() + ".\n"));
    EXPECT_EQ(drv->registers[0x12], 1U);
    EXPECT_EQ(drv->registers[0x11], 3U);
}

TEST_F(ChannelWork, RestoredMapIsFilteredAndSubscribedAtOnce) {
    MakeReady(std::string(kMasterIni) +
              "[channel0]\ninsts = SR\noptions = norecv\nspd = recv\n"
              "[channel2]\ninsts = SR505\noptions = norecv\n");
    day.WriteMorning("inst_index,inst_id\n7,SR505\n9,CF501\n3,SPD-SR505/SR509\nbin_file_over_tag\n");
    drv->words[0][7 << 6] = 0x5;
    drv->words[1][3 << 6] = 0x1;

    EXPECT_EQ(channel->Work(&parms), 0);

    std::vector<std::string> expected = {
        "INFO Get file end flag is success.",
        "INFO m_Intrade_AllInstMap size is [3].",
        "INFO loading bin file is success",
        "INFO Get inst from bin success",
        "WL 0x12 0x0",
        "INFO Fpga stop transmit inst map pkt.",
        "INFO [channel:0] --------Channel 0 subscribed information is as below:--------",
        "INFO [channel:0] subClass:SR,",
        "INFO [channel:0] options=norecv",
        "INFO [channel:0] spd=recv",
        "INFO --------------------------------------------------------",
        "INFO [channel:2] --------Channel 2 subscribed information is as below:--------",
        "INFO [channel:2] subId:SR505",
        "INFO [channel:2] options=norecv",
        "INFO Begin match needed inst! AllInstNum:3.",
    };
    const auto counts = [](int chan) { return chan == 0 ? "1,1" : chan == 2 ? "1,0" : "0,0"; };
    for (int chan = 0; chan < 16; ++chan) {
        const std::string both = counts(chan);
        expected.push_back("INFO [channel:" + std::to_string(chan) + "] Filter needed sgl count:" + both.substr(0, 1) +
                           ", cmb count:" + both.substr(2) + ".");
    }
    for (int chan = 0; chan < 16; ++chan) {
        const std::string both = counts(chan);
        const std::string begin = "INFO [channel:" + std::to_string(chan) + "] ";
        expected.push_back(begin + "Record func:Meeting conditions count is:OneLeg:" + both.substr(0, 1) +
                           ", Combine:" + both.substr(2) + ".");
        if (both == "0,0") expected.push_back(begin + "Matched subs inst count is 0. you doesn't subscribe inst.");
    }
    ExpectTimeline(expected + std::vector<std::string>{
                                  "WARN Subscribe:Meeting conditions count is:OneLeg:1, Combine:1. Now write to fpga!",
                                  "WR 0x11001 0x5",
                                  "WR 0x11000 0x1c0",
                                  "INFO Subscribes:Write to fpga:chanbit:0x5, index:7, instId:SR505",
                                  "WR 0x12001 0x1",
                                  "WR 0x12000 0xc0",
                                  "INFO Subscribes:Write to fpga:chanbit:0x1, index:3, instId:SPD-SR505/SR509",
                                  "INFO Subscribes:Write to fpga Over!",
                                  "INFO Already write into fpga, now read back!",
                                  "WR 0x11002 0x1c0",
                                  "R 0x11003",
                                  "WR 0x12002 0xc0",
                                  "R 0x12003",
                                  "WL 0x11 0x3",
                                  "INFO Now Fpga start trans subscribe result! write 0x11 value:0x3.",
                                  "INFO Bin inst count:3",
                                  "INFO Init dma channel :CUSTOM_CHAN0_DATA success.",
                              });
    EXPECT_THAT(channel->m_mapInstIdx,
                ElementsAre(testing::Pair("CF501", 9), testing::Pair("SPD-SR505/SR509", 3), testing::Pair("SR505", 7)));
}

TEST_F(ChannelWork, RestoredDayFileIsLeftAsItIs) {
    MakeReady();
    const std::string content = "inst_index,inst_id\n7,SR505\nbin_file_over_tag\n";
    day.WriteMorning(content);

    ASSERT_EQ(channel->Work(&parms), 0);

    EXPECT_EQ(day.ReadMorning(), content);
}

TEST_F(ChannelWork, OtherChannelsOnlyOpenTheirStream) {
    MakeReady(kSlaveIni);
    day.WriteMorning("inst_index,inst_id\n7,SR505\nbin_file_over_tag\n");
    hw.cards = 3;
    parms = {2, 474, "CUSTOM_CHAN3_DATA"};

    EXPECT_EQ(channel->Work(&parms), 0);

    ExpectTimeline({"INFO Init dma channel :CUSTOM_CHAN3_DATA success."});
    EXPECT_THAT(channel->m_mapInstIdx, IsEmpty());
}

// ---- the stream ----

TEST_F(ChannelWork, StreamOfTheRecordsCardAndNameIsOpened) {
    MakeReady(kSlaveIni);
    hw.cards = 3;
    parms = {2, 474, "CUSTOM_CHAN3_DATA"};

    ASSERT_EQ(channel->InitDma(&parms), 0);

    const std::vector<std::string> calls = hw.TakeCalls();
    EXPECT_THAT(calls, Contains("filter_set_index filter1 2 -> 0"));
    EXPECT_THAT(calls, Contains("filter_set_name filter2 CUSTOM_CHAN3_DATA -> 0"));
    EXPECT_THAT(hw.Live(), ElementsAre("a2c1", "c2a1"));
    channel.reset();
    EXPECT_THAT(hw.Live(), IsEmpty());
}

TEST_F(ChannelWork, StreamDriverGetsItsThreeFixedNumbers) {
    MakeReady(kSlaveIni);

    ASSERT_EQ(channel->InitDma(&parms), 0);

    const auto* dma = dynamic_cast<const CDrvDMAEnyx*>(channel->m_pDma);
    ASSERT_NE(dma, nullptr);
    EXPECT_EQ(dma->m_uiBusId, 0U);
    EXPECT_EQ(dma->m_strCfgName, "CUSTOM_CHAN0_DATA");
    EXPECT_EQ(dma->m_uiParm1, 0U);
    EXPECT_EQ(dma->m_uiParm2, 64U);
    EXPECT_EQ(dma->m_uiParm3, 0U);
}

TEST_F(ChannelWork, StreamThatSomebodyHoldsIsReportedByEveryLayer) {
    MakeReady(kSlaveIni);
    parms = {0, 474, "CUSTOM_CHAN3_DATA"};
    hw.Fail("a2c_stream_create", EBUSY);

    EXPECT_EQ(channel->Work(&parms), -1);

    ExpectTimeline({"ERROR Could not create a2c stream.dmaName:CUSTOM_CHAN3_DATA,  err:Device or resource busy",
                    "ERROR Note !! A software program can only have one instance running at a time!",
                    "ERROR Init DMA error!", "ERROR Dma init busid:0, chanName:CUSTOM_CHAN3_DATA fail!",
                    "ERROR [channel:255] Init dma fail! dma name CUSTOM_CHAN3_DATA."});
}

TEST_F(ChannelWork, FailedStreamOfTheMasterNamesChannel0) {
    MakeReady();
    hw.cards = 0;

    EXPECT_EQ(channel->Work(&parms), -1);

    EXPECT_THAT(Timeline(), testing::EndsWith("ERROR Init Accelerator error!\n"
                                              "ERROR Init DMA error!\n"
                                              "ERROR Dma init busid:0, chanName:CUSTOM_CHAN0_DATA fail!\n"
                                              "ERROR [channel:0] Init dma fail! dma name CUSTOM_CHAN0_DATA.\n"));
}

TEST_F(ChannelWork, StreamDriverThatFailedIsEndedWithTheChannel) {
    MakeReady(kSlaveIni);
    hw.cards = 0;
    ASSERT_EQ(channel->InitDma(&parms), -1);
    ASSERT_NE(channel->m_pDma, nullptr);
    Timeline();

    channel.reset();

    ExpectTimeline({"INFO dma channel CUSTOM_CHAN0_DATA has released."});
}

TEST_F(ChannelWork, MissingRecordIsRefused) {
    MakeReady(kSlaveIni);

    EXPECT_EQ(channel->InitDma(nullptr), -1);

    ExpectTimeline({"ERROR Init dma null fail"});
    EXPECT_EQ(channel->m_pDma, nullptr);
}

TEST_F(ChannelWork, MissingRecordEndsTheWorkWithAnEmptyName) {
    MakeReady(kSlaveIni);

    EXPECT_EQ(channel->Work(nullptr), -1);

    ExpectTimeline({"ERROR Init dma null fail", "ERROR [channel:255] Init dma fail! dma name ."});
}

// ---- the end ----

TEST_F(ChannelWork, EndOfAChannelReportsItsCountersAndClosesItsStreams) {
    MakeReady(kSlaveIni);
    hw.counters["CUSTOM_CHAN3_DATA"] = {0, 42, 0, 0};
    parms = {0, 474, "CUSTOM_CHAN3_DATA"};
    ASSERT_EQ(channel->Work(&parms), 0);
    Timeline();

    channel.reset();

    ExpectTimeline({"INFO [channel:3] DMA count info: backpress:0, dma2soft:42, fifo:0, error:0.",
                    "INFO dma channel CUSTOM_CHAN3_DATA has released."});
    EXPECT_THAT(hw.Live(), IsEmpty());
}

}  // namespace
