#pragma once

#include <enyx-hw-c/enyx_hw.h>

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

#include "tools/cardtest/Check.h"

namespace cardtest {

/// A deleter out of one of the interface's destroying calls.
template <auto destroy>
struct Destroyer {
    template <typename T>
    void operator()(T* handle) const {
        destroy(handle);
    }
};

using Filter = std::unique_ptr<enyx_hw_filter, Destroyer<enyx_hw_filter_destroy>>;
using Mmio = std::unique_ptr<enyx_hw_mmio, Destroyer<enyx_hw_mmio_destroy>>;
using UpStream = std::unique_ptr<enyx_hw_a2c_stream, Destroyer<enyx_hw_a2c_stream_destroy>>;
using DownStream = std::unique_ptr<enyx_hw_c2a_stream, Destroyer<enyx_hw_c2a_stream_destroy>>;

inline constexpr std::uint16_t kRegisterCore = 474;
inline constexpr std::uint32_t kChannels = 16;

Filter anyFilter();
Filter indexFilter(std::uint32_t index);
Filter nameFilter(const std::string& name);

std::string streamName(std::uint32_t channel);

/// Finds the card at a bus. Like all that follows it throws Untestable when the way to its object is barred: which
/// promise bars it is told by the check of that promise.
enyx_hw_accelerator* openCard(std::uint32_t bus);
Mmio openMmio(enyx_hw_accelerator* card);
enyx_hw_core* rootOf(enyx_hw_mmio* mmio);
enyx_hw_core* registerCoreOf(enyx_hw_mmio* mmio);

/// Null with errno set when the stream itself cannot be opened.
UpStream tryOpenUp(enyx_hw_accelerator* card, std::uint32_t channel);
DownStream tryOpenDown(enyx_hw_accelerator* card, std::uint32_t channel);

/// The stream that the checks use; throws Untestable when it is not to be had.
UpStream openUp(enyx_hw_accelerator* card, std::int32_t channel);
std::uint32_t channelOf(const Plan& plan);

/// The register core of a card, with a register space of its own.
class Registers {
public:
    explicit Registers(std::uint32_t bus);

    enyx_hw_core* core() const { return m_core; }
    enyx_hw_core* root() const { return m_root; }

    /// One whole register by its word index. Throws Untestable when the access fails.
    std::uint32_t read(std::uint32_t word) const;
    void write(std::uint32_t word, std::uint32_t value) const;

    /// A field that begins so many bits into the register. Throws Failed when the access fails.
    std::uint64_t readField(std::uint32_t word, unsigned offset, unsigned width) const;
    void writeField(std::uint32_t word, unsigned offset, unsigned width, std::uint64_t value) const;

private:
    Mmio m_mmio;
    enyx_hw_core* m_root;
    enyx_hw_core* m_core;
};

/// Holds the core's lock for as long as it lives.
class CoreLock {
public:
    explicit CoreLock(enyx_hw_core* core);
    ~CoreLock() { enyx_hw_core_unlock(m_core); }
    CoreLock(const CoreLock&) = delete;
    CoreLock& operator=(const CoreLock&) = delete;

private:
    enyx_hw_core* m_core;
};

}  // namespace cardtest
