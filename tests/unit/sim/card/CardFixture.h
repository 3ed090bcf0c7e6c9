#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "enyx-sim/md_payload.h"
#include "sim/card/Card.h"
#include "sim/card/ZeroedMemory.h"

namespace vexo_sim {

using Bytes = std::vector<unsigned char>;

inline Instrument makeInstrument(std::uint32_t table, std::uint32_t row, const std::string& id) {
    Instrument instrument{};
    instrument.table = static_cast<std::uint8_t>(table);
    instrument.row = static_cast<std::uint16_t>(row);
    id.copy(instrument.id, sizeof instrument.id);
    return instrument;
}

/// A card that the test drives by itself: registers by word index, time by milliseconds.
class CardTest : public ::testing::Test {
protected:
    void powerOn(const CardConfig& config = {}) {
        m_config = config;
        card.powerOn(config, now);
    }

    /// Power-on with instruments of the test's own, all of them learned.
    void powerOnWith(const std::vector<Instrument>& instruments, CardConfig config = {}) {
        config.instruments = InstrumentChoice::kNone;
        powerOn(config);
        ASSERT_TRUE(card.replaceInstruments(instruments.data(), instruments.size()));
        advanceMs(config.learningMs);
        ASSERT_EQ(learned(), instruments.size());
    }

    void advanceNs(std::uint64_t ns) {
        now.monotonicNs += ns;
        card.advance(now);
    }
    void advanceMs(std::uint64_t ms) { advanceNs(ms * 1'000'000); }

    void write(std::uint32_t word, std::uint32_t value) {
        ASSERT_TRUE(card.write(std::uint64_t{word} * 4, 0, 32, value));
    }
    std::uint32_t read(std::uint32_t word) {
        std::uint64_t value = ~std::uint64_t{0};
        EXPECT_TRUE(card.read(std::uint64_t{word} * 4, 0, 32, value));
        return static_cast<std::uint32_t>(value);
    }

    void storeWord(std::uint32_t table, std::uint32_t row, std::uint32_t word, std::uint32_t value) {
        write(card_reg::kTables[table].data, value);
        write(card_reg::kTables[table].command, row << 6 | word);
    }
    void setMask(std::uint32_t table, std::uint32_t row, std::uint32_t mask) { storeWord(table, row, 0, mask); }
    std::uint32_t readBack(std::uint32_t table, std::uint32_t row, std::uint32_t word) {
        write(card_reg::kTables[table].select, row << 6 | word);
        return read(card_reg::kTables[table].readBack);
    }
    /// A row's id, put together from the read-back words 4, 3, 2, 1, bytes most significant first.
    std::string readId(std::uint32_t table, std::uint32_t row) {
        std::string id;
        for (std::uint32_t word = 4; word >= 1; --word) {
            const std::uint32_t value = readBack(table, row, word);
            for (const unsigned shift : {24U, 16U, 8U, 0U}) id += static_cast<char>(value >> shift & 0xFF);
        }
        return id.substr(0, id.find('\0'));
    }

    std::uint32_t learned() const { return card.state().parser.learned; }
    std::vector<std::uint32_t> counters() {
        std::vector<std::uint32_t> values;
        for (const std::uint32_t word : card_reg::kParserCounters) values.push_back(read(word));
        return values;
    }

    /// Everything that waits in a stream.
    std::vector<Bytes> take(std::uint32_t channel) {
        std::vector<Bytes> packets;
        for (PacketView p = card.peek(channel); p.data != nullptr; p = card.peek(channel)) {
            packets.emplace_back(p.data, p.data + p.size);
            card.release(channel);
        }
        return packets;
    }

    CardTime now{1'000'000'000'000, 20250115, 100000, 0};
    ZeroedMemory<CardState> memory;
    Card card{*memory.get()};
    CardConfig m_config;
};

template <typename T>
T readAs(const Bytes& packet, std::size_t offset) {
    T value{};
    EXPECT_LE(offset + sizeof value, packet.size());
    if (offset + sizeof value <= packet.size()) std::memcpy(&value, packet.data() + offset, sizeof value);
    return value;
}

inline std::uint32_t typeOf(const Bytes& packet) { return readAs<std::uint32_t>(packet, 0); }
inline enyx_sim::QuoteCommon quoteOf(const Bytes& packet) { return readAs<enyx_sim::QuoteCommon>(packet, 12); }

}  // namespace vexo_sim
