#pragma once

#include <cstddef>
#include <cstdint>

#include "sim/shm/CardFile.h"

namespace vexo_sim {

/// Where the state of a card in shared memory lies, as one process sees it. A process that is stopped inside an access
/// may continue at any moment, and then makes the rest of its changes. So whoever takes the lock away from it copies
/// the state to another place of the file first, where all others go on. What the stopped process still changes is then
/// in the old place, which nobody uses any more. Each place is used once; the old ones stay until the card is removed.
///
/// The rings do not move, because their readers need no lock. Only their reader and protected holders of the lock
/// change them.
class StateHome {
public:
    StateHome(CardFile& file, CardBlock& block) : m_file(file), m_block(block) {}

    /// Whether this process has the right place mapped. Call this and all that follows with the lock of the state held
    /// against the other threads.
    bool isHere() const { return m_block.place.load(std::memory_order_relaxed) == m_place; }
    /// Maps the state where it lies now, at the same address. False when that is not possible.
    bool follow() { return map(m_block.place.load(std::memory_order_relaxed)); }

    /// Reserves a place for a move.
    bool prepare();
    /// Copies the state to the reserved place, repairs the copy and makes it the state. @p stillOwns() is asked before
    /// each attempt: the lock may have been taken away from this process too. False when the state has not moved.
    template <typename StillOwns>
    bool move(StillOwns stillOwns) {
        for (;;) {
            const std::uint32_t from = m_block.place.load();
            if (!stillOwns() || !prepare() || !copy(from)) return false;
            if (publish(from)) return true;
            // A process that was stopped in the middle of a move has continued and made its copy the state.
        }
    }

private:
    bool map(std::uint32_t place);
    bool copy(std::uint32_t from);
    bool publish(std::uint32_t from);

    CardFile& m_file;
    CardBlock& m_block;
    std::uint64_t m_place = 0;  // that is mapped; beyond 32 bits while none is
    std::uint32_t m_spare = 0;  // reserved; 0 for none
};

}  // namespace vexo_sim
