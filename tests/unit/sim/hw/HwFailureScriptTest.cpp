#include <functional>

#include "tests/unit/sim/hw/HwFixture.h"

namespace {

// What every scriptable call is given, valid all the time.
struct Objects {
    enyx_hw_accelerator* accelerator = openAccelerator();
    Mmio mmio = openMmio(accelerator);
    enyx_hw_core* core = registersOf(mmio);
    UpStream up = openUp(accelerator, 0);
    DownStream down = openDown(accelerator, 0);
    Filter filter{enyx_hw_filter_create()};
    enyx_hw_accelerator_descriptor* cardDescriptor = nullptr;
    enyx_hw_mmio_descriptor* mmioDescriptor = nullptr;
    enyx_hw_a2c_stream_descriptor* upDescriptor = nullptr;
    enyx_hw_c2a_stream_descriptor* downDescriptor = nullptr;

    Objects() {
        enyx_hw_enumerate_accelerators(filterByIndex(0).get(), &cardDescriptor, 1);
        enyx_hw_accelerator_enumerate_mmios(accelerator, filterByIndex(0).get(), &mmioDescriptor, 1);
        enyx_hw_accelerator_enumerate_a2c_streams(accelerator, filterByIndex(1).get(), &upDescriptor, 1);
        enyx_hw_accelerator_enumerate_c2a_streams(accelerator, filterByIndex(1).get(), &downDescriptor, 1);
    }
    ~Objects() {
        enyx_hw_free_accelerator_descriptors(&cardDescriptor, 1);
        enyx_hw_free_mmio_descriptors(&mmioDescriptor, 1);
        enyx_hw_free_a2c_stream_descriptors(&upDescriptor, 1);
        enyx_hw_free_c2a_stream_descriptors(&downDescriptor, 1);
    }
    Objects(const Objects&) = delete;
    Objects& operator=(const Objects&) = delete;
};

void ignore(const std::uint8_t*, std::uint32_t, void*) {}

constexpr enyx_hw_register_description kField{card_reg::kTradingDate * 4, 0, 32};

struct Scriptable {
    const char* name;
    bool pointer;
    int usual;  // result without a script; for pointers 1 = not null
    std::function<std::int64_t(Objects&)> call;
};

void PrintTo(const Scriptable& s, std::ostream* out) { *out << s.name; }

std::int64_t tell(const void* pointer) { return pointer != nullptr ? 1 : 0; }

template <int (*get)(const enyx_hw_a2c_stream*, std::uint32_t*)>
std::int64_t getFrom(Objects& o) {
    std::uint32_t value;
    return get(o.up.get(), &value);
}

const Scriptable kScriptable[] = {
    {"enyx_hw_filter_create", true, 1, [](Objects&) { return tell(Filter(enyx_hw_filter_create()).get()); }},
    {"enyx_hw_filter_set_index", false, 0, [](Objects& o) { return enyx_hw_filter_set_index(o.filter.get(), 0); }},
    {"enyx_hw_filter_set_name", false, 0, [](Objects& o) { return enyx_hw_filter_set_name(o.filter.get(), "SIM0"); }},
    {"enyx_hw_enumerate_accelerators", false, 1,
     [](Objects& o) { return enyx_hw_enumerate_accelerators(o.filter.get(), nullptr, 0); }},
    {"enyx_hw_accelerator_get", true, 1, [](Objects& o) { return tell(enyx_hw_accelerator_get(o.cardDescriptor)); }},
    {"enyx_hw_accelerator_enumerate_mmios", false, 1,
     [](Objects& o) { return enyx_hw_accelerator_enumerate_mmios(o.accelerator, o.filter.get(), nullptr, 0); }},
    {"enyx_hw_mmio_create", true, 1,
     [](Objects& o) { return tell(Mmio(enyx_hw_mmio_create(o.mmioDescriptor)).get()); }},
    {"enyx_hw_enumerate_cores", true, 1, [](Objects& o) { return tell(enyx_hw_enumerate_cores(o.mmio.get())); }},
    {"enyx_hw_core_tree_get_root", true, 1,
     [](Objects& o) { return tell(enyx_hw_core_tree_get_root(enyx_hw_enumerate_cores(o.mmio.get()))); }},
    {"enyx_hw_core_reset", false, 0, [](Objects& o) { return enyx_hw_core_reset(o.core); }},
    {"enyx_hw_core_enumerate", false, 1,
     [](Objects& o) { return enyx_hw_core_enumerate(rootOf(o.mmio), 474, nullptr, 0); }},
    {"enyx_hw_core_lock", false, 0,
     [](Objects& o) {
         const int result = enyx_hw_core_lock(o.core);
         const int error = errno;
         if (result == 0) enyx_hw_core_unlock(o.core);
         errno = error;
         return result;
     }},
    {"enyx_hw_core_unlock", false, 0,
     [](Objects& o) {
         enyx_hw_core_lock(o.core);
         const int result = enyx_hw_core_unlock(o.core);
         const int error = errno;
         if (result != 0) enyx_hw_core_unlock(o.core);
         errno = error;
         return result;
     }},
    {"enyx_hw_read", false, 0,
     [](Objects& o) {
         std::uint64_t value;
         return enyx_hw_read(o.core, &kField, &value);
     }},
    {"enyx_hw_write", false, 0, [](Objects& o) { return enyx_hw_write(o.core, &kField, 1); }},
    {"enyx_hw_accelerator_enumerate_a2c_streams", false, 1,
     [](Objects& o) {
         return enyx_hw_accelerator_enumerate_a2c_streams(o.accelerator, filterByIndex(0).get(), nullptr, 0);
     }},
    {"enyx_hw_a2c_stream_create", true, 1,
     [](Objects& o) { return tell(UpStream(enyx_hw_a2c_stream_create(o.upDescriptor, nullptr)).get()); }},
    {"enyx_hw_a2c_stream_get_mtu", false, 0, getFrom<enyx_hw_a2c_stream_get_mtu>},
    {"enyx_hw_a2c_stream_poll_once", false, 0,
     [](Objects& o) { return enyx_hw_a2c_stream_poll_once(o.up.get(), ignore, nullptr); }},
    {"enyx_hw_a2c_stream_stats_get_backpressure", false, 0, getFrom<enyx_hw_a2c_stream_stats_get_backpressure>},
    {"enyx_hw_a2c_stream_stats_get_packet_count", false, 0, getFrom<enyx_hw_a2c_stream_stats_get_packet_count>},
    {"enyx_hw_a2c_stream_stats_get_fifo_errors", false, 0, getFrom<enyx_hw_a2c_stream_stats_get_fifo_errors>},
    {"enyx_hw_a2c_stream_stats_get_errors", false, 0, getFrom<enyx_hw_a2c_stream_stats_get_errors>},
    {"enyx_hw_accelerator_enumerate_c2a_streams", false, 1,
     [](Objects& o) {
         return enyx_hw_accelerator_enumerate_c2a_streams(o.accelerator, filterByIndex(0).get(), nullptr, 0);
     }},
    {"enyx_hw_c2a_stream_create", true, 1,
     [](Objects& o) { return tell(DownStream(enyx_hw_c2a_stream_create(o.downDescriptor, nullptr)).get()); }},
    {"enyx_hw_c2a_stream_get_mtu", false, 0,
     [](Objects& o) {
         std::uint32_t mtu;
         return enyx_hw_c2a_stream_get_mtu(o.down.get(), &mtu);
     }},
    {"enyx_hw_c2a_stream_send", false, 0, [](Objects& o) { return enyx_hw_c2a_stream_send(o.down.get(), "x", 1); }},
};

std::int64_t failedResult(const Scriptable& s, int error) {
    if (s.pointer) return 0;
    return std::string(s.name) == "enyx_hw_c2a_stream_send" ? error : -1;
}

class EveryCall : public HwTest, public ::testing::WithParamInterface<Scriptable> {
protected:
    Objects objects;
};

std::string nameOf(const ::testing::TestParamInfo<Scriptable>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(Scripted, EveryCall, ::testing::ValuesIn(kScriptable), nameOf);

class Scripts : public HwCardTest {
protected:
    int write() { return writeRegister(core, card_reg::kTradingDate, ++m_value); }
    std::uint32_t m_value = 0;
};

}  // namespace

TEST_P(EveryCall, FailsTheScriptedTimeOnly) {
    ASSERT_EQ(enyx_sim_fail_call(GetParam().name, 2, EIO, 0), 0);
    EXPECT_EQ(GetParam().call(objects), GetParam().usual);
    errno = 0;
    EXPECT_EQ(GetParam().call(objects), failedResult(GetParam(), EIO));
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(GetParam().call(objects), GetParam().usual);
}

TEST_P(EveryCall, FailsForGoodFromTheScriptedTimeOn) {
    ASSERT_EQ(enyx_sim_fail_call(GetParam().name, 3, ETIMEDOUT, 1), 0);
    EXPECT_EQ(GetParam().call(objects), GetParam().usual);
    EXPECT_EQ(GetParam().call(objects), GetParam().usual);
    for (int n = 0; n < 5; ++n) EXPECT_EQ(GetParam().call(objects), failedResult(GetParam(), ETIMEDOUT));
    enyx_sim_clear_failures();
    EXPECT_EQ(GetParam().call(objects), GetParam().usual);
}

TEST_P(EveryCall, GivesTheScriptedResult) {
    const enyx_sim_failure failure = {GetParam().name, 1, 1, EPROTO, 1, 2};
    if (GetParam().pointer) {
        EXPECT_FAILS(enyx_sim_fail(&failure), EINVAL);
        return;
    }
    ASSERT_EQ(enyx_sim_fail(&failure), 0);
    errno = 0;
    EXPECT_EQ(GetParam().call(objects), 2);
    EXPECT_EQ(errno, EPROTO);
    EXPECT_EQ(GetParam().call(objects), GetParam().usual);
}

TEST_F(Scripts, AFailedCallDoesNothing) {
    write();
    ASSERT_EQ(enyx_sim_fail_call("enyx_hw_write", 1, EIO, 0), 0);
    EXPECT_EQ(write(), -1);
    EXPECT_EQ(readRegister(core, card_reg::kTradingDate), 1U);
}

TEST_F(Scripts, MayFailSeveralTimesInARow) {
    const enyx_sim_failure failure = {"enyx_hw_write", 2, 3, EIO, 0, 0};
    ASSERT_EQ(enyx_sim_fail(&failure), 0);
    std::vector<int> results;
    for (int n = 0; n < 6; ++n) results.push_back(write());
    EXPECT_THAT(results, ::testing::ElementsAre(0, -1, -1, -1, 0, 0));
}

TEST_F(Scripts, ForOneCallRunSideBySide) {
    ASSERT_EQ(enyx_sim_fail_call("enyx_hw_write", 4, ENODEV, 0), 0);
    ASSERT_EQ(enyx_sim_fail_call("enyx_hw_write", 2, EIO, 0), 0);
    EXPECT_EQ(write(), 0);
    EXPECT_FAILS(write(), EIO);
    EXPECT_EQ(write(), 0);
    EXPECT_FAILS(write(), ENODEV);
    EXPECT_EQ(write(), 0);
}

TEST_F(Scripts, OfOneCallLeaveTheOthersAlone) {
    ASSERT_EQ(enyx_sim_fail_call("enyx_hw_read", 1, EIO, 1), 0);
    EXPECT_EQ(write(), 0);
}

TEST_F(Scripts, AnEnumerationMayReportMoreOrFewerThanThereAre) {
    enyx_hw_accelerator_descriptor* descriptors[2] = {};
    const Filter filter = filterByIndex(0);
    const enyx_sim_failure two = {"enyx_hw_enumerate_accelerators", 1, 1, 0, 1, 2};
    ASSERT_EQ(enyx_sim_fail(&two), 0);
    EXPECT_EQ(enyx_hw_enumerate_accelerators(filter.get(), descriptors, 2), 2);
    EXPECT_NE(enyx_hw_accelerator_get(descriptors[0]), nullptr);
    EXPECT_EQ(descriptors[1], nullptr);
    enyx_hw_free_accelerator_descriptors(descriptors, 1);

    descriptors[0] = nullptr;
    const enyx_sim_failure none = {"enyx_hw_enumerate_accelerators", 1, 1, ENODEV, 1, 0};
    ASSERT_EQ(enyx_sim_fail(&none), 0);
    errno = 0;
    EXPECT_EQ(enyx_hw_enumerate_accelerators(filter.get(), descriptors, 2), 0);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(descriptors[0], nullptr);
}

TEST_F(Scripts, AnEnumerationThatFailsByItselfStillFails) {
    const enyx_sim_failure two = {"enyx_hw_enumerate_accelerators", 1, 1, EIO, 1, 2};
    ASSERT_EQ(enyx_sim_fail(&two), 0);
    EXPECT_FAILS(enyx_hw_enumerate_accelerators(nullptr, nullptr, 0), EINVAL);
}

TEST_F(Scripts, APacketWhosePollFailsStaysForTheNext) {
    const UpStream stream = openUp(accelerator, 0);
    enyx_sim_push(0, 0, "x", 1, 0);
    ASSERT_EQ(enyx_sim_fail_call("enyx_hw_a2c_stream_poll_once", 1, EIO, 0), 0);
    std::vector<std::string> packets;
    EXPECT_FAILS(enyx_hw_a2c_stream_poll_once(stream.get(), collect, &packets), EIO);
    EXPECT_THAT(packets, ::testing::IsEmpty());
    EXPECT_THAT(takeAll(stream), ::testing::ElementsAre("x"));
}

TEST_F(Scripts, EndWithAPowerCycle) {
    ASSERT_EQ(enyx_sim_fail_call("enyx_hw_write", 1, EIO, 1), 0);
    enyx_sim_power_cycle(nullptr);
    EXPECT_EQ(write(), 0);
}

TEST_F(Scripts, ThatMakeNoSenseAreRefused) {
    EXPECT_FAILS(enyx_sim_fail(nullptr), EINVAL);
    EXPECT_FAILS(enyx_sim_fail_call(nullptr, 1, EIO, 0), EINVAL);
    EXPECT_FAILS(enyx_sim_fail_call("enyx_hw_writ", 1, EIO, 0), EINVAL);
    EXPECT_FAILS(enyx_sim_fail_call("enyx_hw_write", 0, EIO, 0), EINVAL);
    for (const char* name :
         {"enyx_hw_filter_destroy", "enyx_hw_mmio_destroy", "enyx_hw_a2c_stream_destroy", "enyx_hw_c2a_stream_destroy",
          "enyx_hw_free_accelerator_descriptors", "enyx_hw_free_mmio_descriptors",
          "enyx_hw_free_a2c_stream_descriptors", "enyx_hw_free_c2a_stream_descriptors"})
        EXPECT_FAILS(enyx_sim_fail_call(name, 1, EIO, 0), EINVAL);
}
