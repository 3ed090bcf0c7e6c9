#include "sim/replay/Replay.h"

#include <functional>
#include <map>

#include "capture/Blocks.h"
#include "capture/CaptureFiles.h"
#include "capture/StreamPlace.h"
#include "sim/card/PacketFaults.h"
#include "tests/support/StandardStreams.h"
#include "tests/support/TempDir.h"
#include "tests/unit/capture/CaptureSample.h"
#include "tests/unit/sim/card/CardFixture.h"

using namespace vexo_sim;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

constexpr std::uint64_t kMs = 1'000'000;

/// A capture in the making: packets of some channels, at times of the test's own.
class Capture {
public:
    explicit Capture(const std::string& path) : m_files({path, 0, 0, {}, {}, [](const std::string&) {}}) {}

    void add(const std::string& interface, std::uint64_t ns, const Bytes& packet,
             std::uint16_t linkType = capture::kStreamLink) {
        if (m_numbers.count(interface) == 0) m_numbers[interface] = m_files.addInterface({linkType, interface, ""}, 0);
        m_files.addPacket(m_numbers[interface], ns, packet.data(), static_cast<std::uint32_t>(packet.size()));
    }
    void close(std::uint64_t ns) { m_files.close(ns); }

private:
    capture::CaptureFiles m_files;
    std::map<std::string, std::uint32_t> m_numbers;
};

Bytes fourBytes(std::uint32_t number) {
    Bytes bytes(sizeof number);
    std::memcpy(bytes.data(), &number, sizeof number);
    return bytes;
}

class ReplayTest : public CardTest {
protected:
    void SetUp() override { useRing(16384); }

    /// A file with packets of one byte, each with its time in milliseconds.
    std::string write(const std::vector<std::pair<std::string, std::uint64_t>>& packets) {
        Capture capture(dir.Path("a.pcapng"));
        unsigned char number = 0;
        for (const auto& [interface, ms] : packets) capture.add(interface, 1'000'000 * kMs + ms * kMs, {number++});
        capture.close(2'000'000 * kMs);
        return dir.Path("a.pcapng");
    }
    std::string writeBytes(const capture::BlockBuffer& blocks) {
        return dir.Write("b.pcapng", std::string(blocks.begin(), blocks.end()));
    }
    bool open(const std::string& path) { return replay.open(path, card.state().config.mtu); }
    /// A file of @p count packets of channel 0, all of one moment, each with its number in four bytes.
    std::string writeMany(std::uint32_t count) {
        Capture capture(dir.Path("many.pcapng"));
        for (std::uint32_t i = 0; i < count; ++i) capture.add("channel 0", 1, fourBytes(i));
        capture.close(1);
        return dir.Path("many.pcapng");
    }
    void useRing(std::uint32_t bytes, std::uint32_t pace = 1) {
        CardConfig config;
        config.instruments = InstrumentChoice::kNone;
        config.ringBytes = bytes;
        config.pace = pace;
        powerOn(config);
        card.pauseFeed(true);
    }
    void addFault(PacketFaultKind kind, std::uint32_t every) {
        PacketFault fault;
        fault.kind = kind;
        fault.first = fault.every = every;
        ASSERT_EQ(packet_faults::add(card.state(), fault), 0);
    }
    /// Packets that a channel has received, each by its one byte, after the replay went on to a moment.
    std::vector<unsigned> at(std::uint64_t ms, std::uint32_t channel) { return atNs(ms * kMs, channel); }
    std::vector<unsigned> atNs(std::uint64_t clockNs, std::uint32_t channel) {
        replay.advance(card, clockNs);
        std::vector<unsigned> numbers;
        for (const Bytes& packet : take(channel)) numbers.push_back(packet.at(0));
        return numbers;
    }

    test_support::TempDir dir;
    Replay replay;
};

capture::BlockBuffer onePacket(const Bytes& packet) {
    capture::BlockBuffer blocks;
    capture::appendSection(blocks, {});
    capture::appendInterface(blocks, {capture::kStreamLink, "channel 0", ""});
    capture::appendPacket(blocks, 0, 1, packet.data(), static_cast<std::uint32_t>(packet.size()));
    return blocks;
}

}  // namespace

