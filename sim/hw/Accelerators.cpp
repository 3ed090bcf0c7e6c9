#include <cstdio>
#include <optional>
#include <string>

#include "capture/StandardStreams.h"
#include "sim/hw/Cards.h"
#include "sim/hw/Hooks.h"

namespace vexo_sim {
namespace {

template <typename Descriptor>
Descriptor* describe(HwCard& card) {
    Descriptor* descriptor = pool<Descriptor>().make();
    if (descriptor == nullptr) return nullptr;
    descriptor->card = &card;
    return pool<Descriptor>().publish(descriptor);
}

ssize_t enumerateCards(const enyx_hw_filter* filter, enyx_hw_accelerator_descriptor** descriptors, std::size_t room) {
    Cards& cards = Cards::instance();
    HwCard* card = nullptr;  // the card that the look-up by name found: its host may be gone at a second look-up
    return enumerate(
        filter, descriptors, room, kMaxCards, ENODEV,
        [&](std::uint32_t index, char(&name)[kNameSize]) {
            std::snprintf(name, sizeof name, "SIM%u", index);
            card = cards.find(index);
            return card != nullptr;
        },
        [&](std::uint32_t) { return describe<enyx_hw_accelerator_descriptor>(*card); });
}

std::string hostOf(const HwCard& card) {
    const std::optional<Holder> host = card.backend->host();
    return host ? ", hosted by " + toText(*host) : std::string();
}

void announceOnce(HwCard& card) {
    if (card.announced.exchange(true)) return;
    if (const std::string banner = card.backend->banner(card.index); !banner.empty()) {
        capture::printError("libenyx-hw-c: %s\n", banner.c_str());
        return;
    }
    capture::printError(
        "libenyx-hw-c: SIMULATED CARD at bus %u%s, not the real thing: "
        "every quote is made up, none comes from an exchange.\n",
        card.index, hostOf(card).c_str());
}

enyx_hw_accelerator* getAccelerator(const enyx_hw_accelerator_descriptor* descriptor) {
    if (!usable(descriptor) || !isPresent(*descriptor->card)) return nullptr;
    announceOnce(*descriptor->card);
    return &descriptor->card->accelerator;
}

ssize_t enumerateMmios(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                       enyx_hw_mmio_descriptor** descriptors, std::size_t room) {
    if (!usable(accelerator)) return -1;
    return enumerate(
        filter, descriptors, room, 1, ENOENT,
        [](std::uint32_t, char(&name)[kNameSize]) { return std::snprintf(name, sizeof name, "MMIO0") > 0; },
        [&](std::uint32_t) { return describe<enyx_hw_mmio_descriptor>(*accelerator->card); });
}

enyx_hw_mmio* createMmio(const enyx_hw_mmio_descriptor* descriptor) {
    if (!usable(descriptor) || !isPresent(*descriptor->card)) return nullptr;
    if (!descriptor->card->backend->offersRegisters()) {
        errno = EPERM;
        return nullptr;
    }
    enyx_hw_mmio* mmio = pool<enyx_hw_mmio>().make();
    if (mmio == nullptr) return nullptr;
    mmio->card = descriptor->card;
    mmio->tree.mmio = mmio->root.mmio = mmio->registers.mmio = mmio;
    mmio->root.hardwareId = kRootCoreId;
    mmio->registers.hardwareId = kRegisterCoreId;
    return pool<enyx_hw_mmio>().publish(mmio);
}

}  // namespace
}  // namespace vexo_sim

using namespace vexo_sim;

ssize_t enyx_hw_enumerate_accelerators(const enyx_hw_filter* filter, enyx_hw_accelerator_descriptor** descriptors,
                                       size_t count) {
    Cards::instance().refresh();  // before the scripts are checked: they come and go with hosted cards
    return performCount(
        Call::kEnumerateAccelerators, count,
        [=](std::size_t room) { return enumerateCards(filter, descriptors, room); },
        [=](TraceLine& line) { line.filter(filter); });
}

enyx_hw_accelerator* enyx_hw_accelerator_get(const enyx_hw_accelerator_descriptor* descriptor) {
    return perform(
        Call::kAcceleratorGet, [=] { return getAccelerator(descriptor); },
        [=](TraceLine& line) { line.descriptor(descriptor); });
}

void enyx_hw_free_accelerator_descriptors(enyx_hw_accelerator_descriptor** descriptors, size_t count) {
    performVoid(
        Call::kFreeAcceleratorDescriptors, [=] { freeDescriptors(descriptors, count); },
        [=](TraceLine& line) { line.number("count", static_cast<std::int64_t>(count)); });
}

ssize_t enyx_hw_accelerator_enumerate_mmios(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                                            enyx_hw_mmio_descriptor** descriptors, size_t count) {
    return performCount(
        Call::kEnumerateMmios, count,
        [=](std::size_t room) { return enumerateMmios(accelerator, filter, descriptors, room); },
        [=](TraceLine& line) { line.accelerator(accelerator).filter(filter); });
}

enyx_hw_mmio* enyx_hw_mmio_create(const enyx_hw_mmio_descriptor* descriptor) {
    return perform(
        Call::kMmioCreate, [=] { return createMmio(descriptor); },
        [=](TraceLine& line) { line.descriptor(descriptor); });
}

void enyx_hw_mmio_destroy(enyx_hw_mmio* mmio) {
    performVoid(
        Call::kMmioDestroy, [=] { destroyHandle(mmio); }, [=](TraceLine& line) { line.mmio(mmio); });
}

void enyx_hw_free_mmio_descriptors(enyx_hw_mmio_descriptor** descriptors, size_t count) {
    performVoid(
        Call::kFreeMmioDescriptors, [=] { freeDescriptors(descriptors, count); },
        [=](TraceLine& line) { line.number("count", static_cast<std::int64_t>(count)); });
}
