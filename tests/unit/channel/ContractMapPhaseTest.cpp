#include "tests/unit/channel/ChannelFixture.h"

namespace {

using testing::ElementsAre;

/// A channel that still waits for what it is configured for.
class MapPhase : public ChannelTest {
protected:
    MapPhase() {
        MakeChannel();
        MakeServices();
    }
    void Deliver(const MapPacket& packet) {
        CZceDmaChanImpl::DmaEntrance(packet.Bytes().data(), static_cast<unsigned int>(packet.Bytes().size()),
                                     channel.get());
    }
    /// The line that each channel's check begins with, for channels 0 to @p last; sizes as in "0,0".
    static std::vector<std::string> Checked(unsigned int last, unsigned int special = 99,
                                            const std::string& sizes = "") {
        std::vector<std::string> lines;
        for (unsigned int chan = 0; chan <= last; ++chan) {
            const std::string both = chan == special ? sizes : "0,0";
            const std::size_t comma = both.find(',');
            lines.push_back("INFO channel is " + std::to_string(chan) + ", m_SubsContractClass size is " +
                            both.substr(0, comma) + ", m_SubsContractId is " + both.substr(comma + 1) + ".");
        }
        return lines;
    }
    static std::vector<std::string> With(std::vector<std::string> lines, const std::vector<std::string>& more) {
        lines.insert(lines.end(), more.begin(), more.end());
        return lines;
    }
    const std::vector<std::string> closing = {"WL 0x12 0x0", "INFO Fpga stop transmit inst map pkt."};
};

// ---- CheckConfigInst ----

using ConfigCheck = MapPhase;

TEST_F(ConfigCheck, NothingConfiguredPassesAtOnce) {
    EXPECT_EQ(channel->CheckConfigInst(), 0);

    ExpectTimeline(Checked(15));
}

TEST_F(ConfigCheck, MissingClassEndsTheCheck) {
    Rules(3).m_SubsContractClass = {"SR", "TA"};
    Rules(4).m_SubsContractClass = {"MA"};
    channel->m_vecRecvClass = {"SR"};

    EXPECT_EQ(channel->CheckConfigInst(), -1);

    ExpectTimeline(With(Checked(3, 3, "2,0"), {"INFO Prefix is TA."}));
}

TEST_F(ConfigCheck, MissingIdEndsTheCheck) {
    Rules(3).m_SubsContractId = {"SR505", "SR506", "SR507"};
    channel->m_mapInstIdx["SR505"] = 1;

    EXPECT_EQ(channel->CheckConfigInst(), -2);

    ExpectTimeline(With(Checked(3, 3, "0,3"), {"INFO instId is SR506 ."}));
}

TEST_F(ConfigCheck, ClassesAreCheckedBeforeIds) {
    Rules(0).m_SubsContractClass = {"SR"};
    Rules(0).m_SubsContractId = {"TA505"};

    EXPECT_EQ(channel->CheckConfigInst(), -1);

    ExpectTimeline(With(Checked(0, 0, "1,1"), {"INFO Prefix is SR."}));
}

TEST_F(ConfigCheck, EverythingSeenPasses) {
    Rules(0).m_SubsContractClass = {"SR"};
    Rules(15).m_SubsContractId = {"TA505"};
    channel->m_vecRecvClass = {"TA", "SR"};
    channel->m_mapInstIdx["TA505"] = 1;

    EXPECT_EQ(channel->CheckConfigInst(), 0);

    EXPECT_EQ(Timeline().find("Prefix"), std::string::npos);
}

TEST_F(ConfigCheck, LastChannelCountsAsMuchAsTheFirst) {
    Rules(15).m_SubsContractId = {"TA505"};

    EXPECT_EQ(channel->CheckConfigInst(), -2);

    ExpectTimeline(With(Checked(15, 15, "0,1"), {"INFO instId is TA505 ."}));
}

TEST_F(ConfigCheck, AllNeedsMoreThan24576Entries) {
    Rules(2).m_SubsContractClass = {"all"};
    channel->m_ulParsedCnt = 24576;

    EXPECT_EQ(channel->CheckConfigInst(), -2);

    ExpectTimeline(With(Checked(2, 2, "1,0"), {"INFO all inst not recv success, inst type is all."}));
}

TEST_F(ConfigCheck, AllSettlesTheChannelsBehindItToo) {
    Rules(2).m_SubsContractClass = {"all", "ZZ"};
    Rules(2).m_SubsContractId = {"ZZ505"};
    Rules(3).m_SubsContractId = {"ZZ506"};
    channel->m_ulParsedCnt = 24577;

    EXPECT_EQ(channel->CheckConfigInst(), 0);

    ExpectTimeline(Checked(2, 2, "2,1"));
}

TEST_F(ConfigCheck, ClassInFrontOfAllIsCheckedFirst) {
    Rules(2).m_SubsContractClass = {"ZZ", "all"};
    channel->m_ulParsedCnt = 30000;

    EXPECT_EQ(channel->CheckConfigInst(), -1);

    ExpectTimeline(With(Checked(2, 2, "2,0"), {"INFO Prefix is ZZ."}));
}

TEST_F(ConfigCheck, AllIsMeantOnlyInSmallLettersAndAlone) {
    channel->m_ulParsedCnt = 30000;
    for (const char* cls : {"ALL", "All", "all ", "allSR"}) {
        Rules(0).m_SubsContractClass = {cls};
        EXPECT_EQ(channel->CheckConfigInst(), -1) << cls;
    }
}

TEST_F(ConfigCheck, ClassOfOtherLengthThanTwoIsNeverSeen) {
    Deliver(MapPacket().Add("SPD-SR505/SR509", 1));
    Rules(0).m_SubsContractClass = {"SPD"};

    EXPECT_EQ(channel->CheckConfigInst(), -1);
}

// ---- the course of the phase ----

TEST_F(MapPhase, FirstContractMapPacketParsesTheRules) {
    EndChannel();
    MakeChannel(std::string(kMasterIni) + "[channel0]\ninsts = SR505,TA\noptions = norecv\n");
    MakeServices();
    channel->m_bCfgParsed = false;

    Deliver(MapPacket().Add("MA505", 1));

    EXPECT_TRUE(channel->m_bCfgParsed);
    EXPECT_THAT(Rules(0).m_SubsContractId, ElementsAre("SR505"));
    EXPECT_THAT(Rules(0).m_SubsContractClass, ElementsAre("TA"));
    Deliver(MapPacket().Add("MA506", 2));
    EXPECT_THAT(Rules(0).m_SubsContractId, ElementsAre("SR505"));
}

TEST_F(MapPhase, RulesAreParsedBeforeTheMessagesAreSubscribed) {
    EndChannel();
    MakeChannel(std::string(kMasterIni) + "[channel0]\ninsts = SR\noptions = norecv\n");
    MakeServices();
    channel->m_bCfgParsed = false;

    Deliver(MapPacket().Add("SR505", 7));

    EXPECT_EQ(drv->Mask(0, 7), 1U);
}

TEST_F(MapPhase, PacketThatCompletesTheConfigurationStartsTheDelay) {
    Rules(0).m_SubsContractId = {"SR505"};

    Deliver(MapPacket().Add("TA505", 1));
    ExpectTimeline(With(Checked(0, 0, "0,1"), {"INFO instId is SR505 ."}));
    EXPECT_FALSE(channel->m_bCfgInsSuccess);

    time.Advance(100);
    Deliver(MapPacket().Add("SR505", 2));

    EXPECT_THAT(Timeline(), testing::EndsWith("INFO check config is success. m_bCfgInsSuccess is 1.\n"));
    EXPECT_TRUE(channel->m_bCfgInsSuccess);
    EXPECT_EQ(channel->m_tCfgSuccTime, std::chrono::system_clock::now());
}

TEST_F(MapPhase, AnIncompleteConfigurationIsNoError) {
    Rules(0).m_SubsContractId = {"SR999"};
    const std::vector<unsigned char> packet = MapPacket().Add("SR505", 7).Bytes();

    EXPECT_EQ(channel->HandleContMapPkt(packet.data(), static_cast<unsigned int>(packet.size()), channel.get()), 0);

    EXPECT_FALSE(channel->m_bCfgInsSuccess);
}

TEST_F(MapPhase, CheckIsNotRepeatedOnceItHasPassed) {
    Deliver(MapPacket().Add("SR505", 1));
    ExpectTimeline(With(Checked(15), {"INFO check config is success. m_bCfgInsSuccess is 1."}));

    Deliver(MapPacket().Add("SR506", 2));

    ExpectTimeline({});
}

TEST_F(MapPhase, BrokenPacketIsFollowedByTheCheckAllTheSame) {
    Deliver(MapPacket().AddRaw(3, 1, "SR505"));

    EXPECT_THAT(Timeline(), testing::EndsWith("INFO check config is success. m_bCfgInsSuccess is 1.\n"));
}

// ---- the delay ----

class MapDelay : public MapPhase {
protected:
    MapDelay() {
        channel->m_pBinFile->InstBinFileInit();
        Deliver(MapPacket().Add("SR505", 1));
        Timeline();
    }
    std::vector<std::string> Closed(int elapsed) const {
        return With(closing,
                    {"INFO write bin file is success, snapInitIntervelSeconds is " + std::to_string(elapsed) + "."});
    }
    const MapPacket repeat = MapPacket().Add("SR505", 1);
};

TEST_F(MapDelay, MapIsClosedByTheFirstPacketAfterMoreThan900Seconds) {
    time.Advance(900);
    Deliver(repeat);
    ExpectTimeline({});
    EXPECT_EQ(day.ReadMorning(), "inst_index,inst_id\n1,SR505\n");

    time.Advance(1);
    ExpectTimeline({});  // nothing happens without a packet
    Deliver(repeat);
    ExpectTimeline(Closed(901));
    EXPECT_EQ(day.ReadMorning(), "inst_index,inst_id\n1,SR505\nbin_file_over_tag\n");
}

TEST_F(MapDelay, OnlyWholeSecondsCount) {
    time.AdvanceNs(901LL * 1000000000 - 1);
    Deliver(repeat);
    ExpectTimeline({});

    time.AdvanceNs(1);
    Deliver(repeat);
    ExpectTimeline(Closed(901));
}

TEST_F(MapDelay, InstrumentOfTheClosingPacketStandsBeforeTheEndTag) {
    time.Advance(901);

    Deliver(MapPacket().Add("SR506", 2));

    EXPECT_EQ(day.ReadMorning(), "inst_index,inst_id\n1,SR505\n2,SR506\nbin_file_over_tag\n");
}

TEST_F(MapDelay, PacketsThatStillArriveCloseAgain) {
    time.Advance(901);
    Deliver(repeat);
    Timeline();

    time.Advance(2);
    Deliver(repeat);
    Deliver(MapPacket().Add("SR506", 2));

    ExpectTimeline(With(Closed(903), Closed(903)));
    EXPECT_EQ(day.ReadMorning(),
              "inst_index,inst_id\n1,SR505\nbin_file_over_tag\nbin_file_over_tag\n2,SR506\nbin_file_over_tag\n");
}

TEST_F(MapDelay, MarketDataClosesNothing) {
    time.Advance(5000);
    std::vector<unsigned char> quote(64);
    quote[0] = 17;

    CZceDmaChanImpl::DmaEntrance(quote.data(), 64, channel.get());

    ExpectTimeline({});
}

TEST_F(MapDelay, ClockSetBackClosesNothing) {
    time.Advance(-100000);
    Deliver(repeat);

    ExpectTimeline({});
}

TEST_F(MapDelay, DelayOfTheConfigurationCountsInMinutes) {
    cfg->m_binDelayTime = 2;
    time.Advance(120);
    Deliver(repeat);
    ExpectTimeline({});

    time.Advance(1);
    Deliver(repeat);
    ExpectTimeline(Closed(121));
}

TEST_F(MapDelay, DelayOfNothingStillWaitsForTheNextSecond) {
    cfg->m_binDelayTime = 0;
    Deliver(repeat);
    ExpectTimeline({});

    time.Advance(1);
    Deliver(repeat);
    ExpectTimeline(Closed(1));
}

TEST_F(MapDelay, LargestDelayDoesNotOverflow) {
    cfg->m_binDelayTime = 0xFFFFFFFF;
    time.Advance(2000000000);
    Deliver(repeat);

    ExpectTimeline({});
}

TEST_F(MapDelay, MapIsClosedAlsoWithoutADayFile) {
    std::remove(day.MorningPath().c_str());
    delete channel->m_pBinFile;
    channel->m_pBinFile = new CBrixBinFile(channel->m_mapInstIdx, 0);
    time.Advance(901);

    Deliver(repeat);

    ExpectTimeline(Closed(901));
}

}  // namespace
