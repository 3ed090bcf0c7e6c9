// What the archive of a relay answers, and to whom.

#include "tests/unit/tools/RelayArchiveFixture.h"

namespace relay {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kReceiver[] = "_INBOX.receiver0001.1";

std::vector<unsigned char> Request(std::uint64_t timeNs = 0, std::uint32_t mostBytes = 1 << 20) {
    return wire::encodeHistoryRequest({0, 0, 0, timeNs, mostBytes});
}

}  // namespace

TEST_F(RelayArchive, GivesBackEveryPacketOnceInOrderWithItsTime) {
    Start();
    Feed(0, 100'000);
    EXPECT_EQ(All(), "0-99999");
    EXPECT_EQ(Numbers(Since(0, 0)), "0-99999") << "an answer for each block";
}

TEST_F(RelayArchive, GivesPacketsThatAreInNoFileYet) {
    Start();
    Feed(0, 10);
    EXPECT_THAT(Files(), IsEmpty());
    EXPECT_EQ(All(), "0-9");
    Tick();
    EXPECT_THAT(Files(), SizeIs(1));
    EXPECT_EQ(All(), "0-9");
}

TEST_F(RelayArchive, BeginsWithTheFirstPacketOfTheMoment) {
    Start();
    Feed(0, 50'000);
    Feed(60'000, 70'000);
    EXPECT_EQ(Numbers(Since(kBegin - 3600 * kSecond)), "0-49999 60000-69999") << "before the archive begins";
    EXPECT_EQ(Numbers(Since(TimeOf(12'345))), "12345-49999 60000-69999");
    EXPECT_EQ(Numbers(Since(TimeOf(12'345) + 1)), "12346-49999 60000-69999");
    EXPECT_EQ(Numbers(Since(TimeOf(55'000))), "60000-69999") << "in a gap";
    EXPECT_EQ(Numbers(Since(TimeOf(69'999))), "69999-69999");
    EXPECT_EQ(Numbers(Since(TimeOf(70'000))), "nothing") << "behind its end";
}

TEST_F(RelayArchive, SaysWhereTheStreamIsWhenThereIsNothingMore) {
    Start();
    Feed(0, 1000);
    Heartbeat(1003);
    Inbox inbox;
    ArchiveHistory history(*store, inbox, 64 * 1024);
    const std::vector<unsigned char> request = Request(TimeOf(5000));
    history.ask(request.data(), request.size(), kReceiver);
    history.answer();
    EXPECT_TRUE(inbox.end.isAll);
    EXPECT_EQ(inbox.end.cursor, 0U);
    EXPECT_EQ(inbox.end.head.epoch, kEpoch);
    EXPECT_EQ(inbox.end.head.first, 1003U);
}

TEST_F(RelayArchive, GoesOnWherePacketsHaveComeSinceTheLastAnswer) {
    Start();
    Inbox inbox;
    ArchiveHistory history(*store, inbox, 64 * 1024);
    wire::HistoryRequest request{0, 0, 0, 0, 1 << 20};
    for (std::uint64_t end = 50; end <= 60'000; end = end < 1000 ? end + 50 : end + 20'000) {
        Feed(request.next, end);
        const std::vector<unsigned char> bytes = wire::encodeHistoryRequest(request);
        history.ask(bytes.data(), bytes.size(), kReceiver);
        history.answer();
        EXPECT_TRUE(inbox.end.isAll);
        request = {inbox.end.cursor, kEpoch, inbox.packets.back().number + 1, 0, 4 << 20};
        EXPECT_EQ(request.next, end);
    }
    EXPECT_EQ(Numbers(inbox.packets), "0-" + std::to_string(request.next - 1));
}

TEST_F(RelayArchive, TellsOfLossesBehindTheLastPacketOfARun) {
    Start();
    Feed(0, 1000);
    Tick();
    counts.lostByRing = 7;
    counts.delivered = 1004;
    Heartbeat(1004);
    Close();
    Start(kNextEpoch);
    Feed(0, 10);
    Inbox inbox;
    ArchiveHistory history(*store, inbox, 64 * 1024);
    const std::vector<unsigned char> request = Request();
    history.ask(request.data(), request.size(), kReceiver);
    history.answer();
    EXPECT_EQ(Numbers(inbox.packets), "0-999 B:0-9");
    ASSERT_THAT(inbox.counts, SizeIs(2));
    EXPECT_EQ(inbox.counts[0].first, 0U) << "in front of the first packet";
    EXPECT_EQ(inbox.counts[0].counts.lostByRing, 0U);
    EXPECT_EQ(inbox.counts[1].first, 1004U);
    EXPECT_EQ(inbox.counts[1].counts.lostByRing, 7U);
    EXPECT_EQ(inbox.counts[1].counts.delivered, 1004U);
}

TEST_F(RelayArchive, AnswersReceiversInTurn) {
    Start();
    Feed(0, 50'000);
    Inbox inbox;
    ArchiveHistory history(*store, inbox, 64 * 1024);
    const std::vector<unsigned char> request = Request(0, 0);
    history.ask(request.data(), request.size(), "_INBOX.greedy000001.1");
    for (int n = 2; n < 1000; ++n)
        history.ask(request.data(), request.size(), ("_INBOX.greedy000001." + std::to_string(n)).c_str());
    history.ask(request.data(), request.size(), "_INBOX.modest000001.1");
    history.answer();
    history.answer();
    EXPECT_THAT(inbox.subjects, ElementsAre("_INBOX.greedy000001.999", "_INBOX.modest000001.1"));
    history.ask(request.data(), request.size(), "_INBOX.modest000001.2");
    history.answer();
    EXPECT_EQ(inbox.subjects.back(), "_INBOX.modest000001.2") << "nobody else has waited";
}

TEST_F(RelayArchive, ManyReceiversAtOnceAreBounded) {
    Start();
    Feed(0, 10);
    Inbox inbox;
    ArchiveHistory history(*store, inbox, 64 * 1024);
    const std::vector<unsigned char> request = Request();
    for (int n = 0; n < 1000; ++n)
        history.ask(request.data(), request.size(), ("_INBOX." + std::to_string(100'000'000'000 + n) + ".1").c_str());
    for (std::size_t n = 0; n < ArchiveHistory::kMostRequests; ++n) EXPECT_TRUE(history.answer());
    EXPECT_THAT(inbox.subjects, SizeIs(ArchiveHistory::kMostRequests));
    history.ask(request.data(), request.size(), kReceiver);
    EXPECT_TRUE(history.answer()) << "others are answered afterwards";
    EXPECT_EQ(inbox.subjects.back(), kReceiver) << "and nobody is left of those that were too many";
}

TEST_F(RelayArchive, AHostileRequestIsLeftOut) {
    Start();
    Feed(0, 1000);
    Inbox inbox;
    ArchiveHistory history(*store, inbox, 64 * 1024);
    const std::vector<unsigned char> request = Request();
    for (const char* reply : {"vexo.colo.0.3.stream", "_INBOX.*", "_INBOX.a b", "_inbox.a", ""})
        history.ask(request.data(), request.size(), reply);
    history.ask(request.data(), request.size(), nullptr);
    history.ask(request.data(), request.size(), ("_INBOX." + std::string(10'000, 'x')).c_str());
    for (std::size_t size = 0; size < request.size(); ++size) history.ask(request.data(), size, kReceiver);
    history.ask(request.data(), request.size(), kReceiver);
    history.answer();
    EXPECT_THAT(inbox.subjects, ElementsAre(kReceiver));
    history.close();
    EXPECT_FALSE(history.answer());
}

TEST_F(RelayArchive, AnyNumbersInARequestAreAnswered) {
    Start();
    Feed(0, 15'000);
    Tick();
    constexpr std::uint64_t kHuge = ~std::uint64_t{0};
    for (const std::uint64_t cursor : {std::uint64_t{1}, std::uint64_t{1} << 24, (std::uint64_t{1} << 24) + 1, kHuge}) {
        for (const std::uint64_t epoch : {std::uint64_t{0}, kEpoch, kHuge}) {
            for (const std::uint64_t next : {std::uint64_t{0}, std::uint64_t{10'000}, kHuge}) {
                Inbox inbox;
                ArchiveHistory history(*store, inbox, 64 * 1024);
                const std::vector<unsigned char> bytes = wire::encodeHistoryRequest(
                    {cursor, epoch, next, kHuge, 0xFFFFFFFF});
                history.ask(bytes.data(), bytes.size(), kReceiver);
                history.answer();
                EXPECT_THAT(inbox.subjects, SizeIs(1));
                const bool hasPackets = epoch == kEpoch && !inbox.packets.empty();
                EXPECT_TRUE(!hasPackets || inbox.packets.front().number >= next);
            }
        }
    }
}

}  // namespace relay
