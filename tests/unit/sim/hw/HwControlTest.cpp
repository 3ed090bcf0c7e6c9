#include "tests/unit/sim/hw/HwFixture.h"

using ::testing::Gt;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

class Control : public HwCardTest {
protected:
    static std::uint32_t peek(std::uint32_t word) {
        std::uint32_t value = ~0U;
        EXPECT_EQ(enyx_sim_peek_register(0, word, &value), 0);
        return value;
    }
    static std::uint32_t tableWord(std::uint32_t table, std::uint32_t row, std::uint32_t word) {
        std::uint32_t value = ~0U;
        EXPECT_EQ(enyx_sim_table_word(0, table, row, word, &value), 0);
        return value;
    }
    static enyx_sim_instrument instrument(std::uint32_t table, std::uint32_t row, const std::string& id) {
        enyx_sim_instrument entry{table, row, {}};
        id.copy(entry.id, sizeof entry.id);
        return entry;
    }
};

}  // namespace

TEST_F(Control, TheDefaultConfigurationIsThatOfACardNobodyConfigured) {
    enyx_sim_config config;
    enyx_sim_default_config(&config);
    EXPECT_EQ(config.cards, 1U);
    EXPECT_EQ(config.quotes_per_second, 5000U);
    EXPECT_EQ(config.learning_ms, 500U);
    EXPECT_EQ(config.static_round_ms, 250U);
    EXPECT_EQ(config.map_messages_per_packet, 128U);
    EXPECT_EQ(config.map_round_ms, 200U);
    EXPECT_EQ(config.mtu, 4096U);
    EXPECT_EQ(config.ring_bytes, 262144U);
    EXPECT_EQ(config.hardware_version, 13U);
    EXPECT_EQ(config.verdict, 1U);
    EXPECT_EQ(config.fibre_status, 15U);
    EXPECT_EQ(config.clock_offset_seconds, 0);
    EXPECT_EQ(config.instruments, ENYX_SIM_INSTRUMENTS_DEFAULT);
    EXPECT_EQ(config.list_date, 0U);
    enyx_sim_default_config(nullptr);
}

TEST_F(Control, TheKeyOfACardIsThatOfItsInstruments) {
    const auto key = [] {
        std::uint64_t value = 0;
        EXPECT_EQ(enyx_sim_card_key(&value), 0);
        return value;
    };
    const std::uint64_t first = key();
    powerCycleWith([](enyx_sim_config& c) { c.quotes_per_second = 1; });
    EXPECT_EQ(key(), first);

    const enyx_sim_instrument list[] = {instrument(0, 1, "SR505"), instrument(0, 2, "SR507")};
    EXPECT_EQ(enyx_sim_set_instruments(0, list, 2), 0);
    const std::uint64_t second = key();
    EXPECT_NE(second, first);
    const enyx_sim_instrument moved[] = {instrument(0, 1, "SR505"), instrument(0, 3, "SR507")};
    EXPECT_EQ(enyx_sim_set_instruments(0, moved, 2), 0);
    EXPECT_NE(key(), second);
    EXPECT_EQ(enyx_sim_set_instruments(0, list, 2), 0);
    EXPECT_EQ(key(), second);
    EXPECT_FAILS(enyx_sim_card_key(nullptr), EINVAL);
}

