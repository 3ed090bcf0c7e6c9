// What a scenario file makes of a card's configuration.

#include <sys/stat.h>
#include <cerrno>

#include "sim/card/ZeroedMemory.h"
#include "tests/unit/sim/scenario/ScenarioFixture.h"

using namespace vexo_sim;
using namespace vexo_sim::scenario;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

TEST_F(ScenarioTest, AnEmptyFileIsTheCardThatNobodyConfigured) {
    const Scenario scenario = loaded("# nothing\n\n; at all\n");
    const CardConfig expected;
    EXPECT_EQ(scenario.name, "a");
    EXPECT_EQ(scenario.config.seed, expected.seed);
    EXPECT_EQ(scenario.config.quotesPerSecond, expected.quotesPerSecond);
    EXPECT_EQ(scenario.config.pace, 1U);
    EXPECT_FALSE(scenario.instruments.has_value());
    EXPECT_THAT(scenario.packetFaults, IsEmpty());
}

TEST_F(ScenarioTest, EveryKeyOfTheCardIsTakenOver) {
    const Scenario s = loaded(
        "[scenario]\ndescription = \"What it rehearses; all of it\"\n"
        "[card]\nbus = 3\nseed = 0xFFFFFFFFFFFFFFFF\nhardware_version = 12\nverdict = 2\nfibre_status = 0x7\n"
        "clock_offset = -90\ndate = 20250303\nswitch = 3\nlist_date = 20250304\nlearning_ms = 1\nstatic_round_ms = 2\n"
        "mtu = 512\nring_bytes = 65536\nmap_messages_per_packet = 3\nmap_round_ms = 4\n"
        "[instruments]\nlist = full\n"
        "[quotes]\nper_second = 10\nper_instrument = 11\nburst_every_s = 12\nburst_ms = 13\nburst_factor = 14\n"
        "[pace]\npace = x10\n");
    const CardConfig& c = s.config;
    EXPECT_EQ(s.description, "What it rehearses; all of it");
    EXPECT_EQ(s.bus, 3U);
    EXPECT_EQ(c.seed, ~std::uint64_t{0});
    EXPECT_EQ(c.hardwareVersion, 12U);
    EXPECT_EQ(c.verdict, 2U);
    EXPECT_EQ(c.fibreStatus, 7U);
    EXPECT_EQ(c.clockOffsetSeconds, -90);
    EXPECT_EQ(c.initialDate, 20250303U);
    EXPECT_EQ(c.initialSwitch, 3U);
    EXPECT_EQ(c.listDate, 20250304U);
    EXPECT_EQ(c.learningMs, 1U);
    EXPECT_EQ(c.staticRoundMs, 2U);
    EXPECT_EQ(c.mtu, 512U);
    EXPECT_EQ(c.ringBytes, 65536U);
    EXPECT_EQ(c.mapMessagesPerPacket, 3U);
    EXPECT_EQ(c.mapRoundMs, 4U);
    EXPECT_EQ(c.instruments, InstrumentChoice::kFull);
    EXPECT_EQ(c.quotesPerSecond, 10U);
    EXPECT_EQ(c.quotesPerInstrument, 11U);
    EXPECT_EQ(c.burstEveryMs, 12000U);
    EXPECT_EQ(c.burstMs, 13U);
    EXPECT_EQ(c.burstFactor, 14U);
    EXPECT_EQ(c.pace, 10U);
}

TEST_F(ScenarioTest, NamesAreReadInAnyCaseAndValuesAsTheyStand) {
    EXPECT_EQ(loaded("[SCENARIO]\nDescription = Quiet Day\n").description, "Quiet Day");
}

TEST_F(ScenarioTest, PaceIsRealOrAFactorOrTheReaders) {
    EXPECT_EQ(loaded("[pace]\npace = real\n").config.pace, 1U);
    EXPECT_EQ(loaded("[pace]\npace = x1000\n").config.pace, 1000U);
    EXPECT_EQ(loaded("[pace]\npace = max\n").config.pace, kPaceOfReaders);
}

