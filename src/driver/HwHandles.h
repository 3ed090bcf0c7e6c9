#pragma once

#include <enyx-hw-c/enyx_hw.h>
#include <memory>
#include <utility>

/// Scoped ownership of what the hardware interface hands out.
namespace hw {

struct FilterDeleter {
    void operator()(enyx_hw_filter* filter) const { enyx_hw_filter_destroy(filter); }
};
using Filter = std::unique_ptr<enyx_hw_filter, FilterDeleter>;

/// The one descriptor that an enumeration may fill. Freed at the end of its scope if it was filled.
template <typename Descriptor, void (*Free)(Descriptor**, std::size_t)>
class OneDescriptor {
public:
    OneDescriptor() = default;
    ~OneDescriptor() { freeNow(); }
    OneDescriptor(const OneDescriptor&) = delete;
    OneDescriptor& operator=(const OneDescriptor&) = delete;

    Descriptor** room() { return &m_descriptor; }
    const Descriptor* get() const { return m_descriptor; }
    void freeNow() {
        if (m_descriptor != nullptr) Free(&m_descriptor, 1);
        m_descriptor = nullptr;
    }
    /// Leaves the descriptor to the card's library.
    void abandon() { m_descriptor = nullptr; }

private:
    Descriptor* m_descriptor = nullptr;
};

using AcceleratorDescriptor = OneDescriptor<enyx_hw_accelerator_descriptor, enyx_hw_free_accelerator_descriptors>;
using MmioDescriptor = OneDescriptor<enyx_hw_mmio_descriptor, enyx_hw_free_mmio_descriptors>;
using A2cDescriptor = OneDescriptor<enyx_hw_a2c_stream_descriptor, enyx_hw_free_a2c_stream_descriptors>;
using C2aDescriptor = OneDescriptor<enyx_hw_c2a_stream_descriptor, enyx_hw_free_c2a_stream_descriptors>;

}  // namespace hw
