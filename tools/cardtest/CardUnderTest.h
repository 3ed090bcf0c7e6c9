#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

#include "tools/cardtest/CardLibrary.h"
#include "tools/cardtest/Check.h"

namespace cardtest {

/// A deleter that makes one of the interface's destroying calls.
template <auto& destroy>
struct Destroyer {
    template <typename T>
    void operator()(T* handle) const {
        destroy(handle);
    }
};

using FilterHandle = std::unique_ptr<enyx_hw_filter, Destroyer<enyx_hw_filter_destroy>>;
using MmioHandle = std::unique_ptr<enyx_hw_mmio, Destroyer<enyx_hw_mmio_destroy>>;
using UpStreamHandle = std::unique_ptr<enyx_hw_a2c_stream, Destroyer<enyx_hw_a2c_stream_destroy>>;
using DownStreamHandle = std::unique_ptr<enyx_hw_c2a_stream, Destroyer<enyx_hw_c2a_stream_destroy>>;

inline constexpr std::uint16_t kRegisterCoreId = 474;
inline constexpr std::uint32_t kChannels = 16;

FilterHandle anyFilter();
FilterHandle indexFilter(std::uint32_t index);
FilterHandle nameFilter(const std::string& name);

std::string streamName(std::uint32_t channel);

/// Finds the card at a bus. This and the functions below throw Untestable when a step before them fails: the step has a
/// check of its own, and that one fails.
enyx_hw_accelerator* openCard(std::uint32_t bus);
MmioHandle openMmio(enyx_hw_accelerator* card);
enyx_hw_core* rootOf(enyx_hw_mmio* mmio);
enyx_hw_core* registerCoreOf(enyx_hw_mmio* mmio);

/// Null with errno set when the stream itself cannot be opened.
UpStreamHandle tryOpenUp(enyx_hw_accelerator* card, std::uint32_t channel);
DownStreamHandle tryOpenDown(enyx_hw_accelerator* card, std::uint32_t channel);

/// Opens the stream that the checks use. Throws Untestable when it cannot be opened.
UpStreamHandle openUp(enyx_hw_accelerator* card, std::int32_t channel);
std::uint32_t channelOf(const TestPlan& plan);

/// The register core of a card, with a register space of its own.
class RegisterCore {
public:
    explicit RegisterCore(std::uint32_t bus);

    enyx_hw_core* core() const { return m_core; }
    enyx_hw_core* root() const { return m_root; }

    /// One whole register by its word index. Throws Untestable when the access fails.
    std::uint32_t read(std::uint32_t word) const;
    void write(std::uint32_t word, std::uint32_t value) const;

    /// A field that begins so many bits into the register. Throws Failed when the access fails.
    std::uint64_t readField(std::uint32_t word, unsigned offset, unsigned width) const;
    void writeField(std::uint32_t word, unsigned offset, unsigned width, std::uint64_t value) const;

private:
    MmioHandle m_mmio;
    enyx_hw_core* m_root;
    enyx_hw_core* m_core;
};

/// Holds the core's lock for as long as it lives.
class HeldCoreLock {
public:
    explicit HeldCoreLock(enyx_hw_core* core);
    ~HeldCoreLock() { enyx_hw_core_unlock(m_core); }
    HeldCoreLock(const HeldCoreLock&) = delete;
    HeldCoreLock& operator=(const HeldCoreLock&) = delete;

private:
    enyx_hw_core* m_core;
};

}  // namespace cardtest
