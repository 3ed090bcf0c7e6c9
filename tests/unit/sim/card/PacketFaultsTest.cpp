#include <algorithm>
#include <tuple>

#include "sim/card/PacketFaults.h"
#include "tests/unit/sim/card/CardFixture.h"

using namespace vexo_sim;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

class PacketFaults : public CardTest {
protected:
    void SetUp() override { restart({}); }

    void restart(CardConfig config) {
        config.quotesPerSecond = 1000;
        powerOnWith({makeInstrument(0, 7, "SR505"), makeInstrument(0, 8, "CF505")}, config);
        card.openUp(0);
    }
    void addRule(const PacketFault& rule) { ASSERT_GE(packet_faults::add(card.state(), rule), 0); }

    std::vector<Bytes> quotes(std::uint64_t count) {
        setMask(0, 7, 1);
        write(card_reg::kDecodeSwitch, card_reg::kSwitchLevel1);
        advanceMs(count);
        return take(0);
    }
    Bytes mapPacket() {
        write(card_reg::kMapTransmit, 1);
        advanceMs(0);
        const auto packets = take(0);
        EXPECT_THAT(packets, SizeIs(1));
        return packets.at(0);
    }
    static std::vector<std::uint64_t> sequences(const std::vector<Bytes>& packets) {
        std::vector<std::uint64_t> all;
        for (const Bytes& packet : packets) all.push_back(quoteOf(packet).sequence);
        return all;
    }
    static std::vector<std::size_t> sizes(const std::vector<Bytes>& packets) {
        std::vector<std::size_t> all;
        for (const Bytes& packet : packets) all.push_back(packet.size());
        return all;
    }
    static PacketFault ruleOf(PacketFaultKind kind, std::uint32_t value = 0) {
        PacketFault rule;
        rule.kind = kind;
        rule.value = value;
        return rule;
    }
    std::uint64_t strikes(std::uint32_t rule = 0) const { return card.state().faults.rules[rule].strikes; }
};

// Bits in which two packets of the same size differ.
std::size_t differingBits(const Bytes& a, const Bytes& b) {
    EXPECT_EQ(a.size(), b.size());
    std::size_t count = 0;
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i)
        count += static_cast<std::size_t>(__builtin_popcount(static_cast<unsigned>(a[i] ^ b[i])));
    return count;
}

}  // namespace

TEST_F(PacketFaults, ADroppedQuoteLeavesAGapInTheNumbersAndNoTraceInTheCounters) {
    PacketFault rule = ruleOf(PacketFaultKind::kDrop);
    rule.first = 3;
    rule.times = 2;
    addRule(rule);
    EXPECT_THAT(sequences(quotes(6)), ElementsAre(1, 2, 5, 6));
    EXPECT_EQ(strikes(), 2U);
    EXPECT_EQ(card.state().up[0].packets, 4U);
    EXPECT_EQ(card.state().up[0].backPressure, 0U);
}

TEST_F(PacketFaults, ADoubledQuoteComesTwiceWithTheSameNumber) {
    PacketFault rule = ruleOf(PacketFaultKind::kDouble);
    rule.first = 2;
    rule.times = 1;
    addRule(rule);
    EXPECT_THAT(sequences(quotes(3)), ElementsAre(1, 2, 2, 3));
}

TEST_F(PacketFaults, DoublingRulesDoNotMultiplyWithoutEnd) {
    for (std::uint32_t n = 0; n < kPacketFaults; ++n) addRule(ruleOf(PacketFaultKind::kDouble));
    EXPECT_THAT(quotes(1), SizeIs(64));
}

TEST_F(PacketFaults, EveryNthPacketFromTheFirstOnIsStruck) {
    PacketFault rule = ruleOf(PacketFaultKind::kDrop);
    rule.first = 2;
    rule.every = 3;
    addRule(rule);
    EXPECT_THAT(sequences(quotes(9)), ElementsAre(1, 3, 4, 6, 7, 9));
}

