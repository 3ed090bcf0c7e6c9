#include "tests/unit/channel/ChannelFixture.h"

#include <map>
#include <random>

#include "src/log/elog.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

using Map = std::map<std::string, unsigned short>;

using ContractMapWalk = PacketTest;

std::string BadMessage(std::size_t number, std::size_t offset, std::size_t size) {
    return "WARN Bad contract map message, number:" + std::to_string(number) + ", offset:" + std::to_string(offset) +
           ", packet size:" + std::to_string(size) + "! The rest of the packet is dropped.";
}

// ---- well-formed packets ----

TEST_F(ContractMapWalk, FirstMessageHasTheLongHeaderAndOthersTheShortOne) {
    const std::vector<unsigned char> packet = {2,   0,  0,  0, 9,    9,    9,   9,    9,    9,   9,   9,  // head
                                               0,   25,  // message area
                                               0,   14, 9,  9, 9,    9,    1,   0x12, 0x34, 'S', 'R', '5', '0',
                                               '5', 0,  11, 1, 0xFF, 0xFE, 'T', 'A',  '5',  '0', '1', 'C'};

    Deliver(packet);

    EXPECT_THAT(channel->m_mapInstIdx, ElementsAre(Pair("SR505", 0x1234), Pair("TA501C", 0xFFFE)));
    EXPECT_EQ(channel->m_ulParsedCnt, 2U);
}

TEST_F(ContractMapWalk, ManyMessagesOfAPacketAreAllRead) {
    MapPacket packet;
    Map expected;
    for (unsigned short i = 0; i < 200; ++i) {
        const std::string id = "SR" + std::to_string(10000 + i);
        packet.Add(id, i);
        expected[id] = i;
    }

    Deliver(packet);

    EXPECT_EQ(channel->m_mapInstIdx, expected);
    ExpectTimeline({});
}

TEST_F(ContractMapWalk, EachPacketBeginsWithTheLongHeaderAgain) {
    Deliver(MapPacket().Add("SR505", 1).Add("SR506", 2));
    Deliver(MapPacket().Add("SR507", 3).Add("SR508", 4));

    EXPECT_THAT(channel->m_mapInstIdx,
                ElementsAre(Pair("SR505", 1), Pair("SR506", 2), Pair("SR507", 3), Pair("SR508", 4)));
}

TEST_F(ContractMapWalk, BytesBehindTheMessageAreaAreNotRead) {
    std::vector<unsigned char> packet = MapPacket().Add("SR505", 1).Bytes();
    packet.insert(packet.end(), 100, 0xFF);

    Deliver(packet);

    EXPECT_THAT(channel->m_mapInstIdx, ElementsAre(Pair("SR505", 1)));
    ExpectTimeline({});
}

// ---- ids ----

TEST_F(ContractMapWalk, IdsAreTakenUpTo63Bytes) {
    for (std::size_t length = 0; length <= 80; ++length) {
        SCOPED_TRACE(length);
        std::string id;
        for (std::size_t i = 0; i < length; ++i) id += static_cast<char>('A' + i % 26);
        channel->m_mapInstIdx.clear();

        Deliver(MapPacket().Add(id, 5));
        EXPECT_THAT(channel->m_mapInstIdx, ElementsAre(Pair(id.substr(0, 63), 5)));

        channel->m_mapInstIdx.clear();
        Deliver(MapPacket().Add("first", 1).Add(id, 6));
        EXPECT_THAT(channel->m_mapInstIdx[id.substr(0, 63)], 6);
    }
    ExpectTimeline({});
}

TEST_F(ContractMapWalk, IdOfThousandsOfBytesIsCutAndTheNextMessageStillFound) {
    Deliver(MapPacket().Add(std::string(60000, 'X'), 5).Add("SR505", 6));

    EXPECT_THAT(channel->m_mapInstIdx, ElementsAre(Pair("SR505", 6), Pair(std::string(63, 'X'), 5)));
}

TEST_F(ContractMapWalk, NulEndsAnIdWhereverItIs) {
    const std::string id = "SR505C6000";
    for (std::size_t nul = 0; nul < id.size(); ++nul) {
        SCOPED_TRACE(nul);
        std::string broken = id;
        broken[nul] = '\0';
        channel->m_mapInstIdx.clear();

        Deliver(MapPacket().Add(broken, 5).Add("next", 6));

        EXPECT_THAT(channel->m_mapInstIdx[id.substr(0, nul)], 5);
        EXPECT_THAT(channel->m_mapInstIdx["next"], 6);
    }
}

