#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace vexo_sim {

/// Zeroed heap memory for one object that is valid when all bytes are zero, such as a card's state. calloc() leaves the
/// pages untouched, so the unused part of the sixteen rings costs nothing; the memory is over-long because calloc()
/// does not align to a cache line.
template <typename T>
class ZeroedMemory {
public:
    ZeroedMemory() : m_block(std::calloc(1, sizeof(T) + alignof(T)), &std::free) {}

    /// Null when there was no memory.
    T* get() const {
        void* start = m_block.get();
        std::size_t space = sizeof(T) + alignof(T);
        if (start == nullptr) return nullptr;
        return static_cast<T*>(std::align(alignof(T), sizeof(T), start, space));
    }

private:
    std::unique_ptr<void, void (*)(void*)> m_block;
};

}  // namespace vexo_sim
