#pragma once

#include <atomic>
#include <memory>

#include "sim/hw/CardBackend.h"
#include "sim/hw/Handles.h"

namespace vexo_sim {

inline constexpr std::uint16_t kRootCoreId = 0;
inline constexpr std::uint16_t kRegisterCoreId = 474;

/// A card, as the handles of this process refer to it. Never destroyed, because handles point at it.
struct HwCard {
    std::uint32_t index = 0;  // bus number
    std::unique_ptr<CardBackend> backend;
    enyx_hw_accelerator accelerator;
    std::atomic<bool> announced{false};  // the banner was written
};

/// Whether a card can be opened. If not, errno is ENODEV: a power cycle removed the card, or its host died.
inline bool isPresent(const HwCard& card) {
    if (isAlive(&card.accelerator) && card.backend->responds()) return true;
    errno = ENODEV;
    return false;
}

/// Exclusive use of a card. It may fail: then errno says why, and the card must be left alone.
class CardAccess {
public:
    enum When {
        kPresent,  // brought up to the present moment first
        kAsItIs,   // for work that does not depend on the time: saves reading the clock
    };
    explicit CardAccess(HwCard& card, When when = kPresent)
        : m_lock(card.backend->locks(), card.backend->state()), m_card(card.backend->state()) {
        if (!m_lock.owns())
            fail(*card.backend);
        else if (when == kPresent)
            card.backend->bringUpToDate();
    }
    explicit operator bool() const { return m_lock.owns(); }
    Card* operator->() { return &m_card; }
    Card& operator*() { return m_card; }

private:
    [[gnu::cold, gnu::noinline]] void fail(CardBackend& backend) {
        backend.tellFailure(m_lock.result());
        errno = CardLock::errorOf(m_lock.result());
    }

    StateLock m_lock;
    Card m_card;
};

}  // namespace vexo_sim
