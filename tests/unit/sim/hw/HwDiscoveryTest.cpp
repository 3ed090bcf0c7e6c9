#include <dlfcn.h>

#include "tests/unit/sim/hw/HwFixture.h"

namespace {

class Discovery : public HwTest {
protected:
    static ssize_t countCards(const Filter& filter) {
        enyx_hw_accelerator_descriptor* descriptors[8] = {};
        const ssize_t count = enyx_hw_enumerate_accelerators(filter.get(), descriptors, 8);
        if (count > 0) enyx_hw_free_accelerator_descriptors(descriptors, static_cast<std::size_t>(count));
        return count;
    }
    static Filter all() { return Filter(enyx_hw_filter_create()); }

    static enyx_sim_handles handles() {
        enyx_sim_handles now;
        enyx_sim_count_handles(&now);
        return now;
    }
};

}  // namespace

TEST_F(Discovery, TheLibrarySaysThatItIsSimulated) {
    EXPECT_EQ(enyx_sim_is_simulated(), 1);
    EXPECT_NE(dlsym(RTLD_DEFAULT, "enyx_sim_is_simulated"), nullptr);
}

TEST_F(Discovery, ThereIsOneCardAtBusZero) {
    EXPECT_EQ(countCards(all()), 1);
    EXPECT_EQ(countCards(filterByIndex(0)), 1);
    EXPECT_NE(openAccelerator(0), nullptr);
    for (const std::uint32_t bus : {1U, 4U, 5U, 4294967295U}) {
        errno = 0;
        EXPECT_EQ(countCards(filterByIndex(bus)), 0) << bus;
        EXPECT_EQ(errno, ENODEV);
    }
}

TEST_F(Discovery, AsManyCardsAsConfiguredAreFound) {
    powerCycleWith([](enyx_sim_config& c) { c.cards = 5; });
    EXPECT_EQ(countCards(all()), 5);
    for (std::uint32_t bus = 0; bus < 5; ++bus) EXPECT_NE(openAccelerator(bus), nullptr) << bus;
    EXPECT_EQ(openAccelerator(5), nullptr);
}

TEST_F(Discovery, NoMoreDescriptorsAreFilledThanThereIsRoomFor) {
    powerCycleWith([](enyx_sim_config& c) { c.cards = 3; });
    enyx_hw_accelerator_descriptor* descriptors[3] = {};
    EXPECT_EQ(enyx_hw_enumerate_accelerators(all().get(), descriptors, 2), 3);
    EXPECT_NE(descriptors[0], nullptr);
    EXPECT_NE(descriptors[1], nullptr);
    EXPECT_EQ(descriptors[2], nullptr);
    enyx_hw_free_accelerator_descriptors(descriptors, 2);
    EXPECT_EQ(enyx_hw_enumerate_accelerators(all().get(), nullptr, 0), 3);
}

TEST_F(Discovery, CardsAreFoundByNameToo) {
    powerCycleWith([](enyx_sim_config& c) { c.cards = 2; });
    EXPECT_EQ(countCards(filterByName("SIM1")), 1);
    EXPECT_EQ(countCards(filterByName("SIM2")), 0);
    EXPECT_EQ(countCards(filterByName("sim1")), 0);
    const Filter both = filterByName("SIM1");
    enyx_hw_filter_set_index(both.get(), 0);
    EXPECT_EQ(countCards(both), 0);
    enyx_hw_filter_set_index(both.get(), 1);
    EXPECT_EQ(countCards(both), 1);
}

TEST_F(Discovery, AnAcceleratorIsTheSameHoweverOftenItIsOpened) { EXPECT_EQ(openAccelerator(), openAccelerator()); }

