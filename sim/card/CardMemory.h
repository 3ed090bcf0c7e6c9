#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "card/CardState.h"

namespace vexo_sim {

/// Zeroed heap memory for one card. calloc() leaves the pages untouched, so the unused part of the sixteen rings
/// costs nothing; the block is over-long because calloc() does not align to a cache line.
class CardMemory {
public:
    CardMemory() : m_block(std::calloc(1, sizeof(CardState) + alignof(CardState)), &std::free) {}

    /// Null when there was no memory.
    CardState* state() const {
        void* start = m_block.get();
        std::size_t space = sizeof(CardState) + alignof(CardState);
        if (start == nullptr) return nullptr;
        return static_cast<CardState*>(std::align(alignof(CardState), sizeof(CardState), start, space));
    }

private:
    std::unique_ptr<void, void (*)(void*)> m_block;
};

}  // namespace vexo_sim