TEST_F(ReplayTest, DeliversEachChannelsPacketsAtTheirOriginalPace) {
    ASSERT_TRUE(open(write({{"channel 0", 10}, {"channel 5", 11}, {"channel 0", 13}, {"channel 0", 20}})));
    card.openUp(0);
    card.openUp(5);
    EXPECT_THAT(at(500, 0), ElementsAre(0));
    EXPECT_THAT(at(500, 5), ElementsAre(1));
    EXPECT_EQ(replay.nextDue(), 503 * kMs);
    EXPECT_THAT(at(502, 0), IsEmpty());
    EXPECT_THAT(at(503, 0), ElementsAre(2));
    EXPECT_THAT(at(600, 0), ElementsAre(3));
    EXPECT_EQ(replay.nextDue(), kNever);
    EXPECT_TRUE(replay.isFinished());
}

TEST_F(ReplayTest, ItsFileNeverGetsAStandardDescriptor) {
    const std::string path = write({{"channel 0", 0}, {"channel 0", 1000}});
    const auto replayBegun = [&] {
        if (!open(path)) return 2;
        card.openUp(0);
        if (at(500, 0).size() != 1 || replay.isFinished()) return 3;  // the file is still open
        return test_support::AreStandardNumbersFree() ? 0 : 1;
    };
    EXPECT_EQ(test_support::InProcessWithout(test_support::kAllStandardStreams, replayBegun), 0);
}

TEST_F(ReplayTest, AChannelsPacketsBeginWhenItsStreamIsOpened) {
    ASSERT_TRUE(open(write({{"channel 0", 0}, {"channel 1", 0}, {"channel 1", 5}})));
    card.openUp(0);
    EXPECT_THAT(at(100, 0), ElementsAre(0));
    EXPECT_EQ(replay.nextDue(), kNever);
    card.openUp(1);
    EXPECT_THAT(at(9000, 1), ElementsAre(1));
    EXPECT_THAT(at(9005, 1), ElementsAre(2));
}

TEST_F(ReplayTest, AStreamThatIsOpenedAgainBeginsAgain) {
    ASSERT_TRUE(open(write({{"channel 0", 0}, {"channel 0", 5}})));
    card.openUp(0);
    EXPECT_THAT(at(100, 0), ElementsAre(0));
    card.closeUp(0);
    EXPECT_THAT(at(200, 0), IsEmpty());
    card.openUp(0);
    EXPECT_THAT(at(300, 0), ElementsAre(0));
    card.closeUp(0);
    card.openUp(0);
    replay.restart(0);
    EXPECT_THAT(at(400, 0), ElementsAre(0));
}

TEST_F(ReplayTest, AsFastAsTakenDoesNotWaitForTheClock) {
    ASSERT_TRUE(replay.open(write({{"channel 0", 0}, {"channel 0", 5000}}), 4096, 0, Replay::Pace::kAsTaken));
    card.openUp(0);
    EXPECT_THAT(at(100, 0), ElementsAre(0, 1));
}

TEST_F(ReplayTest, AFullRingDelaysAndLosesNothing) {
    Capture capture(dir.Path("a.pcapng"));
    for (unsigned char i = 0; i < 40; ++i) capture.add("channel 0", i, Bytes(1000, i));
    capture.close(40);
    ASSERT_TRUE(open(dir.Path("a.pcapng")));
    card.openUp(0);
    EXPECT_THAT(at(100, 0), SizeIs(::testing::Lt(40)));
    EXPECT_LE(replay.nextDue(), 100 * kMs + 40);
    std::vector<unsigned> rest;
    for (std::uint64_t ms = 101; !replay.isFinished(); ++ms) {
        for (const unsigned number : at(ms, 0)) rest.push_back(number);
    }
    ASSERT_THAT(rest, ::testing::Not(IsEmpty()));
    EXPECT_EQ(rest.back(), 39U);
    EXPECT_EQ(card.state().up[0].packets, 40U);
    EXPECT_EQ(card.state().up[0].backPressure, 0U);
}