TEST_F(Control, EveryFieldOfTheConfigurationReachesTheCard) {
    powerCycleWith([](enyx_sim_config& c) {
        c.quotes_per_second = 1000;
        c.learning_ms = 100;
        c.static_round_ms = 50;
        c.map_messages_per_packet = 2;
        c.map_round_ms = 10;
        c.mtu = 1024;
        c.ring_bytes = 8192;
        c.hardware_version = 77;
        c.verdict = 2;
        c.fibre_status = 3;
        c.clock_offset_seconds = 61;
        c.instruments = ENYX_SIM_INSTRUMENTS_FULL;
        c.list_date = 20300601;
    });
    EXPECT_EQ(readRegister(core, 0x101), 77U);
    EXPECT_EQ(readRegister(core, 0x103), 3U);
    writeRegister(core, 0x102, 1);
    EXPECT_EQ(readRegister(core, 0x103), 2U);
    EXPECT_EQ(readRegister(core, 0x104), 100101U);
    advanceMs(100);
    std::uint32_t count = 0;
    std::uint32_t learned = 0;
    ASSERT_EQ(enyx_sim_instrument_count(0, &count, &learned), 0);
    EXPECT_EQ(count, 16384U);
    EXPECT_EQ(learned, 16384U);
    enyx_sim_instrument found;
    EXPECT_EQ(enyx_sim_find_instrument(0, "SR007", &found), 0);

    writeRegister(core, 0x11001, 0);
    writeRegister(core, 0x11000, 1);
    EXPECT_EQ(tableWord(0, 0, 1), 0U);
    advanceMs(50);
    EXPECT_NE(tableWord(0, 0, 1), 0U);

    const UpStream stream = openUp(accelerator, 0);
    std::uint32_t mtu = 0;
    EXPECT_EQ(enyx_hw_a2c_stream_get_mtu(stream.get(), &mtu), 0);
    EXPECT_EQ(mtu, 1024U);
    setMask(core, 0, 0, 1);
    writeRegister(core, card_reg::kDecodeSwitch, 2);
    advanceMs(5);
    EXPECT_THAT(takeAll(stream), SizeIs(5));
    advanceMs(900);
    EXPECT_THAT(takeAll(stream), SizeIs(8192 / 152));  // the ring holds no more of 140-byte packets
    writeRegister(core, card_reg::kDecodeSwitch, 0);
    writeRegister(core, card_reg::kMapTransmit, 1);
    auto map = takeAll(stream);
    ASSERT_THAT(map, SizeIs(1));
    EXPECT_LT(map[0].size(), 50U);  // two messages
    advanceMs(1);
    map = takeAll(stream);
    EXPECT_GT(map.size(), 100U);  // 8,192 packets a round of 10 ms: what the ring holds
}

TEST_F(Control, TheSeedDecidesThePrices) {
    const auto firstPackets = [this](std::uint64_t seed) {
        powerCycleWith([seed](enyx_sim_config& c) { c.seed = seed; });
        advanceMs(500);
        const UpStream stream = openUp(accelerator, 0);
        setMask(core, 0, 0, 1);
        writeRegister(core, card_reg::kDecodeSwitch, 2);
        advanceMs(10);
        std::vector<std::int64_t> prices;
        for (const std::string& packet : takeAll(stream)) {
            enyx_sim::Level1Quote quote;
            std::memcpy(&quote, packet.data() + 12, sizeof quote);
            prices.push_back(quote.bidPrice);
        }
        return prices;
    };
    const auto prices = firstPackets(7);
    EXPECT_THAT(prices, SizeIs(50));
    EXPECT_EQ(firstPackets(7), prices);
    EXPECT_NE(firstPackets(8), prices);
}

TEST_F(Control, ABadConfigurationChangesNothing) {
    writeRegister(core, 0x106, 5);
    enyx_sim_config config;
    for (const std::uint32_t cards : {0U, 6U}) {
        enyx_sim_default_config(&config);
        config.cards = cards;
        EXPECT_FAILS(enyx_sim_power_cycle(&config), EINVAL);
    }
    enyx_sim_default_config(&config);
    config.mtu = 1;
    EXPECT_FAILS(enyx_sim_power_cycle(&config), EINVAL);
    EXPECT_EQ(readRegister(core, 0x106), 5U);
}

TEST_F(Control, APowerCycleForgetsEverythingButKeepsRegisterHandles) {
    writeRegister(core, 0x106, 5);
    setMask(core, 0, 9, 1);
    enyx_sim_row_ignores_mask(0, 0, 9, 1);
    enyx_sim_power_cycle(nullptr);
    EXPECT_EQ(readRegister(core, 0x106), 0U);
    EXPECT_EQ(tableWord(0, 9, 0), 0U);
    setMask(core, 0, 9, 2);
    EXPECT_EQ(tableWord(0, 9, 0), 2U);
}

