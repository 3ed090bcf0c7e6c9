#pragma once

#include <cstdint>
#include <string>

#include "sim/hw/Exported.h"

namespace vexo_sim {

struct HwCard;
struct Handle;

/// One line of the trace. Made only while a trace is set.
class TraceLine {
public:
    explicit TraceLine(const char* call) : m_text(call) {}

    TraceLine& text(const char* key, const char* value);
    TraceLine& number(const char* key, std::int64_t value);
    TraceLine& hex(const char* key, std::uint64_t value);

    TraceLine& filter(const enyx_hw_filter* filter);
    TraceLine& accelerator(const enyx_hw_accelerator* accelerator);
    TraceLine& descriptor(const enyx_hw_accelerator_descriptor* descriptor);
    TraceLine& descriptor(const enyx_hw_mmio_descriptor* descriptor);
    TraceLine& descriptor(const enyx_hw_a2c_stream_descriptor* descriptor);
    TraceLine& descriptor(const enyx_hw_c2a_stream_descriptor* descriptor);
    TraceLine& mmio(const enyx_hw_mmio* mmio);
    TraceLine& tree(const enyx_hw_core_tree* tree);
    TraceLine& core(const enyx_hw_core* core);
    TraceLine& field(const enyx_hw_register_description* field);
    TraceLine& stream(const enyx_hw_a2c_stream* stream);
    TraceLine& stream(const enyx_hw_c2a_stream* stream);

    const std::string& line() const { return m_text; }

private:
    TraceLine& card(const char* key, const Handle* handle, const HwCard* card);
    TraceLine& channel(const char* key, const Handle* handle, const HwCard* card, std::uint32_t channel);

    std::string m_text;
};

}  // namespace vexo_sim