TEST_F(ContractMapWalk, FirstIndexOfAnIdWins) {
    Deliver(MapPacket().Add("SR505", 5).Add("SR505", 9));
    Deliver(MapPacket().Add("SR505", 11));

    EXPECT_THAT(channel->m_mapInstIdx, ElementsAre(Pair("SR505", 5)));
    EXPECT_EQ(channel->m_ulParsedCnt, 3U);
}

TEST_F(ContractMapWalk, RepeatIsNeitherWrittenNorSubscribedAgain) {
    Rules(0).bSubAll = true;
    channel->m_pBinFile->InstBinFileInit();
    Deliver(MapPacket().Add("SR505", 5));
    Timeline();

    Deliver(MapPacket().Add("SR505", 9));

    ExpectTimeline({});
    EXPECT_EQ(day.ReadMorning(), "inst_index,inst_id\n5,SR505\n");
}

TEST_F(ContractMapWalk, ShortIdIsStoredAndWrittenButSubscribedNowhere) {
    for (unsigned int chan = 0; chan < 16; ++chan) {
        Rules(chan).bSubAll = Rules(chan).bSpdRecv = Rules(chan).bIpsRecv = true;
    }
    channel->m_pBinFile->InstBinFileInit();
    Timeline();

    Deliver(MapPacket().Add("SR50", 5).Add("SPD-", 6).Add("", 7));

    ExpectTimeline({});
    EXPECT_THAT(channel->m_mapInstIdx, ElementsAre(Pair("", 7), Pair("SPD-", 6), Pair("SR50", 5)));
    EXPECT_EQ(day.ReadMorning(), "inst_index,inst_id\n5,SR50\n6,SPD-\n7,\n");
}

TEST_F(ContractMapWalk, LinesOfTheDayFileAreOnDiskBeforeTheNextPacket) {
    channel->m_pBinFile->InstBinFileInit();

    Deliver(MapPacket().Add("SR505", 5));
    EXPECT_EQ(day.ReadMorning(), "inst_index,inst_id\n5,SR505\n");
    Deliver(MapPacket().Add("SPD-SR505/SR509", 8191));
    EXPECT_EQ(day.ReadMorning(), "inst_index,inst_id\n5,SR505\n8191,SPD-SR505/SR509\n");
}

TEST_F(ContractMapWalk, ClassesAreTheFirstTwoCharactersOnceEach) {
    Deliver(MapPacket().Add("SR505", 1).Add("TA501", 2).Add("SR506", 3));
    Deliver(MapPacket().Add("SPD-SR505/SR509", 4).Add("X", 5).Add("", 6));

    EXPECT_THAT(channel->m_vecRecvClass, ElementsAre("SR", "TA", "SP", "X", ""));
}

TEST_F(ContractMapWalk, ProgressIsToldEvery8192Entries) {
    channel->m_mapInstIdx["TA501"] = 1;
    channel->m_ulParsedCnt = 8190;
    Deliver(MapPacket().Add("SR505", 1));
    ExpectTimeline({});

    // Counted before the entry itself is taken into the map.
    Deliver(MapPacket().Add("SR506", 2));
    ExpectTimeline({"INFO Have parsed 8192 instrument id already, instnum:2."});

    Deliver(MapPacket().Add("SR507", 3));
    ExpectTimeline({});

    channel->m_ulParsedCnt = 16383;
    Deliver(MapPacket().Add("SR505", 1));
    ExpectTimeline({"INFO Have parsed 16384 instrument id already, instnum:4."});
}

// ---- the message area ----

TEST_F(ContractMapWalk, PacketOf14BytesIsRefused) {
    Deliver(std::vector<unsigned char>(MapPacket().Bytes()));

    ExpectTimeline({"WARN Unexpect dma size, size 14"});
}

TEST_F(ContractMapWalk, EmptyAreaHoldsNoMessage) {
    for (const std::uint16_t area : {std::uint16_t{0}, std::uint16_t{1}}) {
        Deliver(MapPacket().Add("SR505", 1).Area(area));
        EXPECT_THAT(channel->m_mapInstIdx, IsEmpty()) << area;
    }
    ExpectTimeline({});
}