TEST_F(ScenarioTest, TheDateOfTheCardMayFollowTheDay) {
    const CardTime newYear{1, 20250101, 93000, 0};
    EXPECT_EQ(configAt(loaded("[card]\ndate = today\n"), newYear).initialDate, 20250101U);
    EXPECT_EQ(configAt(loaded("[card]\ndate = yesterday\n"), newYear).initialDate, 20241231U);
    EXPECT_EQ(configAt(loaded("[card]\ndate = 0\n"), newYear).initialDate, 0U);
    EXPECT_EQ(configAt(loaded(""), newYear).initialDate, 0U);
}

TEST_F(ScenarioTest, TheClockOfTheExchangeIsSetAtPowerOn) {
    const Scenario scenario = loaded("[card]\nclock = 23:59:50\n");
    EXPECT_EQ(configAt(scenario, {1, 20250101, 100000, 0}).clockOffsetSeconds, 13 * 3600 + 59 * 60 + 50);
    EXPECT_EQ(configAt(scenario, {1, 20250101, 235959, 0}).clockOffsetSeconds, -9);
}

TEST_F(ScenarioTest, InstrumentsComeFromAFileBesideTheScenario) {
    write("list.txt", "# comment\n\n0,0,SR505\n 8191 , combination , SPD-SR505/SR509 \n7,single,CF505\n");
    const auto list = loaded("[instruments]\nfile = list.txt\n").instruments.value();
    ASSERT_THAT(list, SizeIs(3));
    EXPECT_STREQ(list[1].id, "SPD-SR505/SR509");
    EXPECT_EQ(list[1].table, 1U);
    EXPECT_EQ(list[1].row, 8191U);
    EXPECT_EQ(list[2].table, 0U);
}

TEST_F(ScenarioTest, InstrumentsComeFromADayFile) {
    write("day", "inst_index,inst_id\n5,SR505\n5,IPS-SF505/SM505\nbin_file_over_tag\n");
    const auto list = loaded("[instruments]\nday_file = day\n").instruments.value();
    ASSERT_THAT(list, SizeIs(2));
    EXPECT_EQ(list[0].table, 0U);
    EXPECT_EQ(list[1].table, 1U);
    EXPECT_STREQ(list[1].id, "IPS-SF505/SM505");
}

TEST_F(ScenarioTest, PathsAreRelativeToTheScenario) {
    ASSERT_EQ(::mkdir("sub", 0755), 0);
    write("sub/list.txt", "0,0,SR505\n");
    write("sub/a.ini", "[instruments]\nfile = list.txt\n[replay]\nfile = list.txt\nmap = card\n");
    std::string error;
    const auto scenario = load("sub/a.ini", error);
    ASSERT_TRUE(scenario.has_value()) << error;
    EXPECT_THAT(*scenario->instruments, SizeIs(1));
    EXPECT_EQ(scenario->replayFile, "sub/list.txt");
    EXPECT_FALSE(scenario->replayMap);
}

TEST_F(ScenarioTest, APacketFaultHasAllItsKeys) {
    const auto faults = loaded(
                            "[fault a]\nkind = cut\nchannels = 0, 5-7\npackets = quotes\nfirst = 2\nevery = 3\n"
                            "times = 4\nper_million = 5\nbytes = 6\n")
                            .packetFaults;
    ASSERT_THAT(faults, SizeIs(1));
    EXPECT_EQ(faults[0].kind, PacketFaultKind::kCut);
    EXPECT_EQ(faults[0].channels, 0xE1U);
    EXPECT_EQ(faults[0].packets, kQuotePackets);
    EXPECT_EQ(faults[0].first, 2U);
    EXPECT_EQ(faults[0].every, 3U);
    EXPECT_EQ(faults[0].times, 4U);
    EXPECT_EQ(faults[0].perMillion, 5U);
    EXPECT_EQ(faults[0].value, 6U);
}

