#include "tools/cardtest/CardUnderTest.h"

#include <cerrno>

namespace cardtest {
namespace {

// Finds one object by an enumeration of its kind. The call is told of room for one; the array has more, so that a
// library that fills in too many fails its check and does not crash the program.
template <typename Descriptor, typename Enumerate>
Descriptor* theOne(const std::string& what, Enumerate enumerate) {
    Descriptor* found[8] = {};
    errno = 0;
    const ssize_t count = enumerate(found, std::size_t{1});
    if (count != 1) throw Untestable{what + ": the enumeration gave " + resultText(count, errno) + ", not 1"};
    if (found[0] == nullptr) throw Untestable{what + ": the enumeration filled nothing in"};
    return found[0];
}

FilterHandle madeFilter() {
    FilterHandle filter(enyx_hw_filter_create());
    if (!filter) throw Untestable{"a filter could not be created: " + errnoText(errno)};
    return filter;
}

enyx_hw_register_description field(std::uint32_t word, unsigned offset, unsigned width) {
    return {std::uint64_t{word} * 4, static_cast<std::uint8_t>(offset), static_cast<std::uint8_t>(width)};
}

std::string fieldText(const char* verb, std::uint32_t word, unsigned offset, unsigned width) {
    return std::string(verb) + " of " + std::to_string(width) + " bits at bit " + std::to_string(offset) +
           " of register " + hex(word);
}

std::string accessText(const char* verb, std::uint32_t word, int result) {
    return std::string(verb) + " of register " + hex(word) + " failed: " + resultText(result, errno);
}

// The stream of a channel, with the three calls of its direction. Leaves the errno of the call that creates it.
template <typename Stream, typename Descriptor, typename Enumerate, typename Create, typename Free>
Stream tryOpen(enyx_hw_accelerator* card, std::uint32_t channel, const Enumerate& enumerate, const Create& create,
               const Free& free) {
    const FilterHandle filter = nameFilter(streamName(channel));
    auto* descriptor = theOne<Descriptor>(streamName(channel), [&](auto** found, std::size_t room) {
        return enumerate(card, filter.get(), found, room);
    });
    errno = 0;
    Stream stream(create(descriptor, nullptr));
    const int error = errno;
    free(&descriptor, 1);
    errno = error;
    return stream;
}

}  // namespace

FilterHandle anyFilter() { return madeFilter(); }

FilterHandle indexFilter(std::uint32_t index) {
    FilterHandle filter = madeFilter();
    if (enyx_hw_filter_set_index(filter.get(), index) != 0)
        throw Untestable{"a filter did not take an index: " + errnoText(errno)};
    return filter;
}

FilterHandle nameFilter(const std::string& name) {
    FilterHandle filter = madeFilter();
    if (enyx_hw_filter_set_name(filter.get(), name.c_str()) != 0)
        throw Untestable{"a filter did not take a name: " + errnoText(errno)};
    return filter;
}

std::string streamName(std::uint32_t channel) { return "CUSTOM_CHAN" + std::to_string(channel) + "_DATA"; }

enyx_hw_accelerator* openCard(std::uint32_t bus) {
    const FilterHandle filter = indexFilter(bus);
    auto* descriptor = theOne<enyx_hw_accelerator_descriptor>(
        "card at bus " + std::to_string(bus),
        [&](auto** found, std::size_t room) { return enyx_hw_enumerate_accelerators(filter.get(), found, room); });
    enyx_hw_accelerator* card = enyx_hw_accelerator_get(descriptor);
    if (card == nullptr) throw Untestable{"the card could not be opened: " + errnoText(errno)};
    enyx_hw_free_accelerator_descriptors(&descriptor, 1);
    return card;
}

MmioHandle openMmio(enyx_hw_accelerator* card) {
    const FilterHandle filter = indexFilter(0);
    auto* descriptor = theOne<enyx_hw_mmio_descriptor>("register space", [&](auto** found, std::size_t room) {
        return enyx_hw_accelerator_enumerate_mmios(card, filter.get(), found, room);
    });
    MmioHandle mmio(enyx_hw_mmio_create(descriptor));
    const int error = errno;
    enyx_hw_free_mmio_descriptors(&descriptor, 1);
    if (!mmio) throw Untestable{"the register space could not be opened: " + errnoText(error)};
    return mmio;
}

enyx_hw_core* rootOf(enyx_hw_mmio* mmio) {
    enyx_hw_core_tree* tree = enyx_hw_enumerate_cores(mmio);
    if (tree == nullptr) throw Untestable{"no core tree: " + errnoText(errno)};
    enyx_hw_core* root = enyx_hw_core_tree_get_root(tree);
    if (root == nullptr) throw Untestable{"the core tree has no root: " + errnoText(errno)};
    return root;
}

enyx_hw_core* registerCoreOf(enyx_hw_mmio* mmio) {
    enyx_hw_core* root = rootOf(mmio);
    return theOne<enyx_hw_core>("register core 474", [&](enyx_hw_core** found, std::size_t room) {
        return enyx_hw_core_enumerate(root, kRegisterCoreId, found, room);
    });
}

UpStreamHandle tryOpenUp(enyx_hw_accelerator* card, std::uint32_t channel) {
    return tryOpen<UpStreamHandle, enyx_hw_a2c_stream_descriptor>(
        card, channel, enyx_hw_accelerator_enumerate_a2c_streams, enyx_hw_a2c_stream_create,
        enyx_hw_free_a2c_stream_descriptors);
}

DownStreamHandle tryOpenDown(enyx_hw_accelerator* card, std::uint32_t channel) {
    return tryOpen<DownStreamHandle, enyx_hw_c2a_stream_descriptor>(
        card, channel, enyx_hw_accelerator_enumerate_c2a_streams, enyx_hw_c2a_stream_create,
        enyx_hw_free_c2a_stream_descriptors);
}

std::uint32_t channelOf(const TestPlan& plan) {
    if (plan.channel < 0) throw Untestable{"no card-to-host stream is free"};
    return static_cast<std::uint32_t>(plan.channel);
}

UpStreamHandle openUp(enyx_hw_accelerator* card, std::int32_t channel) {
    if (channel < 0) throw Untestable{"no card-to-host stream is free"};
    UpStreamHandle stream = tryOpenUp(card, static_cast<std::uint32_t>(channel));
    if (!stream)
        throw Untestable{streamName(static_cast<std::uint32_t>(channel)) + " could not be opened: " + errnoText(errno)};
    return stream;
}

RegisterCore::RegisterCore(std::uint32_t bus)
    : m_mmio(openMmio(openCard(bus))), m_root(rootOf(m_mmio.get())), m_core(registerCoreOf(m_mmio.get())) {}

std::uint32_t RegisterCore::read(std::uint32_t word) const {
    const enyx_hw_register_description whole = field(word, 0, 32);
    std::uint64_t value = 0;
    const int result = enyx_hw_read(m_core, &whole, &value);
    if (result < 0) throw Untestable{accessText("a read", word, result)};
    return static_cast<std::uint32_t>(value);
}

void RegisterCore::write(std::uint32_t word, std::uint32_t value) const {
    const enyx_hw_register_description whole = field(word, 0, 32);
    const int result = enyx_hw_write(m_core, &whole, value);
    if (result < 0) throw Untestable{accessText("a write", word, result)};
}

std::uint64_t RegisterCore::readField(std::uint32_t word, unsigned offset, unsigned width) const {
    const enyx_hw_register_description part = field(word, offset, width);
    std::uint64_t value = 0;
    errno = 0;
    const int result = enyx_hw_read(m_core, &part, &value);
    expect(result >= 0, fieldText("a read", word, offset, width), resultText(result, errno));
    return value;
}

void RegisterCore::writeField(std::uint32_t word, unsigned offset, unsigned width, std::uint64_t value) const {
    const enyx_hw_register_description part = field(word, offset, width);
    errno = 0;
    const int result = enyx_hw_write(m_core, &part, value);
    expect(result >= 0, fieldText("a write", word, offset, width), resultText(result, errno));
}

HeldCoreLock::HeldCoreLock(enyx_hw_core* core) : m_core(core) {
    errno = 0;
    const int result = enyx_hw_core_lock(core);
    if (result != 0) throw Untestable{"the core's lock could not be taken: " + resultText(result, errno)};
}

}  // namespace cardtest