TEST_F(PacketFaults, ACutQuoteKeepsItsFirstBytes) {
    const Bytes whole = quotes(1).at(0);
    for (std::uint32_t size = 0; size <= whole.size(); ++size) {
        restart({});
        addRule(ruleOf(PacketFaultKind::kCut, size));
        const auto packets = quotes(1);
        ASSERT_THAT(packets, SizeIs(1));
        EXPECT_EQ(packets[0], Bytes(whole.begin(), whole.begin() + size));
    }
}

TEST_F(PacketFaults, ACutBeyondTheEndChangesNothing) {
    const Bytes whole = quotes(1).at(0);
    restart({});
    addRule(ruleOf(PacketFaultKind::kCut, 1'000'000));
    EXPECT_EQ(quotes(1).at(0), whole);
}

TEST_F(PacketFaults, RuntsHaveEveryLengthBelowTheHeadInTurn) {
    addRule(ruleOf(PacketFaultKind::kRunt));
    EXPECT_THAT(sizes(quotes(14)), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 0, 1));
}

TEST_F(PacketFaults, TypeAndLengthOfTheHeadAreReplacedAlone) {
    const Bytes whole = quotes(1).at(0);
    for (const auto& [kind, offset] : {std::pair{PacketFaultKind::kType, 0U}, {PacketFaultKind::kHeadLength, 4U}}) {
        restart({});
        addRule(ruleOf(kind, 0x01020304));
        Bytes expected = whole;
        const unsigned char bytes[] = {4, 3, 2, 1};
        std::copy(std::begin(bytes), std::end(bytes), expected.begin() + offset);
        EXPECT_EQ(quotes(1).at(0), expected);
    }
}

TEST_F(PacketFaults, AFlippedBitLiesBehindTheHead) {
    const auto whole = quotes(50);
    restart({});
    addRule(ruleOf(PacketFaultKind::kFlip));
    const auto flipped = quotes(50);
    ASSERT_THAT(flipped, SizeIs(whole.size()));
    for (std::size_t n = 0; n < whole.size(); ++n) {
        EXPECT_EQ(differingBits(whole[n], flipped[n]), 1U);
        EXPECT_TRUE(std::equal(whole[n].begin(), whole[n].begin() + 12, flipped[n].begin()));
    }
}

TEST_F(PacketFaults, OnlyTheNamedChannelsAreStruck) {
    card.openUp(5);
    setMask(0, 8, 0x20);
    PacketFault rule = ruleOf(PacketFaultKind::kDrop);
    rule.channels = 0x20;
    addRule(rule);
    EXPECT_THAT(quotes(10), SizeIs(5));
    EXPECT_THAT(take(5), IsEmpty());
    EXPECT_EQ(strikes(), 5U);
}

TEST_F(PacketFaults, AQuoteSpoiledForOneChannelIsWholeForAnother) {
    card.openUp(1);
    setMask(0, 7, 3);
    PacketFault rule = ruleOf(PacketFaultKind::kType, 99);
    rule.channels = 1;
    addRule(rule);
    write(card_reg::kDecodeSwitch, card_reg::kSwitchLevel1);
    advanceMs(1);
    EXPECT_EQ(typeOf(take(0).at(0)), 99U);
    EXPECT_EQ(typeOf(take(1).at(0)), 17U);
}

TEST_F(PacketFaults, ASortOfPacketsIsStruckAlone) {
    PacketFault rule = ruleOf(PacketFaultKind::kDrop);
    rule.packets = kMapPackets;
    addRule(rule);
    write(card_reg::kMapTransmit, 1);
    EXPECT_THAT(quotes(5), SizeIs(5));
    EXPECT_EQ(strikes(), 1U);
}

