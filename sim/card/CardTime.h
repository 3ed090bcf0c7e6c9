#pragma once

#include <cstdint>

namespace vexo_sim {

/// A moment. The card's owner passes it in; the card never asks the operating system.
struct CardTime {
    std::uint64_t monotonicNs = 0;  // any clock that does not go back; a step back counts as no time passed
    std::uint32_t date = 0;         // local YYYYMMDD
    std::uint32_t time = 0;         // local HHMMSS
    std::uint32_t millis = 0;       // of that second, 0 to 999
};

}  // namespace vexo_sim
