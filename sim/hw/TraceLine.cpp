#include "sim/hw/TraceLine.h"

#include <cstdio>

#include "sim/hw/HwCard.h"

namespace vexo_sim {
namespace {

const char* stateOf(const Handle* handle) { return handle == nullptr ? "null" : "dead"; }

}  // namespace

TraceLine& TraceLine::text(const char* key, const char* value) {
    m_text.append(1, ' ').append(key).append(1, '=').append(value);
    return *this;
}

TraceLine& TraceLine::number(const char* key, std::int64_t value) { return text(key, std::to_string(value).c_str()); }

TraceLine& TraceLine::hex(const char* key, std::uint64_t value) {
    char digits[24];
    std::snprintf(digits, sizeof digits, "0x%llx", static_cast<unsigned long long>(value));
    return text(key, digits);
}

TraceLine& TraceLine::card(const char* key, const Handle* handle, const HwCard* card) {
    if (handle == nullptr || !isAlive(handle)) return text(key, stateOf(handle));
    return text(key, ("card" + std::to_string(card->index)).c_str());
}

TraceLine& TraceLine::channel(const char* key, const Handle* handle, const HwCard* card, std::uint32_t channel) {
    if (handle == nullptr || !isAlive(handle)) return text(key, stateOf(handle));
    const std::string stream = "/CUSTOM_CHAN" + std::to_string(channel) + "_DATA";
    return text(key, ("card" + std::to_string(card->index) + stream).c_str());
}

TraceLine& TraceLine::filter(const enyx_hw_filter* filter) {
    if (filter == nullptr || !isAlive(filter)) return text("filter", stateOf(filter));
    if (filter->hasIndex) number("filter_index", filter->index);
    if (filter->hasName) text("filter_name", filter->name);
    return filter->hasIndex || filter->hasName ? *this : text("filter", "all");
}

TraceLine& TraceLine::accelerator(const enyx_hw_accelerator* a) {
    return card("accelerator", a, a ? a->card : nullptr);
}

TraceLine& TraceLine::descriptor(const enyx_hw_accelerator_descriptor* d) {
    return card("descriptor", d, d ? d->card : nullptr);
}

TraceLine& TraceLine::descriptor(const enyx_hw_mmio_descriptor* d) {
    return card("descriptor", d, d ? d->card : nullptr);
}

TraceLine& TraceLine::descriptor(const enyx_hw_a2c_stream_descriptor* d) {
    return channel("descriptor", d, d ? d->card : nullptr, d ? d->channel : 0);
}

TraceLine& TraceLine::descriptor(const enyx_hw_c2a_stream_descriptor* d) {
    return channel("descriptor", d, d ? d->card : nullptr, d ? d->channel : 0);
}

TraceLine& TraceLine::mmio(const enyx_hw_mmio* m) { return card("mmio", m, m ? m->card : nullptr); }

TraceLine& TraceLine::tree(const enyx_hw_core_tree* t) {
    return card("tree", t ? t->mmio : nullptr, t ? t->mmio->card : nullptr);
}

TraceLine& TraceLine::core(const enyx_hw_core* core) {
    if (core == nullptr || !isAlive(core)) return text("core", stateOf(core ? core->mmio : nullptr));
    return hex("core", core->hardwareId);
}

TraceLine& TraceLine::field(const enyx_hw_register_description* field) {
    if (field == nullptr) return text("register", "null");
    return hex("address", field->address).number("offset", field->bit_offset).number("width", field->bit_width);
}

TraceLine& TraceLine::stream(const enyx_hw_a2c_stream* s) {
    return channel("stream", s, s ? s->card : nullptr, s ? s->channel : 0);
}

TraceLine& TraceLine::stream(const enyx_hw_c2a_stream* s) {
    return channel("stream", s, s ? s->card : nullptr, s ? s->channel : 0);
}

}  // namespace vexo_sim
