#pragma once

#include <atomic>
#include <memory>

#include "sim/hw/CardBackend.h"
#include "sim/hw/Handles.h"

namespace vexo_sim {

inline constexpr std::uint16_t kRootCoreId = 0;
inline constexpr std::uint16_t kRegisterCoreId = 474;

/// A card as this process's handles know it. Never destroyed, because handles point at it.
struct HwCard {
    std::uint32_t index = 0;  // bus number
    std::unique_ptr<CardBackend> backend;
    enyx_hw_accelerator accelerator;
    std::atomic<bool> announced{false};  // the banner was written

    CardBlock& block() const { return backend->block(); }
};

/// Whether a card can be opened. errno is ENODEV if not: it went with a power cycle, or with its host.
inline bool isPresent(const HwCard& card) {
    if (isAlive(&card.accelerator) && card.backend->responds()) return true;
    errno = ENODEV;
    return false;
}

/// Exclusive use of a card.
class CardAccess {
public:
    enum When {
        kPresent,  // brought up to the present moment first
        kAsItIs,   // for what does not depend on the time: saves a look at the clock
    };
    explicit CardAccess(HwCard& card, When when = kPresent) : m_lock(card.block()), m_card(card.block().state) {
        if (when == kPresent) card.backend->bringUpToDate();
    }
    Card* operator->() { return &m_card; }
    Card& operator*() { return m_card; }

private:
    BlockLock m_lock;
    Card m_card;
};

}  // namespace vexo_sim
