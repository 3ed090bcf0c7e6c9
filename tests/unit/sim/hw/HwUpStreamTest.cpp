#include <algorithm>
#include <stdexcept>

#include "tests/unit/sim/hw/HwFixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

class UpStreams : public HwCardTest {
protected:
    static int push(std::uint32_t channel, const std::string& bytes, bool withoutReader = false) {
        return enyx_sim_push(0, channel, bytes.data(), static_cast<std::uint32_t>(bytes.size()), withoutReader ? 1 : 0);
    }
    static std::uint32_t counter(int (*get)(const enyx_hw_a2c_stream*, std::uint32_t*), const UpStream& stream) {
        std::uint32_t value = ~0U;
        EXPECT_EQ(get(stream.get(), &value), 0);
        return value;
    }
};

}  // namespace

TEST_F(UpStreams, DeliverOnePacketAPollInTheOrderSent) {
    const UpStream stream = openUp(accelerator, 3);
    ASSERT_EQ(push(3, "one"), 0);
    ASSERT_EQ(push(3, ""), 0);
    ASSERT_EQ(push(3, "three"), 0);
    std::vector<std::string> packets;
    EXPECT_EQ(enyx_hw_a2c_stream_poll_once(stream.get(), collect, &packets), 1);
    EXPECT_THAT(packets, ElementsAre("one"));
    EXPECT_EQ(enyx_hw_a2c_stream_poll_once(stream.get(), collect, &packets), 1);
    EXPECT_EQ(enyx_hw_a2c_stream_poll_once(stream.get(), collect, &packets), 1);
    EXPECT_THAT(packets, ElementsAre("one", "", "three"));
    EXPECT_EQ(enyx_hw_a2c_stream_poll_once(stream.get(), collect, &packets), 0);
    EXPECT_THAT(packets, SizeIs(3));
}

TEST_F(UpStreams, HaveOneHolder) {
    UpStream first = openUp(accelerator, 3);
    EXPECT_NULL(openUp(accelerator, 3), EBUSY);
    EXPECT_NE(openUp(accelerator, 4), nullptr);
    first.reset();
    EXPECT_NE(openUp(accelerator, 3), nullptr);
}

TEST_F(UpStreams, OfDifferentCardsAreDifferentStreams) {
    powerCycleWith([](enyx_sim_config& c) { c.cards = 2; });
    const UpStream first = openUp(accelerator, 3);
    const UpStream second = openUp(openAccelerator(1), 3);
    ASSERT_NE(second, nullptr);
    ASSERT_EQ(enyx_sim_push(1, 3, "x", 1, 0), 0);
    EXPECT_THAT(takeAll(first), IsEmpty());
    EXPECT_THAT(takeAll(second), ElementsAre("x"));
}

TEST_F(UpStreams, ReportTheMtu) {
    powerCycleWith([](enyx_sim_config& c) { c.mtu = 2048; });
    const UpStream stream = openUp(accelerator, 0);
    std::uint32_t mtu = 0;
    EXPECT_EQ(enyx_hw_a2c_stream_get_mtu(stream.get(), &mtu), 0);
    EXPECT_EQ(mtu, 2048U);
}

TEST_F(UpStreams, CountPacketsAndBackPressure) {
    powerCycleWith([](enyx_sim_config& c) { c.ring_bytes = 16384; });
    const UpStream stream = openUp(accelerator, 0);
    const std::string packet(4000, 'x');
    while (push(0, packet) == 0) {
    }
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_EQ(counter(enyx_hw_a2c_stream_stats_get_packet_count, stream), 4U);
    EXPECT_EQ(counter(enyx_hw_a2c_stream_stats_get_backpressure, stream), 1U);
    EXPECT_EQ(counter(enyx_hw_a2c_stream_stats_get_fifo_errors, stream), 0U);
    EXPECT_EQ(counter(enyx_hw_a2c_stream_stats_get_errors, stream), 0U);
    EXPECT_THAT(takeAll(stream), SizeIs(4));
}

TEST_F(UpStreams, ShowTheCountersThatWereSet) {
    const UpStream stream = openUp(accelerator, 7);
    const enyx_sim_counters counters = {11, 22, 33, 44, 55, 66};
    ASSERT_EQ(enyx_sim_set_counters(0, 7, &counters), 0);
    EXPECT_EQ(counter(enyx_hw_a2c_stream_stats_get_packet_count, stream), 11U);
    EXPECT_EQ(counter(enyx_hw_a2c_stream_stats_get_backpressure, stream), 22U);
    EXPECT_EQ(counter(enyx_hw_a2c_stream_stats_get_fifo_errors, stream), 33U);
    EXPECT_EQ(counter(enyx_hw_a2c_stream_stats_get_errors, stream), 44U);
    enyx_sim_counters read{};
    ASSERT_EQ(enyx_sim_get_counters(0, 7, &read), 0);
    EXPECT_EQ(read.sent_packets, 55U);
    EXPECT_EQ(read.sent_bytes, 66U);
}

