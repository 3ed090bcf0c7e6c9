// What a program that starts late counts as lost, from what the archive of a relay answers.

#include "capture/Reader.h"
#include "sim/card/ZeroedMemory.h"
#include "sim/remote/HistoryAnswer.h"
#include "sim/remote/Receiver.h"
#include "tests/unit/tools/RelayArchiveFixture.h"
#include "tools/data/CaptureSource.h"

namespace relay {
namespace {

using namespace vexo_sim;

constexpr std::uint32_t kChannel = 3;

/// Puts the answers into a stream, as a remote card does.
class LateProgram : public Network {
public:
    LateProgram() : m_card(*m_memory.get()) {
        CardConfig config;
        config.instruments = InstrumentChoice::kNone;
        m_card.powerOn(config, {1'000'000'000, 20250303, 120000, 0});
        m_card.pauseFeed(true);
        m_card.openUp(kChannel);
        m_receiver.restart();
    }
    bool publish(const std::string& /*subject*/, const void* data, std::size_t size) override {
        m_answer.take(data, size);
        return true;
    }
    /// All that the archive has since a moment. @return "received 5 lost 2"
    std::string Receive(ArchiveStore& store, std::uint64_t timeNs) {
        ArchiveHistory history(store, *this, 64 * 1024);
        wire::HistoryRequest request{0, 0, 0, timeNs, 1 << 20};
        do {
            m_answer = remote::HistoryAnswer();
            const std::vector<unsigned char> bytes = wire::encodeHistoryRequest(request);
            history.ask(bytes.data(), bytes.size(), "_INBOX.receiver0001.1");
            history.answer();
            EXPECT_TRUE(m_answer.isWhole());
            for (const std::vector<unsigned char>& message : m_answer.messages()) Put(message);
            request.cursor = m_answer.end().cursor;
            const auto position = m_receiver.position();
            if (position) request = {request.cursor, position->epoch, position->next, timeNs, 1 << 20};
        } while (!m_answer.end().isAll);
        const UpStreamState& stream = m_card.state().up[kChannel];
        return "received " + std::to_string(stream.packets) + " lost " + std::to_string(stream.backPressure);
    }

private:
    void Put(const std::vector<unsigned char>& message) {
        m_receiver.receive(m_card, message.data(), message.size(), 1);
        for (TakeAll(); m_receiver.isHoldingBack(); TakeAll()) m_receiver.resume(m_card);
    }
    void TakeAll() {
        while (m_card.peek(kChannel).data != nullptr) m_card.release(kChannel);
    }

    const ZeroedMemory<CardState> m_memory;
    Card m_card;
    remote::Receiver m_receiver{kChannel};
    remote::HistoryAnswer m_answer;
};

class RelayHistoryLoss : public RelayArchive {
protected:
    std::string Account(std::uint64_t timeNs) { return LateProgram().Receive(*store, timeNs); }
};

}  // namespace

TEST_F(RelayHistoryLoss, OfTheFirstBlockIsCounted) {
    Start();
    counts.lostByRing = 7;
    Feed(0, 200);
    EXPECT_EQ(Account(0), "received 200 lost 7") << "the block is in no file";
    Tick();
    EXPECT_EQ(Account(0), "received 200 lost 7") << "it is in a file";
    Feed(200, 300);
    counts.lostByRing = 9;
    Feed(310, 400);
    EXPECT_EQ(Account(0), "received 390 lost 19");
    Close();
    Start(kNextEpoch);
    counts.lostByRing = 3;
    Feed(0, 100);
    EXPECT_EQ(Account(0), "received 490 lost 22");
    EXPECT_EQ(Account(TimeOf(50)), "received 440 lost 22") << "the moment lies in a block";
}

TEST_F(RelayHistoryLoss, InFrontOfTheFirstPacketIsCounted) {
    Start();
    lost = 40;
    counts.lostByRelay = 10;
    Feed(50, 1050);
    EXPECT_EQ(Account(0), "received 1000 lost 50");
    Close();
    EXPECT_EQ(Catalogued("SELECT place, first, missing, by_relay, by_archive FROM gaps"), "before block|50|50|10|40");
    EXPECT_EQ(Catalogued("SELECT missing FROM files"), "50");
    vexo::data::CaptureSource source(Files()[0]);
    capture::Reader reader(source.stream());
    for (capture::Packet packet; reader.next(packet);) {
    }
    ASSERT_TRUE(reader.interfaces()[0].counts);
    EXPECT_EQ(reader.interfaces()[0].counts->received, 1050U);
    EXPECT_EQ(reader.interfaces()[0].counts->dropped, 50U);
    Start(kNextEpoch);
    lost = 30;
    Feed(30, 130);
    EXPECT_EQ(Account(0), "received 1100 lost 80");
    Close();
    EXPECT_EQ(Catalogued("SELECT missing, by_relay, by_archive FROM gaps WHERE epoch = '000000000000000b'"), "30|0|30");
    EXPECT_EQ(Catalogued("SELECT missing FROM files WHERE epoch = '000000000000000b'"), "30");
}

TEST_F(RelayHistoryLoss, BeforeTheMomentIsNotCounted) {
    Start();
    counts.lostByRing = 100;
    Feed(50, 1000);
    Tick();
    counts.lostByRing = 110;
    Feed(1500, 2000);
    Tick();
    counts.lostByRing = 112;
    Feed(2005, 3000);
    Tick();
    EXPECT_EQ(Account(TimeOf(3000)), "received 0 lost 0");
    EXPECT_EQ(Account(TimeOf(2005)), "received 995 lost 7");
    EXPECT_EQ(Account(TimeOf(2500)), "received 500 lost 2") << "the card's losses are known for the block alone";
    EXPECT_EQ(Account(TimeOf(1500)), "received 1495 lost 517");
    EXPECT_EQ(Account(0), "received 2445 lost 667");
}

TEST_F(RelayHistoryLoss, IsNoneWhereTheClockWasSetBackInTheFirstBlock) {
    Start();
    Feed(0, 100);
    setBackNs = 50 * kEvery;
    Feed(100, 200);
    EXPECT_EQ(Account(TimeOf(80)), "received 120 lost 0") << "the block is in no file";
    Tick();
    EXPECT_EQ(Account(TimeOf(80)), "received 120 lost 0") << "it is in a file";
    Feed(200, 300);
    EXPECT_EQ(Account(TimeOf(80)), "received 220 lost 0");
}

TEST_F(RelayHistoryLoss, WithoutAPacketIsCountedFromTheMomentOn) {
    Start();
    Feed(0, 1000);
    Tick();
    Heartbeat(1010);
    Tick();
    counts.lostByRing = 5;
    Heartbeat(1020);
    Tick();
    Feed(1020, 1100);
    EXPECT_EQ(Account(TimeOf(1005)), "received 80 lost 25");
    EXPECT_EQ(Account(TimeOf(1015)), "received 80 lost 15");
    EXPECT_EQ(Account(TimeOf(1020)), "received 80 lost 15");
    EXPECT_EQ(Account(TimeOf(1021)), "received 79 lost 0");
}

TEST_F(RelayHistoryLoss, DoesNotIncludeThePacketsOfRemovedFiles) {
    settings.rotateBytes = 20'000;  // a block or two
    settings.keep = 2;
    Start();
    counts.lostByRing = 1000;
    Feed(0, 100'000);
    Tick();
    const std::uint64_t stored = Since(0).size();
    ASSERT_LT(stored, 100'000U);
    EXPECT_EQ(Account(0), "received " + std::to_string(stored) + " lost 0");
    EXPECT_EQ(Catalogued("SELECT count(*) FROM gaps"), "0");
    EXPECT_EQ(Catalogued("SELECT sum(missing) FROM files"), "0");
}

}  // namespace relay
