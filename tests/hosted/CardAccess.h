#pragma once

#include <cstdint>
#include <string>

#include <enyx-hw-c/enyx_hw.h>

namespace hosted {

/// The card at a bus as a program finds it; null with errno set when it is not there.
enyx_hw_accelerator* FindCard(std::uint32_t bus);
/// The register core of a card, with a register space of its own that lasts as long as the process.
enyx_hw_core* OpenRegisters(std::uint32_t bus);
enyx_hw_a2c_stream* OpenStream(std::uint32_t bus, std::uint32_t channel);

/// One whole register by its word index. -1 on failure, errno set.
int Read(enyx_hw_core* core, std::uint32_t word, std::uint64_t& value);
int Write(enyx_hw_core* core, std::uint32_t word, std::uint64_t value);
/// Sets the mask of a row of the single-leg table.
void SetMask(enyx_hw_core* core, std::uint32_t row, std::uint32_t mask);

}  // namespace hosted