TEST_F(UpStreams, ShowErrorsBeforeTheFirstPacketToo) {
    const UpStream stream = openUp(accelerator, 7);
    const enyx_sim_counters counters = {0, 0, 33, 44, 0, 0};
    ASSERT_EQ(enyx_sim_set_counters(0, 7, &counters), 0);
    EXPECT_EQ(counter(enyx_hw_a2c_stream_stats_get_fifo_errors, stream), 33U);
    EXPECT_EQ(counter(enyx_hw_a2c_stream_stats_get_errors, stream), 44U);
}

TEST_F(UpStreams, ANewHolderStartsWithAnEmptyStreamAndCountersAtZero) {
    UpStream stream = openUp(accelerator, 0);
    ASSERT_EQ(push(0, "left behind"), 0);
    stream.reset();
    stream = openUp(accelerator, 0);
    EXPECT_EQ(counter(enyx_hw_a2c_stream_stats_get_packet_count, stream), 0U);
    EXPECT_THAT(takeAll(stream), IsEmpty());
}

TEST_F(UpStreams, APushNeedsAReaderUnlessItIsToWait) {
    EXPECT_FAILS(push(0, "nobody"), ENOTCONN);
    EXPECT_EQ(push(0, "early", true), 0);
    const UpStream stream = openUp(accelerator, 0);
    EXPECT_EQ(counter(enyx_hw_a2c_stream_stats_get_packet_count, stream), 1U);
    EXPECT_THAT(takeAll(stream), ElementsAre("early"));
}

TEST_F(UpStreams, AHandlerThatThrowsUsesItsPacketUp) {
    const UpStream stream = openUp(accelerator, 0);
    push(0, "bad");
    push(0, "good");
    const auto thrower = [](const std::uint8_t*, std::uint32_t, void*) { throw std::runtime_error("handler"); };
    EXPECT_THROW(enyx_hw_a2c_stream_poll_once(stream.get(), thrower, nullptr), std::runtime_error);
    EXPECT_THAT(takeAll(stream), ElementsAre("good"));
}

TEST_F(UpStreams, APollInsideTheHandlerDeliversNothing) {
    struct Nested {
        const UpStream& stream;
        int inner = -2;
        static void handle(const std::uint8_t*, std::uint32_t, void* context) {
            auto& self = *static_cast<Nested*>(context);
            std::vector<std::string> packets;
            self.inner = enyx_hw_a2c_stream_poll_once(self.stream.get(), collect, &packets);
        }
    };
    const UpStream stream = openUp(accelerator, 0);
    push(0, "a");
    push(0, "b");
    Nested nested{stream};
    EXPECT_EQ(enyx_hw_a2c_stream_poll_once(stream.get(), Nested::handle, &nested), 1);
    EXPECT_EQ(nested.inner, 0);
    EXPECT_THAT(takeAll(stream), ElementsAre("b"));
}

TEST_F(UpStreams, AHandlerMayWriteRegistersThatMakeTheCardSendMore) {
    struct Writer {
        enyx_hw_core* core;
        std::string seen;
        static void handle(const std::uint8_t* data, std::uint32_t size, void* context) {
            auto& self = *static_cast<Writer*>(context);
            EXPECT_EQ(writeRegister(self.core, card_reg::kMapTransmit, 1), 0);
            EXPECT_EQ(writeRegister(self.core, card_reg::kTradingDate, 1), 0);  // the card moves on and sends its map
            self.seen.assign(reinterpret_cast<const char*>(data), size);
        }
    };
    advanceMs(500);
    const UpStream stream = openUp(accelerator, 0);
    push(0, "first");
    Writer writer{core, ""};
    EXPECT_EQ(enyx_hw_a2c_stream_poll_once(stream.get(), Writer::handle, &writer), 1);
    EXPECT_EQ(writer.seen, "first");
    const auto packets = takeAll(stream);
    ASSERT_THAT(packets, SizeIs(1));
    EXPECT_EQ(packets[0][0], 2);
}

TEST_F(UpStreams, AHandlerMayDestroyItsStream) {
    UpStream stream = openUp(accelerator, 0);
    push(0, "a");
    push(0, "b");
    enyx_hw_a2c_stream* raw = stream.get();
    const auto destroyer = [](const std::uint8_t*, std::uint32_t, void* context) {
        static_cast<UpStream*>(context)->reset();
    };
    EXPECT_EQ(enyx_hw_a2c_stream_poll_once(raw, destroyer, &stream), 1);
    EXPECT_FAILS(enyx_hw_a2c_stream_poll_once(raw, destroyer, &stream), EINVAL);
    EXPECT_THAT(takeAll(openUp(accelerator, 0)), IsEmpty());
}

