#include "tests/hosted/CardAccess.h"

#include "interface/CardRegisters.h"

namespace hosted {
namespace {

class Filter {
public:
    Filter() : m_filter(enyx_hw_filter_create()) {}
    ~Filter() { enyx_hw_filter_destroy(m_filter); }
    Filter(const Filter&) = delete;
    Filter& operator=(const Filter&) = delete;
    enyx_hw_filter* get() const { return m_filter; }

private:
    enyx_hw_filter* m_filter;
};

enyx_hw_register_description Whole(std::uint32_t word) { return {std::uint64_t{word} * 4, 0, 32}; }

}  // namespace

enyx_hw_accelerator* FindCard(std::uint32_t bus) {
    const Filter filter;
    enyx_hw_filter_set_index(filter.get(), bus);
    enyx_hw_accelerator_descriptor* descriptor = nullptr;
    if (enyx_hw_enumerate_accelerators(filter.get(), &descriptor, 1) != 1) return nullptr;
    enyx_hw_accelerator* card = enyx_hw_accelerator_get(descriptor);
    enyx_hw_free_accelerator_descriptors(&descriptor, 1);
    return card;
}

enyx_hw_core* OpenRegisters(std::uint32_t bus) {
    enyx_hw_accelerator* card = FindCard(bus);
    if (card == nullptr) return nullptr;
    const Filter filter;
    enyx_hw_mmio_descriptor* descriptor = nullptr;
    if (enyx_hw_accelerator_enumerate_mmios(card, filter.get(), &descriptor, 1) != 1) return nullptr;
    enyx_hw_mmio* mmio = enyx_hw_mmio_create(descriptor);
    enyx_hw_free_mmio_descriptors(&descriptor, 1);
    enyx_hw_core* core = nullptr;
    if (mmio == nullptr) return nullptr;
    enyx_hw_core_enumerate(enyx_hw_core_tree_get_root(enyx_hw_enumerate_cores(mmio)), 474, &core, 1);
    return core;
}

enyx_hw_a2c_stream* OpenStream(std::uint32_t bus, std::uint32_t channel) {
    enyx_hw_accelerator* card = FindCard(bus);
    if (card == nullptr) return nullptr;
    const Filter filter;
    enyx_hw_filter_set_name(filter.get(), ("CUSTOM_CHAN" + std::to_string(channel) + "_DATA").c_str());
    enyx_hw_a2c_stream_descriptor* descriptor = nullptr;
    if (enyx_hw_accelerator_enumerate_a2c_streams(card, filter.get(), &descriptor, 1) != 1) return nullptr;
    enyx_hw_a2c_stream* stream = enyx_hw_a2c_stream_create(descriptor, nullptr);
    enyx_hw_free_a2c_stream_descriptors(&descriptor, 1);
    return stream;
}

int Read(enyx_hw_core* core, std::uint32_t word, std::uint64_t& value) {
    const enyx_hw_register_description whole = Whole(word);
    return enyx_hw_read(core, &whole, &value);
}

int Write(enyx_hw_core* core, std::uint32_t word, std::uint64_t value) {
    const enyx_hw_register_description whole = Whole(word);
    return enyx_hw_write(core, &whole, value);
}

void SetMask(enyx_hw_core* core, std::uint32_t row, std::uint32_t mask) {
    const card_reg::TableRegisters& table = card_reg::kTables[card_reg::kSingleLegTable];
    Write(core, table.data, mask);
    Write(core, table.command, row << card_reg::kRowShift | card_reg::kMaskWord);
}

}  // namespace hosted