// The area says where messages may begin; the last one may end behind it.
TEST_F(ContractMapWalk, MessagesAreReadWhileTheyBeginBeforeTheAreasLastByte) {
    const MapPacket whole = MapPacket().Add("SR505", 1).Add("SR506", 2).Add("SR507", 3);
    for (std::size_t area = 0; area + MapPacket::kArea <= whole.Bytes().size(); ++area) {
        SCOPED_TRACE(area);
        channel->m_mapInstIdx.clear();
        std::size_t begun = 0;
        while (begun < 3 && whole.MessageAt(begun) + 1 < MapPacket::kArea + area) ++begun;

        Deliver(MapPacket(whole).Area(static_cast<std::uint16_t>(area)));

        EXPECT_EQ(channel->m_mapInstIdx.size(), begun);
        ExpectTimeline({});
    }
}

TEST_F(ContractMapWalk, AreaLargerThanThePacketEndsWithOneWarning) {
    const MapPacket packet = MapPacket().Add("SR505", 1).Add("SR506", 2);
    const std::size_t size = packet.Bytes().size();

    Deliver(MapPacket(packet).Area(0xFFFF));

    EXPECT_THAT(channel->m_mapInstIdx, ElementsAre(Pair("SR505", 1), Pair("SR506", 2)));
    ExpectTimeline({BadMessage(2, size, size)});
}

// ---- broken messages ----

TEST_F(ContractMapWalk, EveryCutOfAPacketKeepsWhatIsWholeAndWarnsOnce) {
    const MapPacket whole = MapPacket().Add("SR505", 1).Add("SPD-SR505/SR509", 2).Add("SR506C6000", 3);
    const std::size_t size = whole.Bytes().size();
    for (std::size_t cut = 15; cut < size; ++cut) {
        SCOPED_TRACE(cut);
        channel->m_mapInstIdx.clear();
        std::size_t kept = 0;
        while (kept + 1 < whole.Messages() && whole.MessageAt(kept + 1) <= cut) ++kept;

        Deliver(std::vector<unsigned char>(whole.Bytes().begin(), whole.Bytes().begin() + static_cast<long>(cut)));

        EXPECT_EQ(channel->m_mapInstIdx.size(), kept);
        ExpectTimeline({BadMessage(kept, whole.MessageAt(kept), cut)});
    }
}

TEST_F(ContractMapWalk, FirstMessageShorterThanItsHeaderEndsTheWalk) {
    for (std::uint16_t length = 0; length < 9; ++length) {
        const auto packet = MapPacket().AddRaw(length, 1, "SR505").Add("SR506", 2);
        Deliver(packet);
        ExpectTimeline({BadMessage(0, 14, packet.Bytes().size())});
    }
    EXPECT_THAT(channel->m_mapInstIdx, IsEmpty());
    EXPECT_EQ(channel->m_ulParsedCnt, 0U);
}

TEST_F(ContractMapWalk, LaterMessageShorterThanItsHeaderEndsTheWalk) {
    for (std::uint16_t length = 0; length < 5; ++length) {
        const auto packet = MapPacket().Add("SR505", 1).AddRaw(length, 2, "SR506").Add("SR507", 3);
        Deliver(packet);
        ExpectTimeline({BadMessage(1, 28, packet.Bytes().size())});
    }
    EXPECT_THAT(channel->m_mapInstIdx, ElementsAre(Pair("SR505", 1)));
}

TEST_F(ContractMapWalk, MessageReachingPastThePacketEndsTheWalk) {
    for (const int beyond : {1, 2, 100, 60000}) {
        const auto packet = MapPacket().Add("SR505", 1).AddRaw(static_cast<std::uint16_t>(10 + beyond), 2, "SR506");
        Deliver(packet);
        ExpectTimeline({BadMessage(1, 28, packet.Bytes().size())});
    }
    EXPECT_THAT(channel->m_mapInstIdx, ElementsAre(Pair("SR505", 1)));
}

TEST_F(ContractMapWalk, NextPacketAfterABrokenOneIsReadAsUsual) {
    Deliver(MapPacket().AddRaw(3, 1, "SR505"));
    Timeline();

    Deliver(MapPacket().Add("SR506", 2));

    EXPECT_THAT(channel->m_mapInstIdx, ElementsAre(Pair("SR506", 2)));
    ExpectTimeline({});
}

