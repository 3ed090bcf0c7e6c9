#include "tests/unit/sim/hw/HwFixture.h"

namespace {

class DownStreams : public HwCardTest {
protected:
    DownStream stream = openDown(accelerator, 2);

    static enyx_sim_counters counters() {
        enyx_sim_counters values{};
        EXPECT_EQ(enyx_sim_get_counters(0, 2, &values), 0);
        return values;
    }
};

}  // namespace

TEST_F(DownStreams, CountWhatIsSent) {
    EXPECT_EQ(enyx_hw_c2a_stream_send(stream.get(), "12345", 5), 0);
    EXPECT_EQ(enyx_hw_c2a_stream_send(stream.get(), "678", 3), 0);
    EXPECT_EQ(counters().sent_packets, 2U);
    EXPECT_EQ(counters().sent_bytes, 8U);
}

TEST_F(DownStreams, HaveOneHolder) {
    EXPECT_NULL(openDown(accelerator, 2), EBUSY);
    stream.reset();
    EXPECT_NE(openDown(accelerator, 2), nullptr);
}

TEST_F(DownStreams, TakeNoMoreThanTheMtu) {
    std::uint32_t mtu = 0;
    ASSERT_EQ(enyx_hw_c2a_stream_get_mtu(stream.get(), &mtu), 0);
    EXPECT_EQ(mtu, 4096U);
    const std::string data(mtu + 1, 'x');
    EXPECT_EQ(enyx_hw_c2a_stream_send(stream.get(), data.data(), mtu), 0);
    EXPECT_EQ(enyx_hw_c2a_stream_send(stream.get(), data.data(), mtu + 1), EMSGSIZE);
    EXPECT_EQ(counters().sent_packets, 1U);
}

TEST_F(DownStreams, AreBusyForAsManySendsAsAsked) {
    ASSERT_EQ(enyx_sim_busy_sends(0, 2, 2), 0);
    EXPECT_EQ(enyx_hw_c2a_stream_send(stream.get(), "x", 1), EAGAIN);
    EXPECT_EQ(enyx_hw_c2a_stream_send(stream.get(), "x", 1), EAGAIN);
    EXPECT_EQ(enyx_hw_c2a_stream_send(stream.get(), "x", 1), 0);
    ASSERT_EQ(enyx_sim_busy_sends(0, 2, 0xFFFFFFFF), 0);
    for (int n = 0; n < 100; ++n) ASSERT_EQ(enyx_hw_c2a_stream_send(stream.get(), "x", 1), EAGAIN);
    ASSERT_EQ(enyx_sim_busy_sends(0, 2, 0), 0);
    EXPECT_EQ(enyx_hw_c2a_stream_send(stream.get(), "x", 1), 0);
}

TEST_F(DownStreams, ASendDoesNotLookAtTheClock) {
    time.SetStepPerRead(1);
    const std::int64_t before = time.NowNs();
    enyx_hw_c2a_stream_send(stream.get(), "x", 1);
    EXPECT_EQ(time.NowNs(), before);
}

TEST_F(DownStreams, NullAndDestroyedHandlesFail) {
    std::uint32_t mtu = 0;
    EXPECT_EQ(enyx_hw_c2a_stream_send(nullptr, "x", 1), EINVAL);
    EXPECT_EQ(enyx_hw_c2a_stream_send(stream.get(), nullptr, 1), EINVAL);
    EXPECT_EQ(enyx_hw_c2a_stream_send(stream.get(), "x", 0), EINVAL);
    EXPECT_FAILS(enyx_hw_c2a_stream_get_mtu(nullptr, &mtu), EINVAL);
    EXPECT_FAILS(enyx_hw_c2a_stream_get_mtu(stream.get(), nullptr), EINVAL);
    EXPECT_NULL(enyx_hw_c2a_stream_create(nullptr, nullptr), EINVAL);
    enyx_hw_c2a_stream_destroy(nullptr);
    enyx_hw_free_c2a_stream_descriptors(nullptr, 1);

    enyx_hw_c2a_stream* dead = stream.get();
    stream.reset();
    EXPECT_EQ(enyx_hw_c2a_stream_send(dead, "x", 1), EINVAL);
    enyx_hw_c2a_stream_destroy(dead);
    EXPECT_EQ(counters().sent_packets, 0U);
}

TEST_F(DownStreams, APowerCycleTakesTheStreamAwayFromItsHolder) {
    enyx_sim_power_cycle(nullptr);
    EXPECT_EQ(enyx_hw_c2a_stream_send(stream.get(), "x", 1), EINVAL);
    EXPECT_NE(openDown(accelerator, 2), nullptr);
}