TEST_F(ScenarioTest, FaultsOfTheContractMapSayWhichMessage) {
    const auto faults = loaded(
                            "[fault a]\nkind = map_length\nmessage = 3\nlength = 1\n"
                            "[fault b]\nkind = map_index\nmessage = 2\nindex = 9000\n"
                            "[fault c]\nkind = map_area\nlength = 65535\n"
                            "[fault d]\nkind = map_count\ncount = 0xFFFFFFFF\n")
                            .packetFaults;
    ASSERT_THAT(faults, SizeIs(4));
    EXPECT_EQ(faults[0].message, 3U);
    EXPECT_EQ(faults[1].value, 9000U);
    EXPECT_EQ(faults[2].value, 65535U);
    EXPECT_EQ(faults[3].value, 0xFFFFFFFFU);
    for (const PacketFault& fault : faults) EXPECT_EQ(fault.packets, kMapPackets);
}

TEST_F(ScenarioTest, OtherFaultsAreTakenOver) {
    const Scenario s = loaded(
        "[fault a]\nkind = mask_refused\ntable = combination\nrows = 3, 8-10\n"
        "[fault b]\nkind = busy_sends\nchannels = 1\nsends = all\n"
        "[fault c]\nkind = stream_held\nchannels = 2, 15\n"
        "[fault d]\nkind = stream_errors\nchannels = all\nfifo_errors = 7\n"
        "[fault e]\nkind = running_counters\n"
        "[fault f]\nkind = card_stops\nafter_packets = 8\nafter_ms = 9\n"
        "[fault g]\nkind = reset_ignored\ntimes = 1\n");
    ASSERT_THAT(s.brokenRows, SizeIs(2));
    EXPECT_EQ(s.brokenRows[1].table, 1U);
    EXPECT_EQ(s.brokenRows[1].first, 8U);
    EXPECT_EQ(s.brokenRows[1].last, 10U);
    ASSERT_THAT(s.busySends, SizeIs(1));
    EXPECT_EQ(s.busySends[0].sends, kForGood);
    EXPECT_EQ(s.heldStreams, 0x8004U);
    ASSERT_THAT(s.streamErrors, SizeIs(1));
    EXPECT_EQ(s.streamErrors[0].fifoErrors, 7U);
    EXPECT_EQ(s.counters, CounterMode::kRunning);
    EXPECT_EQ(s.stopAfterPackets, 8U);
    EXPECT_EQ(s.stopAfterMs, 9U);
    EXPECT_EQ(s.resetsIgnored, 1U);
}

TEST_F(ScenarioTest, CallsFailWithAnErrnoByNameOrNumberOrWithAResult) {
    const auto failures = loaded(
                              "[fault a]\nkind = call_fails\ncall = enyx_hw_read\nnth = 3\nerrno = EIO\n"
                              "[fault b]\nkind = call_fails\ncall = enyx_hw_mmio_create\ntimes = all\nerrno = 110\n"
                              "[fault c]\nkind = call_fails\ncall = enyx_hw_core_enumerate\nerrno = ENOENT\n"
                              "result = -2\n")
                              .callFailures;
    ASSERT_THAT(failures, SizeIs(3));
    EXPECT_STREQ(hw_calls::nameOf(failures[0].call), "enyx_hw_read");
    EXPECT_EQ(failures[0].nth, 3U);
    EXPECT_EQ(failures[0].times, 1U);
    EXPECT_EQ(failures[0].error, EIO);
    EXPECT_EQ(failures[1].error, ETIMEDOUT);
    EXPECT_EQ(failures[1].times, 0U);
    EXPECT_EQ(failures[2].result, -2);
}

namespace {

class ScenarioOnACard : public ScenarioTest {
protected:
    Card& poweredOn(const std::string& content) {
        powerOn(m_card, loaded(content), m_now);
        return m_card;
    }
    void advanceMs(std::uint64_t ms) {
        m_now.monotonicNs += ms * 1'000'000;
        m_card.advance(m_now);
    }
    const CardState& state() const { return m_card.state(); }