TEST_F(Control, CardsDifferBySeedOnly) {
    powerCycleWith([](enyx_sim_config& c) { c.cards = 2; });
    enyx_sim_instrument a;
    enyx_sim_instrument b;
    ASSERT_EQ(enyx_sim_instrument_at(0, 100, &a), 0);
    ASSERT_EQ(enyx_sim_instrument_at(1, 100, &b), 0);
    EXPECT_STREQ(a.id, b.id);

    advanceMs(500);
    const Mmio second = openMmio(openAccelerator(1));
    const UpStream streams[] = {openUp(accelerator, 0), openUp(openAccelerator(1), 0)};
    enyx_hw_core* const cores[] = {core, registersOf(second)};
    std::vector<std::string> packets[2];
    for (enyx_hw_core* one : cores) {
        setMask(one, 0, 0, 1);
        writeRegister(one, card_reg::kDecodeSwitch, 2);
    }
    advanceMs(10);
    for (const int n : {0, 1}) packets[n] = takeAll(streams[n]);
    EXPECT_THAT(packets[0], SizeIs(50));
    EXPECT_THAT(packets[1], SizeIs(50));
    EXPECT_NE(packets[0], packets[1]);
}

TEST_F(Control, PeekingAndPokingRegistersHasNoSideEffect) {
    writeRegister(core, 0x102, 9);
    EXPECT_EQ(peek(0x102), 9U);
    EXPECT_EQ(peek(0x103), 1U);
    EXPECT_EQ(readRegister(core, 0x103), 1U);
    EXPECT_EQ(peek(0x103), 15U);
    ASSERT_EQ(enyx_sim_poke_register(0, 0x103, 14), 0);
    EXPECT_EQ(readRegister(core, 0x103), 14U);
    ASSERT_EQ(enyx_sim_poke_register(0, 0x104, 101500), 0);
    EXPECT_EQ(readRegister(core, 0x104), 101500U);
    EXPECT_FAILS(enyx_sim_poke_register(0, 0x107, 1), EINVAL);
    EXPECT_FAILS(enyx_sim_peek_register(0, 0x102, nullptr), EINVAL);
}

TEST_F(Control, TableWordsAreReadAndSetInTheOrderStored) {
    ASSERT_EQ(enyx_sim_set_table_word(0, 1, 8191, 4, 0x41424344), 0);
    EXPECT_EQ(tableWord(1, 8191, 4), 0x41424344U);
    writeRegister(core, 0x12002, 8191 << 6 | 1);
    EXPECT_EQ(readRegister(core, 0x12003), 0x41424344U);
    std::uint32_t value;
    EXPECT_FAILS(enyx_sim_table_word(0, 2, 0, 0, &value), EINVAL);
    EXPECT_FAILS(enyx_sim_table_word(0, 0, 8192, 0, &value), EINVAL);
    EXPECT_FAILS(enyx_sim_table_word(0, 0, 0, 64, &value), EINVAL);
    EXPECT_FAILS(enyx_sim_table_word(0, 0, 0, 0, nullptr), EINVAL);
    EXPECT_FAILS(enyx_sim_set_table_word(0, 0, 8192, 0, 1), EINVAL);
}

TEST_F(Control, AMaskThatIsSetSubscribes) {
    advanceMs(500);
    const UpStream stream = openUp(accelerator, 6);
    writeRegister(core, card_reg::kDecodeSwitch, 2);
    ASSERT_EQ(enyx_sim_set_table_word(0, 0, 17, 0, 1 << 6), 0);
    advanceMs(1);
    EXPECT_THAT(takeAll(stream), SizeIs(5));
}

TEST_F(Control, ARowThatIgnoresItsMaskIsRepairedAgain) {
    ASSERT_EQ(enyx_sim_row_ignores_mask(0, 1, 33, 1), 0);
    setMask(core, 1, 33, 0xFF);
    EXPECT_EQ(tableWord(1, 33, 0), 0U);
    ASSERT_EQ(enyx_sim_row_ignores_mask(0, 1, 33, 0), 0);
    setMask(core, 1, 33, 0xFF);
    EXPECT_EQ(tableWord(1, 33, 0), 0xFFU);
    EXPECT_FAILS(enyx_sim_row_ignores_mask(0, 2, 33, 1), EINVAL);
    EXPECT_FAILS(enyx_sim_row_ignores_mask(0, 0, 8192, 1), EINVAL);
}

