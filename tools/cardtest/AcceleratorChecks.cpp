#include <cerrno>

#include "interface/CardRegisters.h"
#include "tools/cardtest/CardUnderTest.h"

namespace cardtest {
namespace {

void cardOpens(const TestPlan& plan) {
    const FilterHandle filter = indexFilter(plan.bus);
    enyx_hw_accelerator_descriptor* found[8] = {};
    const ssize_t count = enyx_hw_enumerate_accelerators(filter.get(), found, 1);
    if (count < 1 || found[0] == nullptr) throw Untestable{"there is no descriptor of the card"};
    errno = 0;
    expect(enyx_hw_accelerator_get(found[0]) != nullptr, "an accelerator", "null, " + errnoText(errno));
    expect(enyx_hw_accelerator_get(found[0]) != nullptr, "an accelerator the second time too",
           "null, " + errnoText(errno));
    enyx_hw_free_accelerator_descriptors(found, 1);
}

void cardOutlivesDescriptor(const TestPlan& plan) {
    enyx_hw_accelerator* card = openCard(plan.bus);  // its descriptor is freed by now
    const FilterHandle filter = indexFilter(0);
    enyx_hw_mmio_descriptor* found[8] = {};
    errno = 0;
    const ssize_t count = enyx_hw_accelerator_enumerate_mmios(card, filter.get(), found, 1);
    expect(count >= 0, "the card's register spaces", resultText(count, errno));
    if (count > 0) enyx_hw_free_mmio_descriptors(found, 1);
}

void spaceIsFound(const TestPlan& plan) {
    enyx_hw_accelerator* card = openCard(plan.bus);
    const FilterHandle filter = indexFilter(0);
    enyx_hw_mmio_descriptor* found[8] = {};
    errno = 0;
    const ssize_t count = enyx_hw_accelerator_enumerate_mmios(card, filter.get(), found, 1);
    if (count < 0) throw Untestable{"the card's register spaces cannot be enumerated: " + errnoText(errno)};
    expect(count == 1, "1 register space of index 0", std::to_string(count));
    MmioHandle mmio(enyx_hw_mmio_create(found[0]));
    expect(mmio != nullptr, "a register space", "null, " + errnoText(errno));
    enyx_hw_free_mmio_descriptors(found, 1);
    expect(enyx_hw_enumerate_cores(mmio.get()) != nullptr, "a core tree, its descriptor freed",
           "null, " + errnoText(errno));
}

MmioHandle demandMmio(enyx_hw_accelerator* card, const char* expected) {
    try {
        return openMmio(card);
    } catch (const Untestable& barred) {
        throw Failed{expected, barred.reason};
    }
}

void spaceOpensAgain(const TestPlan& plan) {
    enyx_hw_accelerator* card = openCard(plan.bus);
    openMmio(card).reset();
    const MmioHandle again = demandMmio(card, "a register space that opens again");
    rootOf(again.get());
}

void spacesAgree(const TestPlan& plan) {
    const RegisterCore first(plan.bus);
    const MmioHandle second = demandMmio(openCard(plan.bus), "a second register space beside the first");
    const std::uint32_t value = first.read(card_reg::kHardwareVersion);
    enyx_hw_core* core = registerCoreOf(second.get());
    const enyx_hw_register_description version{std::uint64_t{card_reg::kHardwareVersion} * 4, 0, 32};
    std::uint64_t seen = 0;
    if (enyx_hw_read(core, &version, &seen) < 0) throw Failed{"hardware version " + hex(value), errnoText(errno)};
    expect(seen == value, "hardware version " + hex(value), hex(seen));
}

}  // namespace

std::vector<Check> acceleratorChecks() {
    constexpr const char* cards = "accelerators";
    constexpr const char* space = "register space";
    return {
        {cards, "card-opens", "A card that was enumerated can be opened, and opened again.", cardOpens},
        {cards, "card-descriptor", "An open card outlives the descriptor that it was opened by.",
         cardOutlivesDescriptor},
        {space, "space-found", "The card has a register space of index 0, which outlives its descriptor.",
         spaceIsFound},
        {space, "space-again", "A register space that was destroyed can be created again.", spaceOpensAgain},
        {space, "space-second", "Two register spaces open at one time show the same card.", spacesAgree},
    };
}

}  // namespace cardtest