TEST_F(Discovery, ACardHasOneRegisterSpace) {
    enyx_hw_mmio_descriptor* descriptor = nullptr;
    ASSERT_EQ(enyx_hw_accelerator_enumerate_mmios(openAccelerator(), filterByName("MMIO0").get(), &descriptor, 1), 1);
    enyx_hw_free_mmio_descriptors(&descriptor, 1);
    errno = 0;
    EXPECT_EQ(enyx_hw_accelerator_enumerate_mmios(openAccelerator(), filterByIndex(1).get(), &descriptor, 1), 0);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Discovery, TheRootCoreHasOneRegisterCoreBelow) {
    const Mmio mmio = openMmio(openAccelerator());
    enyx_hw_core* root = rootOf(mmio);
    ASSERT_NE(root, nullptr);
    enyx_hw_core* cores[2] = {};
    EXPECT_EQ(enyx_hw_core_enumerate(root, 0x1DA, cores, 2), 1);
    EXPECT_NE(cores[0], nullptr);
    EXPECT_NE(cores[0], root);
    EXPECT_EQ(cores[1], nullptr);
    EXPECT_EQ(enyx_hw_core_enumerate(root, 0x1DA, nullptr, 0), 1);
    errno = 0;
    EXPECT_EQ(enyx_hw_core_enumerate(root, 475, cores, 2), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(enyx_hw_core_enumerate(cores[0], 0x1DA, cores, 2), 0);
}

TEST_F(Discovery, ACardHasSixteenStreamsEachWay) {
    enyx_hw_accelerator* accelerator = openAccelerator();
    EXPECT_EQ(enyx_hw_accelerator_enumerate_a2c_streams(accelerator, all().get(), nullptr, 0), 16);
    EXPECT_EQ(enyx_hw_accelerator_enumerate_c2a_streams(accelerator, all().get(), nullptr, 0), 16);
    for (std::uint32_t channel = 0; channel < 16; ++channel) {
        EXPECT_NE(openUp(accelerator, channel), nullptr) << channel;
        EXPECT_NE(openDown(accelerator, channel), nullptr) << channel;
    }
    errno = 0;
    EXPECT_EQ(openUp(accelerator, 16), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(enyx_hw_accelerator_enumerate_a2c_streams(accelerator, filterByName("CUSTOM_CHAN").get(), nullptr, 0), 0);
    EXPECT_EQ(enyx_hw_accelerator_enumerate_a2c_streams(accelerator, filterByIndex(15).get(), nullptr, 0), 1);
}

TEST_F(Discovery, AFilterKeepsItsLastNameAndIndex) {
    const Filter filter = filterByName("SIM9");
    enyx_hw_filter_set_name(filter.get(), "SIM0");
    enyx_hw_filter_set_index(filter.get(), 7);
    enyx_hw_filter_set_index(filter.get(), 0);
    EXPECT_EQ(countCards(filter), 1);
}

TEST_F(Discovery, AReusedFilterForgetsItsFormerLife) {
    for (int n = 0; n < 1000; ++n) filterByIndex(7);
    EXPECT_EQ(countCards(all()), 1);
}

TEST_F(Discovery, ANameThatNothingCanHaveIsRefused) {
    const Filter filter = all();
    EXPECT_EQ(enyx_hw_filter_set_name(filter.get(), std::string(63, 'x').c_str()), 0);
    EXPECT_FAILS(enyx_hw_filter_set_name(filter.get(), std::string(64, 'x').c_str()), ENAMETOOLONG);
}

TEST_F(Discovery, NullArgumentsFail) {
    enyx_hw_accelerator* accelerator = openAccelerator();
    const Mmio mmio = openMmio(accelerator);
    const Filter filter = all();
    EXPECT_FAILS(enyx_hw_filter_set_index(nullptr, 0), EINVAL);
    EXPECT_FAILS(enyx_hw_filter_set_name(nullptr, "x"), EINVAL);
    EXPECT_FAILS(enyx_hw_filter_set_name(filter.get(), nullptr), EINVAL);
    EXPECT_FAILS(enyx_hw_enumerate_accelerators(nullptr, nullptr, 0), EINVAL);
    EXPECT_FAILS(enyx_hw_enumerate_accelerators(filter.get(), nullptr, 1), EINVAL);
    EXPECT_NULL(enyx_hw_accelerator_get(nullptr), EINVAL);
    EXPECT_FAILS(enyx_hw_accelerator_enumerate_mmios(nullptr, filter.get(), nullptr, 0), EINVAL);
    EXPECT_FAILS(enyx_hw_accelerator_enumerate_mmios(accelerator, nullptr, nullptr, 0), EINVAL);
    EXPECT_NULL(enyx_hw_mmio_create(nullptr), EINVAL);
    EXPECT_NULL(enyx_hw_enumerate_cores(nullptr), EINVAL);
    EXPECT_NULL(enyx_hw_core_tree_get_root(nullptr), EINVAL);
    EXPECT_FAILS(enyx_hw_core_enumerate(nullptr, 474, nullptr, 0), EINVAL);
    EXPECT_FAILS(enyx_hw_core_enumerate(rootOf(mmio), 474, nullptr, 1), EINVAL);
    EXPECT_FAILS(enyx_hw_accelerator_enumerate_a2c_streams(nullptr, filter.get(), nullptr, 0), EINVAL);
    EXPECT_FAILS(enyx_hw_accelerator_enumerate_c2a_streams(nullptr, filter.get(), nullptr, 0), EINVAL);
    enyx_hw_filter_destroy(nullptr);
    enyx_hw_mmio_destroy(nullptr);
    enyx_hw_free_accelerator_descriptors(nullptr, 1);
    enyx_hw_accelerator_descriptor* none = nullptr;
    enyx_hw_free_accelerator_descriptors(&none, 1);
}

TEST_F(Discovery, DestroyedHandlesAreRecognised) {
    Filter filter = all();
    enyx_hw_filter* dead = filter.get();
    filter.reset();
    EXPECT_FAILS(enyx_hw_filter_set_index(dead, 0), EINVAL);

    enyx_hw_accelerator_descriptor* descriptor = nullptr;
    ASSERT_EQ(enyx_hw_enumerate_accelerators(all().get(), &descriptor, 1), 1);
    enyx_hw_free_accelerator_descriptors(&descriptor, 1);
    EXPECT_NULL(enyx_hw_accelerator_get(descriptor), EINVAL);
}

TEST_F(Discovery, TreeAndCoresDieWithTheirRegisterSpace) {
    Mmio mmio = openMmio(openAccelerator());
    enyx_hw_core_tree* tree = enyx_hw_enumerate_cores(mmio.get());
    enyx_hw_core* core = registersOf(mmio);
    mmio.reset();
    EXPECT_NULL(enyx_hw_core_tree_get_root(tree), EINVAL);
    EXPECT_FAILS(enyx_hw_core_lock(core), EINVAL);
    EXPECT_FAILS(writeRegister(core, 0x11, 1), EINVAL);
}

TEST_F(Discovery, HandlesInUseAndMisusesAreCounted) {
    const enyx_sim_handles before = handles();
    {
        const Filter filter = all();
        enyx_hw_accelerator* accelerator = openAccelerator();
        const Mmio mmio = openMmio(accelerator);
        const UpStream up = openUp(accelerator, 0);
        const DownStream down = openDown(accelerator, 0);
        const enyx_sim_handles within = handles();
        EXPECT_EQ(within.filters, before.filters + 1);
        EXPECT_EQ(within.mmios, before.mmios + 1);
        EXPECT_EQ(within.a2c_streams, before.a2c_streams + 1);
        EXPECT_EQ(within.c2a_streams, before.c2a_streams + 1);
        EXPECT_EQ(within.accelerator_descriptors, before.accelerator_descriptors);
        EXPECT_EQ(within.mmio_descriptors, before.mmio_descriptors);
        EXPECT_EQ(within.a2c_descriptors, before.a2c_descriptors);
        EXPECT_EQ(within.c2a_descriptors, before.c2a_descriptors);
        EXPECT_EQ(within.misuses, before.misuses);
    }
    EXPECT_EQ(handles().filters, before.filters);
    EXPECT_EQ(handles().mmios, before.mmios);
    EXPECT_EQ(handles().a2c_streams, before.a2c_streams);
    EXPECT_EQ(handles().c2a_streams, before.c2a_streams);
    enyx_hw_filter_destroy(nullptr);
    EXPECT_EQ(handles().misuses, before.misuses + 1);
    enyx_sim_count_handles(nullptr);
}
