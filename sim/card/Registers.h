#pragma once

#include <cstdint>

#include "sim/card/CardState.h"

namespace vexo_sim::registers {

/// Bytes of the register core's address space; addresses inside that hold no register read 0 and ignore writes.
inline constexpr std::uint64_t kSpaceBytes = 0x80000;

bool writeField(CardState& s, std::uint64_t byteAddress, std::uint32_t bitOffset, std::uint32_t bitWidth,
                std::uint64_t value);
bool readField(CardState& s, std::uint64_t byteAddress, std::uint32_t bitOffset, std::uint32_t bitWidth,
               std::uint64_t& value);

/// One whole register as the bus accesses it: with side effects, write-only registers reading 0.
void write(CardState& s, std::uint32_t word, std::uint32_t value);
std::uint32_t read(CardState& s, std::uint32_t word);

/// What a register holds, without side effects; for a write-only register what was written last.
std::uint32_t peek(const CardState& s, std::uint32_t word);
/// Changes what a register holds or shows, read-only ones included; the command, reset or verdict that a write over
/// the bus would set off does not happen. The exchange times stand still at the value until poked with kClockRuns.
/// @return false when there is no such register, or it only shows something that is kept elsewhere (table read-back).
bool poke(CardState& s, std::uint32_t word, std::uint32_t value);

/// The part of a reset that concerns registers: decode switch and contract-map transmission go off.
void forgetSwitches(CardState& s);

/// The exchange's date YYYYMMDD and time of day HHMMSS, as quotes carry them.
std::uint32_t exchangeDate(const CardState& s);
std::uint32_t exchangeTime(const CardState& s);
/// The same as feed 0 (register 0x104) or 1 (0x105) shows it.
std::uint32_t feedTime(const CardState& s, std::uint32_t feed);

}  // namespace vexo_sim::registers