TEST_F(Control, InstrumentsCanBeReplacedAndLookedUp) {
    const enyx_sim_instrument list[] = {instrument(0, 5, "SR505"), instrument(1, 5, "SPD-SR505/SR509"),
                                        instrument(0, 8191, std::string(31, 'Z'))};
    ASSERT_EQ(enyx_sim_set_instruments(0, list, 3), 0);
    std::uint32_t count = 0;
    std::uint32_t learned = 0;
    ASSERT_EQ(enyx_sim_instrument_count(0, &count, &learned), 0);
    EXPECT_EQ(count, 3U);
    EXPECT_EQ(learned, 0U);
    advanceMs(500);
    ASSERT_EQ(enyx_sim_instrument_count(0, &count, &learned), 0);
    EXPECT_EQ(learned, 3U);
    EXPECT_EQ(tableWord(0, 5, 1), 0x53523530U);

    enyx_sim_instrument found{};
    ASSERT_EQ(enyx_sim_find_instrument(0, "SPD-SR505/SR509", &found), 0);
    EXPECT_EQ(found.table, 1U);
    EXPECT_EQ(found.row, 5U);
    ASSERT_EQ(enyx_sim_instrument_at(0, 2, &found), 0);
    EXPECT_EQ(found.row, 8191U);
    EXPECT_EQ(std::string(found.id), std::string(31, 'Z'));
    EXPECT_FAILS(enyx_sim_instrument_at(0, 3, &found), EINVAL);
    EXPECT_FAILS(enyx_sim_instrument_at(0, 0, nullptr), EINVAL);
    EXPECT_FAILS(enyx_sim_find_instrument(0, "SR507", &found), ENOENT);
    EXPECT_FAILS(enyx_sim_find_instrument(0, nullptr, &found), EINVAL);
    EXPECT_FAILS(enyx_sim_find_instrument(0, "SR505", nullptr), EINVAL);
    EXPECT_FAILS(enyx_sim_instrument_count(0, nullptr, &learned), EINVAL);
    EXPECT_FAILS(enyx_sim_instrument_count(0, &count, nullptr), EINVAL);
}

TEST_F(Control, ImpossibleInstrumentsChangeNothing) {
    const enyx_sim_instrument shared[] = {instrument(0, 5, "SR505"), instrument(0, 5, "SR507")};
    const enyx_sim_instrument beyond[] = {instrument(0, 65536, "SR505")};
    const enyx_sim_instrument table[] = {instrument(256, 0, "SR505")};
    const enyx_sim_instrument endless[] = {instrument(0, 0, std::string(32, 'Z'))};
    const enyx_sim_instrument unnamed[] = {instrument(0, 0, "")};
    EXPECT_FAILS(enyx_sim_set_instruments(0, shared, 2), EINVAL);
    EXPECT_FAILS(enyx_sim_set_instruments(0, beyond, 1), EINVAL);
    EXPECT_FAILS(enyx_sim_set_instruments(0, table, 1), EINVAL);
    EXPECT_FAILS(enyx_sim_set_instruments(0, endless, 1), EINVAL);
    EXPECT_FAILS(enyx_sim_set_instruments(0, unnamed, 1), EINVAL);
    EXPECT_FAILS(enyx_sim_set_instruments(0, nullptr, 1), EINVAL);
    EXPECT_FAILS(enyx_sim_set_instruments(0, shared, 16385), EINVAL);
    enyx_sim_instrument found;
    EXPECT_EQ(enyx_sim_instrument_at(0, 4000, &found), 0);
    EXPECT_EQ(enyx_sim_set_instruments(0, nullptr, 0), 0);
    EXPECT_FAILS(enyx_sim_instrument_at(0, 0, &found), EINVAL);
}