    CardTime m_now{1'000'000'000, 20250303, 93000, 0};
    ZeroedMemory<CardState> m_memory;
    Card m_card{*m_memory.get()};
};

}  // namespace

TEST_F(ScenarioOnACard, TheListIsLearnedAndTheSwitchIsOnFromTheStart) {
    write("list.txt", "4,0,SR505\n9,1,SPD-SR505/SR509\n");
    poweredOn("[card]\nswitch = 3\ndate = today\n[instruments]\nfile = list.txt\n");
    advanceMs(500);
    EXPECT_EQ(state().parser.learned, 2U);
    EXPECT_EQ(state().registers.stored[card_reg::kDecodeSwitch], 3U);
    EXPECT_EQ(state().registers.stored[card_reg::kTradingDate], 20250303U);
}

TEST_F(ScenarioOnACard, FaultsAreThereFromTheStart) {
    poweredOn(
        "[fault a]\nkind = mask_refused\ntable = single\nrows = 3\n"
        "[fault b]\nkind = busy_sends\nchannels = 1\nsends = 2\n"
        "[fault c]\nkind = stream_held\nchannels = 2\n"
        "[fault d]\nkind = stream_errors\nchannels = 4\nfifo_errors = 7\nerrors = 8\n"
        "[fault e]\nkind = frozen_counters\n"
        "[fault f]\nkind = drop\n"
        "[fault g]\nkind = card_stops\nafter_ms = 100\n");
    EXPECT_EQ(state().tables[0].maskRefused[0], 8U);
    EXPECT_EQ(state().down[1].busySends, 2U);
    EXPECT_EQ(state().down[0].busySends, 0U);
    EXPECT_FALSE(m_card.openUp(2));
    EXPECT_EQ(state().up[4].fifoErrors, 7U);
    EXPECT_EQ(state().up[4].errors, 8U);
    EXPECT_EQ(state().faults.count, 1U);
    advanceMs(99);
    EXPECT_FALSE(state().faults.stopped);
    EXPECT_GT(state().parser.learned, 0U);
    EXPECT_EQ(state().parser.counters[0], 0U);
    advanceMs(1);
    EXPECT_TRUE(state().faults.stopped);
}

TEST_F(ScenarioOnACard, TheNextScenarioOwesNothingToTheLast) {
    poweredOn(
        "[fault a]\nkind = drop\n[fault b]\nkind = stream_held\n"
        "[fault c]\nkind = card_stops\nafter_packets = 1\n");
    poweredOn("");
    EXPECT_FALSE(state().faults.armed);
    EXPECT_TRUE(m_card.openUp(0));
}

namespace {

// Everything that comes up channel 0's stream in three seconds of a shipped scenario.
class ScenarioOfASeed : public ScenarioOnACard {
protected:
    std::vector<std::vector<unsigned char>> session(std::uint64_t seed) {
        std::string error;
        std::optional<Scenario> scenario = load(VEXO_SCENARIO_DIR "/hostile_packets.ini", error);
        EXPECT_TRUE(scenario.has_value()) << error;
        scenario->config.seed = seed;
        m_now = CardTime{1'000'000'000, 20250303, 93000, 0};
        powerOn(m_card, *scenario, m_now);
        m_card.openUp(0);
        m_card.write(card_reg::kMapTransmit * 4, 0, 32, 1);
        m_card.write(card_reg::kDecodeSwitch * 4, 0, 32, 3);
        advanceMs(500);
        for (std::uint32_t row = 0; row < 50; ++row) {
            m_card.write(card_reg::kTables[0].data * 4, 0, 32, 1);
            m_card.write(card_reg::kTables[0].command * 4, 0, 32, row << card_reg::kRowShift);
        }
        std::vector<std::vector<unsigned char>> packets;
        for (int ms = 0; ms < 3000; ++ms) {
            advanceMs(1);
            for (PacketView p = m_card.peek(0); p.data != nullptr; p = m_card.peek(0)) {
                packets.emplace_back(p.data, p.data + p.size);
                m_card.release(0);
            }
        }
        return packets;
    }
};

}  // namespace

TEST_F(ScenarioOfASeed, IsTheSameToTheLastByteEveryTime) {
    const auto first = session(5);
    ASSERT_GT(first.size(), 10'000U);
    for (std::uint32_t rule = 0; rule < state().faults.count; ++rule) EXPECT_GT(state().faults.rules[rule].strikes, 0U);
    EXPECT_TRUE(first == session(5));  // not EXPECT_EQ: nobody wants to read megabytes
}

TEST_F(ScenarioOfASeed, IsAnotherWithAnotherSeed) { EXPECT_FALSE(session(5) == session(6)); }
