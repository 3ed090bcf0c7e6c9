// A card whose memory another process fills with nonsense: nothing outside of it is touched, and every call ends. Worth
// most under the address sanitizer.

#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "interface/CardRegisters.h"
#include "sim/card/Card.h"
#include "sim/card/ZeroedMemory.h"

namespace vexo_sim {
namespace {

using Random = std::mt19937_64;

CardTime At(std::uint64_t ms) {
    CardTime time;
    time.monotonicNs = ms * 1'000'000;
    time.date = 20250115;
    time.time = 100000;
    return time;
}

// A card in full work: instruments learned, masks set, quotes and the contract map on their way.
void SetToWork(CardState& state) {
    Card card(state);
    card.powerOn(CardConfig{}, At(1000));
    card.openUp(0);
    card.openUp(3);
    card.advance(At(3000));
    for (std::uint32_t row = 0; row < 200; ++row) {
        card.write(card_reg::kTables[0].data * 4, 0, 32, 9);
        card.write(card_reg::kTables[0].command * 4, 0, 32, row << card_reg::kRowShift);
    }
    card.write(card_reg::kDecodeSwitch * 4, 0, 32, 3);
    card.write(card_reg::kMapTransmit * 4, 0, 32, 1);
    card.advance(At(3100));
}

void Overwrite(CardState& state, std::size_t at, std::uint32_t value) {
    std::memcpy(reinterpret_cast<unsigned char*>(&state) + at, &value, sizeof value);
}

std::uint32_t Nonsense(Random& random) {
    switch (random() % 4) {
        case 0: return ~std::uint32_t{0};
        case 1: return 0;
        case 2: return static_cast<std::uint32_t>(random() % 70'000);
        default: return static_cast<std::uint32_t>(random());
    }
}

// Counts, cursors and positions are few among the card's many bytes: they are aimed at.
void SpoilCounts(CardState& state, Random& random) {
    const std::size_t parts[] = {offsetof(CardState, config),
                                 offsetof(CardState, parser) + offsetof(ParserState, count),
                                 offsetof(CardState, faults), offsetof(CardState, map), offsetof(CardState, feed)};
    for (int n = 0; n < 40; ++n) Overwrite(state, parts[random() % 5] + random() % 64 * 4, Nonsense(random));
    constexpr std::size_t kPositions = offsetof(UpStreamState, ring);  // of the ring; the stream's own counts are first
    for (std::size_t channel = 0; channel < kStreams; ++channel) {
        const std::size_t stream = offsetof(CardState, up) + channel * sizeof(UpStreamState);
        for (int n = 0; n < 10; ++n)
            Overwrite(state, stream + (n % 2 == 0 ? 0 : kPositions) + random() % offsetof(RingState, bytes) / 4 * 4,
                      Nonsense(random));
    }
}

void SpoilAnything(CardState& state, Random& random) {
    for (int n = 0; n < 20'000; ++n) Overwrite(state, random() % (sizeof state / 4) * 4, Nonsense(random));
}

void ReadPackets(CardState& state, std::uint32_t channel) {
    Card card(state);
    const RingState& ring = state.up[channel].ring;
    for (int n = 0; n < 200; ++n) {
        const PacketView packet = card.peek(channel);
        if (packet.data == nullptr) return;
        ASSERT_GE(packet.data, ring.bytes);
        ASSERT_LE(packet.data + packet.size, ring.bytes + sizeof ring.bytes);
        card.release(channel);
    }
}

void CheckKeptPackets(RingState& ring) {
    ring::forEachKept(ring, [&](const PacketView& packet) {
        ASSERT_GE(packet.data, ring.bytes);
        ASSERT_LE(packet.data + packet.size, ring.bytes + sizeof ring.bytes);
    });
}

void UseRegisters(Card& card, Random& random) {
    const std::uint32_t words[] = {card_reg::kReset,
                                   card_reg::kDecodeSwitch,
                                   card_reg::kMapTransmit,
                                   card_reg::kTables[0].command,
                                   card_reg::kTables[0].data,
                                   card_reg::kTables[0].select,
                                   card_reg::kTables[1].command,
                                   card_reg::kTables[1].readBack,
                                   card_reg::kParserCounters[0]};
    for (int n = 0; n < 100; ++n) {
        const std::uint64_t address = std::uint64_t{words[random() % 9]} * 4;
        std::uint64_t value = 0;
        card.write(address, 0, 32, random() % 2 == 0 ? random() % 4 : random() % 0x90000);
        card.read(address, 0, 32, value);
    }
}

void UseEverything(CardState& state, Random& random) {
    Card card(state);
    std::uint64_t ms = state.now.monotonicNs / 1'000'000;
    const unsigned char packet[64] = {2};
    for (int step = 0; step < 30; ++step) {
        const auto channel = static_cast<std::uint32_t>(random() % kStreams);
        ms += random() % 300;
        card.advance(At(ms));
        UseRegisters(card, random);
        card.openUp(channel);
        card.push(channel, packet, sizeof packet);
        card.deliver(channel, packet, sizeof packet);
        for (std::uint32_t each = 0; each < kStreams; ++each) ReadPackets(state, each);
        CheckKeptPackets(state.up[channel].ring);
        card.send(channel, 100);
        if (step % 5 == 0) card.repair();
        if (step % 7 == 0) card.reset();
        card.closeUp(static_cast<std::uint32_t>(random() % kStreams));
    }
}

TEST(HostileState, EveryByteOfAFlagIsTrueOrFalse) {
    UpStreamState stream{};
    for (int byte = 0; byte < 256; ++byte) {
        std::memset(&stream.open, byte, sizeof stream.open);
        const bool open = stream.open;
        EXPECT_EQ(static_cast<int>(open), byte == 0 ? 0 : 1);
    }
}

TEST(HostileState, NoValueInACardsMemoryLeadsOutOfIt) {
    const ZeroedMemory<CardState> good;
    const ZeroedMemory<CardState> spoiled;
    ASSERT_NE(good.get(), nullptr);
    ASSERT_NE(spoiled.get(), nullptr);
    SetToWork(*good.get());
    for (unsigned seed = 0; seed < 60; ++seed) {
        SCOPED_TRACE(seed);
        Random random(seed);
        std::memcpy(static_cast<void*>(spoiled.get()), good.get(), sizeof(CardState));
        seed % 3 == 0 ? SpoilAnything(*spoiled.get(), random) : SpoilCounts(*spoiled.get(), random);
        UseEverything(*spoiled.get(), random);
    }
}

}  // namespace
}  // namespace vexo_sim