TEST_F(Control, APausedFeedSendsNothingByItself) {
    advanceMs(500);
    const UpStream stream = openUp(accelerator, 0);
    setMask(core, 0, 0, 1);
    writeRegister(core, card_reg::kDecodeSwitch, 3);
    writeRegister(core, card_reg::kMapTransmit, 1);
    ASSERT_EQ(enyx_sim_pause_feed(0, 1), 0);
    takeAll(stream);
    advanceMs(1000);
    EXPECT_THAT(takeAll(stream), IsEmpty());
    ASSERT_EQ(enyx_sim_pause_feed(0, 0), 0);
    advanceMs(1);
    EXPECT_THAT(takeAll(stream), SizeIs(Gt(0U)));
}

TEST_F(Control, AdvancingBringsTheCardUpToNow) {
    advanceMs(500);
    const UpStream stream = openUp(accelerator, 0);
    setMask(core, 0, 0, 1);
    writeRegister(core, card_reg::kDecodeSwitch, 2);
    advanceMs(1);
    ASSERT_EQ(enyx_sim_advance(0), 0);
    enyx_sim_counters counters{};
    ASSERT_EQ(enyx_sim_get_counters(0, 0, &counters), 0);
    EXPECT_EQ(counters.packets, 5U);
}

TEST_F(Control, APushChecksItsArguments) {
    const UpStream stream = openUp(accelerator, 0);
    const std::string data(4097, 'x');
    EXPECT_EQ(enyx_sim_push(0, 0, data.data(), 4096, 0), 0);
    EXPECT_FAILS(enyx_sim_push(0, 0, data.data(), 4097, 0), EMSGSIZE);
    EXPECT_FAILS(enyx_sim_push(0, 16, data.data(), 1, 1), EINVAL);
    EXPECT_FAILS(enyx_sim_push(0, 0, nullptr, 1, 1), EINVAL);
    EXPECT_EQ(enyx_sim_push(0, 0, nullptr, 0, 0), 0);
}

TEST_F(Control, ChannelsBeyondTheLastAreRefused) {
    enyx_sim_counters counters{};
    EXPECT_FAILS(enyx_sim_get_counters(0, 16, &counters), EINVAL);
    EXPECT_FAILS(enyx_sim_get_counters(0, 0, nullptr), EINVAL);
    EXPECT_FAILS(enyx_sim_set_counters(0, 16, &counters), EINVAL);
    EXPECT_FAILS(enyx_sim_set_counters(0, 0, nullptr), EINVAL);
    EXPECT_FAILS(enyx_sim_busy_sends(0, 16, 1), EINVAL);
}

TEST_F(Control, ACardThatIsNotThereIsRefusedByEveryCall) {
    std::uint32_t value;
    enyx_sim_instrument entry{};
    enyx_sim_counters counters{};
    for (const std::uint32_t card : {1U, 4U, 5U, 4294967295U}) {
        EXPECT_FAILS(enyx_sim_advance(card), ENODEV);
        EXPECT_FAILS(enyx_sim_pause_feed(card, 1), ENODEV);
        EXPECT_FAILS(enyx_sim_peek_register(card, 0x101, &value), ENODEV);
        EXPECT_FAILS(enyx_sim_poke_register(card, 0x101, 1), ENODEV);
        EXPECT_FAILS(enyx_sim_table_word(card, 0, 0, 0, &value), ENODEV);
        EXPECT_FAILS(enyx_sim_set_table_word(card, 0, 0, 0, 1), ENODEV);
        EXPECT_FAILS(enyx_sim_row_ignores_mask(card, 0, 0, 1), ENODEV);
        EXPECT_FAILS(enyx_sim_set_instruments(card, nullptr, 0), ENODEV);
        EXPECT_FAILS(enyx_sim_instrument_count(card, &value, &value), ENODEV);
        EXPECT_FAILS(enyx_sim_instrument_at(card, 0, &entry), ENODEV);
        EXPECT_FAILS(enyx_sim_find_instrument(card, "x", &entry), ENODEV);
        EXPECT_FAILS(enyx_sim_push(card, 0, "x", 1, 1), ENODEV);
        EXPECT_FAILS(enyx_sim_get_counters(card, 0, &counters), ENODEV);
        EXPECT_FAILS(enyx_sim_set_counters(card, 0, &counters), ENODEV);
        EXPECT_FAILS(enyx_sim_busy_sends(card, 0, 1), ENODEV);
    }
}