TEST_F(UpStreams, NullAndDestroyedHandlesFail) {
    UpStream stream = openUp(accelerator, 0);
    std::uint32_t value = 0;
    EXPECT_FAILS(enyx_hw_a2c_stream_poll_once(nullptr, collect, nullptr), EINVAL);
    EXPECT_FAILS(enyx_hw_a2c_stream_poll_once(stream.get(), nullptr, nullptr), EINVAL);
    EXPECT_FAILS(enyx_hw_a2c_stream_get_mtu(nullptr, &value), EINVAL);
    EXPECT_FAILS(enyx_hw_a2c_stream_get_mtu(stream.get(), nullptr), EINVAL);
    for (const auto get : {enyx_hw_a2c_stream_stats_get_backpressure, enyx_hw_a2c_stream_stats_get_packet_count,
                           enyx_hw_a2c_stream_stats_get_fifo_errors, enyx_hw_a2c_stream_stats_get_errors}) {
        EXPECT_FAILS(get(nullptr, &value), EINVAL);
        EXPECT_FAILS(get(stream.get(), nullptr), EINVAL);
    }
    EXPECT_NULL(enyx_hw_a2c_stream_create(nullptr, nullptr), EINVAL);
    enyx_hw_a2c_stream_destroy(nullptr);
    enyx_hw_free_a2c_stream_descriptors(nullptr, 1);

    enyx_hw_a2c_stream* dead = stream.get();
    stream.reset();
    EXPECT_FAILS(enyx_hw_a2c_stream_poll_once(dead, collect, nullptr), EINVAL);
    EXPECT_FAILS(enyx_hw_a2c_stream_get_mtu(dead, &value), EINVAL);
    enyx_hw_a2c_stream_destroy(dead);
    EXPECT_NE(openUp(accelerator, 0), nullptr);
}

TEST_F(UpStreams, APowerCycleTakesTheStreamAwayFromItsHolder) {
    UpStream stream = openUp(accelerator, 0);
    enyx_sim_power_cycle(nullptr);
    EXPECT_FAILS(enyx_hw_a2c_stream_poll_once(stream.get(), collect, nullptr), EINVAL);
    EXPECT_NE(openUp(accelerator, 0), nullptr);
}

TEST_F(UpStreams, OfACardThatIsGoneCannotBeOpened) {
    powerCycleWith([](enyx_sim_config& c) { c.cards = 2; });
    enyx_hw_accelerator* second = openAccelerator(1);
    enyx_hw_accelerator_descriptor* cardDescriptor = nullptr;
    enyx_hw_mmio_descriptor* mmioDescriptor = nullptr;
    enyx_hw_a2c_stream_descriptor* streamDescriptor = nullptr;
    enyx_hw_enumerate_accelerators(filterByIndex(1).get(), &cardDescriptor, 1);
    enyx_hw_accelerator_enumerate_mmios(second, filterByIndex(0).get(), &mmioDescriptor, 1);
    enyx_hw_accelerator_enumerate_a2c_streams(second, filterByIndex(0).get(), &streamDescriptor, 1);
    const Mmio secondMmio = openMmio(second);
    enyx_sim_power_cycle(nullptr);
    EXPECT_NULL(enyx_hw_accelerator_get(cardDescriptor), ENODEV);
    EXPECT_NULL(enyx_hw_mmio_create(mmioDescriptor), ENODEV);
    EXPECT_NULL(enyx_hw_a2c_stream_create(streamDescriptor, nullptr), ENODEV);
    EXPECT_FAILS(enyx_hw_accelerator_enumerate_mmios(second, filterByIndex(0).get(), nullptr, 0), EINVAL);
    EXPECT_NULL(enyx_hw_enumerate_cores(secondMmio.get()), EINVAL);
    enyx_hw_free_accelerator_descriptors(&cardDescriptor, 1);
    enyx_hw_free_mmio_descriptors(&mmioDescriptor, 1);
    enyx_hw_free_a2c_stream_descriptors(&streamDescriptor, 1);
}

TEST_F(UpStreams, CarryTheContractMapAndQuotesOfASession) {
    advanceMs(500);
    const UpStream stream = openUp(accelerator, 0);
    writeRegister(core, card_reg::kMapTransmit, 1);
    writeRegister(core, card_reg::kDecodeSwitch, 3);
    setMask(core, 0, 0, 1);
    setMask(core, 1, 0, 1);
    std::vector<int> types;
    for (int step = 0; step < 100; ++step) {
        advanceMs(1);
        for (const std::string& packet : takeAll(stream)) types.push_back(packet[0]);
    }
    for (const int type : {2, 17, 18, 19, 20}) EXPECT_GT(std::count(types.begin(), types.end(), type), 10) << type;
}