TEST_F(ContractMapWalk, AreaOfAPacketTooShortForItsLengthIsNotRead) {
    const std::vector<unsigned char> packet(13, 0xFF);

    channel->LoadtoMapFromMac(packet.data(), 13);

    ExpectTimeline({});
    EXPECT_EQ(channel->m_ulParsedCnt, 0U);
}

// ---- anything at all ----

/// The map as a reader makes it that knows nothing of the library's.
class ReferenceReader {
public:
    void Read(const std::vector<unsigned char>& packet) {
        if (packet.size() < 15) return;
        const std::size_t end = 14 + Number(packet, 12);
        std::size_t pos = 14;
        for (std::size_t header = 9; pos + 1 < end; header = 5) {
            if (pos + 2 > packet.size()) return;
            const std::size_t length = Number(packet, pos);
            if (length < header || pos + length > packet.size()) return;
            const std::string bytes(packet.begin() + static_cast<long>(pos + header),
                                    packet.begin() + static_cast<long>(pos + length));
            map.emplace(std::string(bytes.substr(0, 63).c_str()),
                        static_cast<unsigned short>(Number(packet, pos + header - 2)));
            ++entries;
            pos += length;
        }
    }
    Map map;
    std::uint64_t entries = 0;

private:
    static std::size_t Number(const std::vector<unsigned char>& packet, std::size_t at) {
        return static_cast<std::size_t>(packet[at] * 256 + packet[at + 1]);
    }
};

class AnyBytes : public PacketTest {
protected:
    AnyBytes() { Rules(0).bSubAll = Rules(0).bSpdRecv = Rules(0).bIpsRecv = Rules(0).bOptionsRecv = true; }

    unsigned int Random(unsigned int below) { return static_cast<unsigned int>(random() % below); }
    void Compare() const {
        EXPECT_EQ(channel->m_mapInstIdx, reader.map);
        EXPECT_EQ(channel->m_ulParsedCnt, reader.entries);
    }
    std::mt19937 random{20250303};
    ReferenceReader reader;
};

TEST_F(AnyBytes, RandomContractMapsAreReadLikeTheReference) {
    elog_set_output_enabled(false);
    for (int i = 0; i < 60000; ++i) {
        std::vector<unsigned char> packet(Random(160));
        // Small numbers, so that lengths often fit and ids are often short.
        for (unsigned char& byte : packet) byte = static_cast<unsigned char>(Random(4) == 0 ? Random(256) : Random(24));
        SetType(packet, 2);
        if (packet.size() > 14) packet[12] = 0;
        for (std::size_t at = 14; at < packet.size(); at += 1 + Random(12)) packet[at] = 0;
        reader.Read(packet);
        Deliver(packet);
    }
    Compare();
    EXPECT_GT(reader.map.size(), 10000U);
}

TEST_F(AnyBytes, FalsifiedContractMapsAreReadLikeTheReference) {
    elog_set_output_enabled(false);
    const std::vector<unsigned char> whole =
        MapPacket().Add("SR505", 1).Add("SPD-SR505/SR509", 2).Add("IPS-SF505/SM505", 3).Add("SR505C6000", 4).Bytes();
    for (int i = 0; i < 40000; ++i) {
        std::vector<unsigned char> packet(whole);
        for (unsigned int n = 1 + Random(3); n > 0; --n) {
            packet[4 + Random(static_cast<unsigned int>(packet.size()) - 4)] = static_cast<unsigned char>(Random(256));
        }
        packet.resize(packet.size() - Random(4) * Random(8));
        reader.Read(packet);
        Deliver(packet);
    }
    Compare();
    EXPECT_GT(reader.map.size(), 1000U);
}

TEST_F(AnyBytes, RandomPacketsOfAnyTypeReachTheApplicationOrTheLog) {
    std::size_t delivered = 0;
    std::size_t logged = 0;
    for (int i = 0; i < 20000; ++i) {
        std::vector<unsigned char> packet(Random(40));
        for (unsigned char& byte : packet) byte = static_cast<unsigned char>(Random(256));
        const std::uint32_t type = Random(8) == 0 ? static_cast<std::uint32_t>(random()) : 3 + Random(20);
        SetType(packet, type);
        const bool isQuote = type >= 17 && type <= 20 && packet.size() >= 12;
        ++(isQuote ? delivered : logged);
        Deliver(packet);
    }
    EXPECT_EQ(spi.calls.size(), delivered);
    EXPECT_EQ(log.Take().size(), logged);
}

}  // namespace