TEST_F(ReplayTest, TheCardsFaultsStrikeReplayedPackets) {
    ASSERT_TRUE(open(write({{"channel 0", 0}, {"channel 0", 1}, {"channel 0", 2}, {"channel 0", 3}})));
    addFault(PacketFaultKind::kDrop, 2);
    card.openUp(0);
    EXPECT_THAT(at(100, 0), ElementsAre(0));
    EXPECT_THAT(at(103, 0), ElementsAre(2));
    EXPECT_EQ(card.state().faults.rules[0].strikes, 2U);
}

TEST_F(ReplayTest, ADoubledPacketComesTwiceAndTheNextOneAfterIt) {
    ASSERT_TRUE(replay.open(write({{"channel 0", 0}, {"channel 0", 1}}), 4096, 0, Replay::Pace::kAsTaken));
    addFault(PacketFaultKind::kDouble, 1);
    card.openUp(0);
    EXPECT_THAT(at(100, 0), ElementsAre(0, 0, 1, 1));
}

TEST_F(ReplayTest, ACardThatStopsTakesNothingMoreAndGoesOnWithThePacketItStoppedAt) {
    ASSERT_TRUE(replay.open(write({{"channel 0", 0}, {"channel 0", 1}, {"channel 0", 2}, {"channel 0", 3}}), 4096, 0,
                            Replay::Pace::kAsTaken));
    packet_faults::stopAfter(card.state(), 2);
    card.openUp(0);
    EXPECT_THAT(at(100, 0), ElementsAre(0, 1));
    EXPECT_TRUE(card.state().faults.stopped);
    EXPECT_THAT(at(200, 0), IsEmpty());
    EXPECT_FALSE(replay.isFinished());
    card.stop(false);
    EXPECT_THAT(at(300, 0), ElementsAre(2, 3));
}

TEST_F(ReplayTest, WhereOneChannelStopsTheCardTheOthersTakeNothingEither) {
    ASSERT_TRUE(open(write({{"channel 0", 0}, {"channel 0", 0}, {"channel 1", 0}})));
    packet_faults::stopAfter(card.state(), 1);
    card.openUp(0);
    card.openUp(1);
    EXPECT_THAT(at(100, 0), ElementsAre(0));
    EXPECT_THAT(take(1), IsEmpty());
    card.stop(false);
    EXPECT_THAT(at(200, 1), ElementsAre(2));
}

