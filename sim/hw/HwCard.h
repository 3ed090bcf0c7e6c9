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
    explicit CardAccess(HwCard& card, When when = kPresent, Holding holding = Holding::kOrdinary)
        : m_backend(*card.backend), m_lock(m_backend.locks(), m_backend.state(), holding), m_card(m_backend.state()) {
        if (m_lock.result() != CardLock::kLocked) tell();
        if (m_lock.owns() && when == kPresent) m_backend.bringUpToDate();
    }
    explicit operator bool() const { return m_lock.owns(); }
    Card* operator->() { return &m_card; }
    Card& operator*() { return m_card; }

    /// Ends the access. @return false, with errno ECANCELED, when this process did not go on for seconds and the others
    /// went on without it: then nothing of the access counts.
    bool end() { return m_lock.release() || lost(); }

private:
    [[gnu::cold, gnu::noinline]] void tell() {
        m_backend.tellOf(m_lock.result());
        if (!m_lock.owns()) errno = CardLock::errorOf(m_lock.result());
    }
    [[gnu::cold, gnu::noinline]] bool lost() {
        m_backend.tellLost();
        errno = ECANCELED;
        return false;
    }

    CardBackend& m_backend;
    StateLock m_lock;
    Card m_card;
};

}  // namespace vexo_sim