TEST_F(PacketFaults, AChanceStrikesAboutAsOftenAsItSays) {
    PacketFault rule = ruleOf(PacketFaultKind::kDrop);
    rule.perMillion = 100'000;
    addRule(rule);
    for (int round = 0; round < 10; ++round) quotes(1000);
    EXPECT_EQ(card.state().faults.rules[0].seen, 10'000U);
    EXPECT_GT(strikes(), 850U);
    EXPECT_LT(strikes(), 1150U);
}

TEST_F(PacketFaults, AMessageOfTheContractMapGetsAnyLength) {
    const Bytes whole = mapPacket();
    for (const std::uint32_t length : {0U, 1U, 8U, 0xFFFFU}) {
        for (const std::uint32_t message : {0U, 1U}) {
            restart({});
            PacketFault rule = ruleOf(PacketFaultKind::kMapLength, length);
            rule.message = message;
            addRule(rule);
            Bytes expected = whole;
            const std::size_t at = message == 0 ? 14 : 28;
            expected[at] = static_cast<unsigned char>(length >> 8);
            expected[at + 1] = static_cast<unsigned char>(length);
            EXPECT_EQ(mapPacket(), expected);
        }
    }
}

TEST_F(PacketFaults, AreaCountAndIndexOfTheContractMapAreReplacedAlone) {
    const Bytes whole = mapPacket();
    const std::tuple<PacketFaultKind, std::uint32_t, std::size_t, Bytes> cases[] = {
        {PacketFaultKind::kMapArea, 0x0102, 12, {1, 2}},
        {PacketFaultKind::kMapCount, 0x01020304, 16, {1, 2, 3, 4}},
        {PacketFaultKind::kMapIndex, 0x2001, 21, {0x20, 1}},
    };
    for (const auto& [kind, value, offset, bytes] : cases) {
        restart({});
        addRule(ruleOf(kind, value));
        Bytes expected = whole;
        std::copy(bytes.begin(), bytes.end(), expected.begin() + static_cast<std::ptrdiff_t>(offset));
        EXPECT_EQ(mapPacket(), expected);
    }
}

TEST_F(PacketFaults, AMessageThatThePacketDoesNotHaveIsLeftAlone) {
    const Bytes whole = mapPacket();
    restart({});
    for (const PacketFaultKind kind : {PacketFaultKind::kMapLength, PacketFaultKind::kMapIndex}) {
        PacketFault rule = ruleOf(kind, 77);
        rule.message = 1000;
        addRule(rule);
    }
    EXPECT_EQ(mapPacket(), whole);
    EXPECT_EQ(strikes(), 1U);
}

TEST_F(PacketFaults, RulesMeetPacketsThatEarlierRulesSpoiled) {
    for (std::uint32_t size = 0; size < 45; ++size) {
        restart({});
        addRule(ruleOf(PacketFaultKind::kCut, size));
        for (std::uint32_t kind = 0; kind < static_cast<std::uint32_t>(PacketFaultKind::kEnd); ++kind) {
            if (kind == static_cast<std::uint32_t>(PacketFaultKind::kDrop)) continue;
            PacketFault rule = ruleOf(static_cast<PacketFaultKind>(kind), 5);
            rule.message = 1;
            addRule(rule);
        }
        write(card_reg::kMapTransmit, 1);
        advanceMs(0);
        for (const Bytes& packet : take(0)) EXPECT_LE(packet.size(), size);
    }
}

TEST_F(PacketFaults, ADroppedContractMapPacketIsNotSentAgain) {
    PacketFault rule = ruleOf(PacketFaultKind::kDrop);
    rule.packets = kMapPackets;
    rule.times = 1;
    addRule(rule);
    write(card_reg::kMapTransmit, 1);
    advanceMs(0);
    EXPECT_THAT(take(0), IsEmpty());
    advanceMs(m_config.mapRoundMs);
    EXPECT_THAT(take(0), SizeIs(1));
}

TEST_F(PacketFaults, ADoubledContractMapPacketComesTwice) {
    addRule(ruleOf(PacketFaultKind::kDouble));
    write(card_reg::kMapTransmit, 1);
    advanceMs(0);
    const auto packets = take(0);
    ASSERT_THAT(packets, SizeIs(2));
    EXPECT_EQ(packets[0], packets[1]);
}

TEST_F(PacketFaults, ADoubledPacketSurvivesTheEndOfASmallRing) {
    CardConfig config;
    config.ringBytes = kMinRingBytes;
    config.mtu = 1024;
    restart(config);
    addRule(ruleOf(PacketFaultKind::kDouble));
    write(card_reg::kMapTransmit, 1);
    for (int round = 0; round < 500; ++round) {
        advanceMs(m_config.mapRoundMs);
        const auto packets = take(0);
        ASSERT_THAT(packets, SizeIs(2));
        EXPECT_EQ(packets[0], packets[1]);
        EXPECT_EQ(packets[0].at(14 + 9), 'S');
    }
}

TEST_F(PacketFaults, ClearedRulesStrikeNoMore) {
    addRule(ruleOf(PacketFaultKind::kDrop));
    packet_faults::clear(card.state());
    EXPECT_FALSE(packet_faults::armed(card.state()));
    EXPECT_THAT(quotes(5), SizeIs(5));
}

TEST_F(PacketFaults, PowerOnForgetsRules) {
    addRule(ruleOf(PacketFaultKind::kDrop));
    restart({});
    EXPECT_THAT(quotes(5), SizeIs(5));
}

TEST_F(PacketFaults, TheirNumberIsBounded) {
    for (std::uint32_t n = 0; n < kPacketFaults; ++n)
        EXPECT_EQ(packet_faults::add(card.state(), ruleOf(PacketFaultKind::kDrop)), static_cast<int>(n));
    EXPECT_EQ(packet_faults::add(card.state(), ruleOf(PacketFaultKind::kDrop)), -1);
}

TEST_F(PacketFaults, WrongRulesAreRefused) {
    const auto refuses = [this](auto spoilRule) {
        PacketFault rule;
        spoilRule(rule);
        return packet_faults::add(card.state(), rule) == -1;
    };
    EXPECT_TRUE(refuses([](PacketFault& r) { r.kind = PacketFaultKind::kEnd; }));
    EXPECT_TRUE(refuses([](PacketFault& r) { r.channels = 0; }));
    EXPECT_TRUE(refuses([](PacketFault& r) { r.channels = 0x10000; }));
    EXPECT_TRUE(refuses([](PacketFault& r) { r.packets = 0; }));
    EXPECT_TRUE(refuses([](PacketFault& r) { r.packets = 4; }));
    EXPECT_TRUE(refuses([](PacketFault& r) { r.first = 0; }));
    EXPECT_TRUE(refuses([](PacketFault& r) { r.every = 0; }));
    EXPECT_TRUE(refuses([](PacketFault& r) { r.perMillion = kMillion + 1; }));
    EXPECT_FALSE(packet_faults::armed(card.state()));
}

namespace {

class PacketFaultsOfASeed : public PacketFaults {
protected:
    std::vector<Bytes> session(std::uint64_t seed) {
        CardConfig config;
        config.seed = seed;
        restart(config);
        for (std::uint32_t kind = 0; kind < static_cast<std::uint32_t>(PacketFaultKind::kEnd); ++kind) {
            PacketFault rule = ruleOf(static_cast<PacketFaultKind>(kind), 40);
            rule.perMillion = 200'000;
            addRule(rule);
        }
        write(card_reg::kMapTransmit, 1);
        std::vector<Bytes> all;
        for (int round = 0; round < 20; ++round)
            for (Bytes& packet : quotes(100)) all.push_back(std::move(packet));
        return all;
    }
};

}  // namespace

TEST_F(PacketFaultsOfASeed, TheSameSeedSpoilsTheSameBytes) {
    const auto first = session(7);
    ASSERT_GT(first.size(), 1000U);
    EXPECT_TRUE(first == session(7));  // not EXPECT_EQ: nobody wants to read it all
}

TEST_F(PacketFaultsOfASeed, AnotherSeedSpoilsOtherPackets) { EXPECT_NE(sizes(session(7)), sizes(session(8))); }