TEST_F(ReplayTest, TakesNoMoreThan4096PacketsOfAChannelAtATime) {
    useRing(1 << 20);
    for (const Replay::Pace pace : {Replay::Pace::kOriginal, Replay::Pace::kAsTaken}) {
        ASSERT_TRUE(replay.open(writeMany(10'000), 4096, 0, pace));
        card.openUp(0);
        std::uint64_t clockNs = kMs;
        std::vector<std::size_t> turns;
        for (std::uint32_t number = 0; number < 10'000; clockNs += kMs) {
            replay.advance(card, clockNs);
            const std::vector<Bytes> packets = take(0);
            ASSERT_THAT(packets, SizeIs(::testing::Le(4096)));
            for (const Bytes& packet : packets) ASSERT_EQ(typeOf(packet), number++);
            if (number < 10'000) {
                ASSERT_LE(replay.nextDue(), clockNs);
            }
            turns.push_back(packets.size());
            ASSERT_THAT(turns, SizeIs(::testing::Le(5)));
        }
        card.closeUp(0);
    }
}

TEST_F(ReplayTest, ARuleThatDropsEveryPacketDoesNotEatTheFileInOneCall) {
    ASSERT_TRUE(replay.open(writeMany(10'000), 4096, 0, Replay::Pace::kAsTaken));
    addFault(PacketFaultKind::kDrop, 1);
    card.openUp(0);
    replay.advance(card, kMs);
    EXPECT_GT(card.state().faults.rules[0].strikes, 4000U);
    EXPECT_LE(card.state().faults.rules[0].strikes, 4096U);
    EXPECT_LE(replay.nextDue(), kMs);
    EXPECT_FALSE(replay.isFinished());
}

// The middle of the file is spoiled once it has been looked through: whoever reads it does not come past it.
TEST_F(ReplayTest, AChannelBeginsAtItsFirstPacketWithoutReadingUpToThere) {
    capture::BlockBuffer blocks;
    capture::appendSection(blocks, {});
    capture::appendInterface(blocks, {capture::kStreamLink, "channel 0", ""});
    capture::appendInterface(blocks, {capture::kStreamLink, "channel 1", ""});
    capture::appendPacket(blocks, 0, 1, "\0", 1);
    const std::size_t middle = blocks.size();
    for (int i = 0; i < 5000; ++i) capture::appendPacket(blocks, 0, 2, "\1", 1);
    capture::appendPacket(blocks, 1, 5000, "\2", 1);
    capture::appendInterface(blocks, {capture::kStreamLink, "channel 2", ""});
    capture::appendPacket(blocks, 2, 6000, "\3", 1);
    capture::appendPacket(blocks, 1, 5000 + kMs, "\4", 1);
    ASSERT_TRUE(open(writeBytes(blocks)));
    std::fill_n(blocks.begin() + static_cast<std::ptrdiff_t>(middle), 12, static_cast<unsigned char>(0xFF));
    writeBytes(blocks);
    card.openUp(0);
    card.openUp(1);
    card.openUp(2);
    EXPECT_THAT(at(100, 1), ElementsAre(2));
    EXPECT_THAT(take(0), SizeIs(1));
    EXPECT_THAT(take(2), SizeIs(1));
    EXPECT_THAT(at(101, 1), ElementsAre(4));
}

TEST_F(ReplayTest, AChannelOfALaterSectionHasThatSectionsInterfacesAndTimes) {
    capture::BlockBuffer blocks = onePacket({0});
    capture::BlockBuffer second;
    capture::appendSection(second, {});
    capture::appendInterface(second, {capture::kStreamLink, "channel 4", ""});
    capture::appendInterface(second, {capture::kStreamLink, "channel 3", ""});
    capture::appendPacket(second, 1, 10 * kMs, "\1", 1);
    capture::appendPacket(second, 0, 10 * kMs, "\2", 1);
    capture::appendPacket(second, 1, 13 * kMs, "\3", 1);
    blocks.insert(blocks.end(), second.begin(), second.end());
    blocks.insert(blocks.end(), second.begin(), second.end());
    ASSERT_TRUE(open(writeBytes(blocks)));
    card.openUp(3);
    EXPECT_THAT(at(100, 3), ElementsAre(1));
    EXPECT_THAT(at(103, 3), ElementsAre(3, 1, 3));
    EXPECT_EQ(replay.nextDue(), kNever);
}

TEST_F(ReplayTest, PassesOverNoMoreThan4096BlocksOfOthersAtATime) {
    Capture capture(dir.Path("a.pcapng"));
    capture.add("channel 1", 0, {1});
    for (std::uint64_t i = 0; i < 10'000; ++i) capture.add(i % 2 == 0 ? "channel 0" : "registers", 0, {0});
    capture.add("channel 1", 0, {2});
    capture.close(1);
    ASSERT_TRUE(open(dir.Path("a.pcapng")));
    card.openUp(1);
    EXPECT_THAT(at(100, 1), ElementsAre(1));
    EXPECT_LE(replay.nextDue(), 100 * kMs);
    EXPECT_FALSE(replay.isFinished());
    EXPECT_THAT(at(101, 1), IsEmpty());
    EXPECT_LE(replay.nextDue(), 101 * kMs);
    EXPECT_THAT(at(102, 1), ElementsAre(2));
    EXPECT_TRUE(replay.isFinished());
}

TEST_F(ReplayTest, AtPaceX10TheCardsClockReplaysTenTimesAsFast) {
    useRing(16384, 10);
    ASSERT_TRUE(open(write({{"channel 0", 0}, {"channel 0", 100}, {"channel 0", 200}})));
    const auto after = [this](std::uint64_t ns) {
        advanceNs(ns);
        return atNs(card.state().clockNs, 0);
    };
    card.openUp(0);
    EXPECT_THAT(after(0), ElementsAre(0));
    EXPECT_THAT(after(10 * kMs - 1), IsEmpty());
    EXPECT_THAT(after(1), ElementsAre(1));
    EXPECT_THAT(after(10 * kMs), ElementsAre(2));
}

TEST_F(ReplayTest, WithoutTheContractMapItsPacketsAreLeftOut) {
    Capture capture(dir.Path("a.pcapng"));
    capture.add("channel 0", 0, {2, 0, 0, 0, 12, 0, 0, 0, 1, 0, 0, 0});
    capture.add("channel 0", 1, {17, 0, 0, 0, 12, 0, 0, 0, 2, 0, 0, 0});
    capture.close(2);
    ASSERT_TRUE(replay.open(dir.Path("a.pcapng"), 4096, 0, Replay::Pace::kAsTaken, false));
    EXPECT_TRUE(replay.hasContractMap());
    EXPECT_EQ(replay.packets(0), 1U);
    card.openUp(0);
    EXPECT_THAT(at(100, 0), ElementsAre(17));
}

TEST_F(ReplayTest, KnowsWhatTheFileHas) {
    Capture capture(dir.Path("a.pcapng"));
    capture.add("channel 3", 0, {2, 0, 0, 0});  // a contract map means something on channel 0 only
    capture.add("channel 3", 0, {17, 0, 0, 0});
    capture.add("registers", 0, {2, 0, 0, 0}, capture::kRegisterLink);
    capture.add("channel 16", 0, {2, 0, 0, 0});
    capture.add("stream TRACE", 0, {2, 0, 0, 0});
    capture.close(1);
    ASSERT_TRUE(open(dir.Path("a.pcapng")));
    EXPECT_FALSE(replay.hasContractMap());
    EXPECT_EQ(replay.packets(3), 2U);
    EXPECT_EQ(replay.packets(), 2U);
    EXPECT_EQ(replay.problem(), "");

    ASSERT_TRUE(open(writeBytes(onePacket({2, 0, 0, 0, 1}))));
    EXPECT_TRUE(replay.hasContractMap());
    EXPECT_EQ(replay.packets(), 1U);
}

TEST_F(ReplayTest, TakesThePacketsOfItsOwnCardWhereAFileHasSeveral) {
    const std::string path = write({{"channel 0", 0}, {"card 2 channel 0", 0}, {"card 2 channel 0", 1}});
    ASSERT_TRUE(replay.open(path, 4096, 2));
    card.openUp(0);
    EXPECT_THAT(at(100, 0), ElementsAre(1));
    EXPECT_EQ(replay.packets(), 2U);
    EXPECT_FALSE(replay.open(path, 4096, 1));
    EXPECT_EQ(replay.problem(), path + ": packets of several cards, but none of the card at bus 1");
}

TEST_F(ReplayTest, TakesThePacketsOfAnotherCardWhereAFileHasOne) {
    ASSERT_TRUE(replay.open(write({{"card 3 channel 0", 0}}), 4096, 0));
    card.openUp(0);
    EXPECT_THAT(at(100, 0), ElementsAre(0));
}

TEST_F(ReplayTest, APacketLongerThanTheMtuIsAnErrorWithItsPlace) {
    const std::string path = writeBytes(onePacket(Bytes(4097)));
    EXPECT_FALSE(open(path));
    EXPECT_THAT(replay.problem(), HasSubstr(path + ": at byte 80: a packet of 4097 bytes, but the card's MTU is 4096"));
}

TEST_F(ReplayTest, AFileThatCannotBeReplayedIsNamedWithTheReason) {
    EXPECT_FALSE(open(dir.Path("none.pcapng")));
    EXPECT_EQ(replay.problem(), dir.Path("none.pcapng") + ": No such file or directory");
    EXPECT_FALSE(open(dir.Path()));
    EXPECT_EQ(replay.problem(), dir.Path() + ": not a regular file");
    const std::string text = dir.Write("text", "this is no capture");
    EXPECT_FALSE(open(text));
    EXPECT_EQ(replay.problem(), text + ": at byte 0: this is not the start of a pcapng file");
    Capture registers(dir.Path("registers.pcapng"));
    registers.add("registers", 0, {1}, capture::kRegisterLink);
    registers.close(1);
    EXPECT_FALSE(open(dir.Path("registers.pcapng")));
    EXPECT_EQ(replay.problem(), dir.Path("registers.pcapng") + ": no packet of a card's stream in it");
}

TEST_F(ReplayTest, ADamagedFileIsReplayedUpToTheDamageWhoseByteIsTold) {
    write({{"channel 0", 0}, {"channel 0", 1}, {"channel 0", 2}});
    const std::string whole = dir.Read("a.pcapng");
    std::uint64_t clockMs = 0;
    for (std::size_t size = whole.size() - 1; size > 0; --size) {
        const std::string path = dir.Write("b.pcapng", whole.substr(0, size));
        const capture::ReadFile expected = capture::readPath(path);
        ASSERT_EQ(open(path), !expected.packets.empty()) << size;
        if (expected.damage) {
            ASSERT_THAT(replay.problem(), HasSubstr(path + ": " + expected.damage->text)) << size;
        }
        card.openUp(0);
        at(clockMs, 0);
        at(clockMs += 100, 0);
        ASSERT_EQ(card.state().up[0].packets, expected.packets.size()) << size;
        card.closeUp(0);
    }
}

// A capture of what a card sends, and a capture of its replay through another one, taken at the same ticks.
TEST_F(ReplayTest, ACaptureOfAReplayIsTheCapture) {
    const auto record = [this](const std::string& name, Card& from, const std::function<void()>& tick) {
        Capture capture(dir.Path(name));
        capture.add("channel 0", 0, {});  // so that both channels begin at the same moment
        capture.add("channel 3", 0, {});
        for (std::uint64_t ms = 0; ms < 1500; ++ms) {
            tick();
            for (const std::uint32_t channel : {0U, 3U}) {
                for (PacketView p = from.peek(channel); p.data != nullptr; p = from.peek(channel)) {
                    capture.add(capture::nameOf({0, channel}), ms * kMs, Bytes(p.data, p.data + p.size));
                    from.release(channel);
                }
            }
        }
        capture.close(1500 * kMs);
        return dir.Read(name);
    };
    CardConfig config;
    config.mapRoundMs = 100;
    ZeroedMemory<CardState> sourceMemory;
    Card source(*sourceMemory.get());
    CardTime time = now;
    source.powerOn(config, time);
    for (std::uint32_t row = 0; row < 50; ++row) {
        source.write(card_reg::kTables[0].data * 4, 0, 32, 0x9);  // channels 0 and 3
        source.write(card_reg::kTables[0].command * 4, 0, 32, row << 6);
    }
    source.write(card_reg::kDecodeSwitch * 4, 0, 32, 3);
    source.write(card_reg::kMapTransmit * 4, 0, 32, 1);
    source.openUp(0);
    source.openUp(3);
    const std::string original = record("a.pcapng", source, [&] {
        source.advance(time);
        time.monotonicNs += kMs;
    });

    ASSERT_TRUE(open(dir.Path("a.pcapng")));
    EXPECT_TRUE(replay.hasContractMap());
    EXPECT_GT(replay.packets(3), 2000U);
    card.openUp(0);
    card.openUp(3);
    std::uint64_t clockNs = 777 * kMs;
    // record() writes the two empty packets at time 0 itself: the replayed ones are taken out first.
    replay.advance(card, clockNs);
    take(0);
    take(3);
    const std::string again = record("b.pcapng", card, [&] {
        replay.advance(card, clockNs);
        clockNs += kMs;
    });
    EXPECT_TRUE(replay.isFinished());
    EXPECT_EQ(again.size(), original.size());
    EXPECT_TRUE(again == original);
}
