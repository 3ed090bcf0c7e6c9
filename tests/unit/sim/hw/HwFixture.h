#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "enyx-hw-c/enyx_hw.h"
#include "enyx-sim/enyx_sim.h"
#include "enyx-sim/md_payload.h"
#include "interface/CardRegisters.h"
#include "tests/support/FakeTime.h"

template <typename T, void (*destroy)(T*)>
struct Destroyer {
    void operator()(T* handle) const { destroy(handle); }
};
using Filter = std::unique_ptr<enyx_hw_filter, Destroyer<enyx_hw_filter, enyx_hw_filter_destroy>>;
using Mmio = std::unique_ptr<enyx_hw_mmio, Destroyer<enyx_hw_mmio, enyx_hw_mmio_destroy>>;
using UpStream = std::unique_ptr<enyx_hw_a2c_stream, Destroyer<enyx_hw_a2c_stream, enyx_hw_a2c_stream_destroy>>;
using DownStream = std::unique_ptr<enyx_hw_c2a_stream, Destroyer<enyx_hw_c2a_stream, enyx_hw_c2a_stream_destroy>>;

inline Filter filterByIndex(std::uint32_t index) {
    Filter filter(enyx_hw_filter_create());
    EXPECT_EQ(enyx_hw_filter_set_index(filter.get(), index), 0);
    return filter;
}
inline Filter filterByName(const std::string& name) {
    Filter filter(enyx_hw_filter_create());
    EXPECT_EQ(enyx_hw_filter_set_name(filter.get(), name.c_str()), 0);
    return filter;
}
inline std::string streamName(std::uint32_t channel) { return "CUSTOM_CHAN" + std::to_string(channel) + "_DATA"; }

/// The way of a program from nothing to a card's register core and streams.
inline enyx_hw_accelerator* openAccelerator(std::uint32_t bus = 0) {
    enyx_hw_accelerator_descriptor* descriptor = nullptr;
    if (enyx_hw_enumerate_accelerators(filterByIndex(bus).get(), &descriptor, 1) != 1) return nullptr;
    enyx_hw_accelerator* accelerator = enyx_hw_accelerator_get(descriptor);
    enyx_hw_free_accelerator_descriptors(&descriptor, 1);
    return accelerator;
}
inline Mmio openMmio(const enyx_hw_accelerator* accelerator) {
    enyx_hw_mmio_descriptor* descriptor = nullptr;
    if (enyx_hw_accelerator_enumerate_mmios(accelerator, filterByIndex(0).get(), &descriptor, 1) != 1) return nullptr;
    Mmio mmio(enyx_hw_mmio_create(descriptor));
    enyx_hw_free_mmio_descriptors(&descriptor, 1);
    return mmio;
}
inline enyx_hw_core* rootOf(const Mmio& mmio) {
    return enyx_hw_core_tree_get_root(enyx_hw_enumerate_cores(mmio.get()));
}
inline enyx_hw_core* registersOf(const Mmio& mmio) {
    enyx_hw_core* core = nullptr;
    return enyx_hw_core_enumerate(rootOf(mmio), 474, &core, 1) == 1 ? core : nullptr;
}
inline UpStream openUp(const enyx_hw_accelerator* accelerator, std::uint32_t channel) {
    enyx_hw_a2c_stream_descriptor* descriptor = nullptr;
    const Filter filter = filterByName(streamName(channel));
    if (enyx_hw_accelerator_enumerate_a2c_streams(accelerator, filter.get(), &descriptor, 1) != 1) return nullptr;
    enyx_hw_a2c_stream* stream = enyx_hw_a2c_stream_create(descriptor, nullptr);
    const int error = errno;
    enyx_hw_free_a2c_stream_descriptors(&descriptor, 1);
    errno = error;
    return UpStream(stream);
}
inline DownStream openDown(const enyx_hw_accelerator* accelerator, std::uint32_t channel) {
    enyx_hw_c2a_stream_descriptor* descriptor = nullptr;
    const Filter filter = filterByName(streamName(channel));
    if (enyx_hw_accelerator_enumerate_c2a_streams(accelerator, filter.get(), &descriptor, 1) != 1) return nullptr;
    enyx_hw_c2a_stream* stream = enyx_hw_c2a_stream_create(descriptor, nullptr);
    const int error = errno;
    enyx_hw_free_c2a_stream_descriptors(&descriptor, 1);
    errno = error;
    return DownStream(stream);
}

inline int writeRegister(enyx_hw_core* core, std::uint32_t word, std::uint32_t value) {
    const enyx_hw_register_description field{std::uint64_t{word} * 4, 0, 32};
    return enyx_hw_write(core, &field, value);
}
inline std::uint32_t readRegister(enyx_hw_core* core, std::uint32_t word) {
    const enyx_hw_register_description field{std::uint64_t{word} * 4, 0, 32};
    std::uint64_t value = 0;
    EXPECT_EQ(enyx_hw_read(core, &field, &value), 0);
    return static_cast<std::uint32_t>(value);
}
inline void setMask(enyx_hw_core* core, std::uint32_t table, std::uint32_t row, std::uint32_t mask) {
    EXPECT_EQ(writeRegister(core, card_reg::kTables[table].data, mask), 0);
    EXPECT_EQ(writeRegister(core, card_reg::kTables[table].command, row << 6), 0);
}

inline void collect(const std::uint8_t* data, std::uint32_t size, void* context) {
    static_cast<std::vector<std::string>*>(context)->emplace_back(reinterpret_cast<const char*>(data), size);
}
/// Everything that a stream delivers until it says that there is nothing.
inline std::vector<std::string> takeAll(const UpStream& stream) {
    std::vector<std::string> packets;
    while (enyx_hw_a2c_stream_poll_once(stream.get(), collect, &packets) == 1) {
    }
    return packets;
}

/// A freshly switched-on card under a clock that stands still until the test moves it.
class HwTest : public ::testing::Test {
protected:
    HwTest() { EXPECT_EQ(enyx_sim_power_cycle(nullptr), 0); }
    ~HwTest() override {
        enyx_sim_set_trace(nullptr, nullptr);
        enyx_sim_clear_failures();
    }

    template <typename Change>
    void powerCycleWith(Change change) {
        enyx_sim_config config;
        enyx_sim_default_config(&config);
        change(config);
        ASSERT_EQ(enyx_sim_power_cycle(&config), 0);
    }
    void advanceMs(std::int64_t ms) { time.AdvanceNs(ms * 1'000'000); }

    test_support::FakeTime time{2025, 1, 15, 10, 0, 0};
};

/// The same with the register core at hand.
class HwCardTest : public HwTest {
protected:
    enyx_hw_accelerator* accelerator = openAccelerator();
    Mmio mmio = openMmio(accelerator);
    enyx_hw_core* core = registersOf(mmio);
};

#define EXPECT_FAILS(expression, error)         \
    do {                                        \
        errno = 0;                              \
        EXPECT_EQ(expression, -1);              \
        EXPECT_EQ(errno, error) << #expression; \
    } while (false)

#define EXPECT_NULL(expression, error)          \
    do {                                        \
        errno = 0;                              \
        EXPECT_EQ(expression, nullptr);         \
        EXPECT_EQ(errno, error) << #expression; \
    } while (false)
