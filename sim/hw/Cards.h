#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

#include "card/Card.h"
#include "card/CardMemory.h"
#include "hw/Handles.h"
#include "hw/HostClock.h"

namespace vexo_sim {

inline constexpr std::uint32_t kMaxCards = 5;
inline constexpr std::uint16_t kRootCoreId = 0;
inline constexpr std::uint16_t kRegisterCoreId = 474;

/// The lock that a core itself offers its users. Survives a thread that ends while it holds it, and refuses a second
/// lock by the same thread instead of waiting for ever.
class CoreLock {
public:
    CoreLock();
    /// 0 or an errno value.
    int lock();
    int unlock();

private:
    pthread_mutex_t m_mutex;
    std::atomic<std::thread::id> m_holder{};  // kept here too: sanitizers call a refused unlock a defect of the caller
};

/// One card inside the process, with all that its callers share.
struct EmbeddedCard {
    std::uint32_t index = 0;
    std::mutex mutex;  // over the card's state, but for the reader's side of the rings
    std::unique_ptr<CardMemory> memory;  // from the first power-on on
    HostClock clock;
    CoreLock rootLock;
    CoreLock registerLock;
    enyx_hw_accelerator accelerator;

    Card card() { return Card(*memory->state()); }
};

/// Whether a power cycle has left the card in place; errno is ENODEV if not.
inline bool isPresent(const EmbeddedCard& card) {
    if (isAlive(&card.accelerator)) return true;
    errno = ENODEV;
    return false;
}

/// Exclusive use of a card.
class CardAccess {
public:
    enum When {
        kPresent,  // brought up to the present moment first
        kAsItIs,   // for what does not depend on the time, and must not cost a look at the clock
    };
    explicit CardAccess(EmbeddedCard& card, When when = kPresent) : m_lock(card.mutex), m_card(card.card()) {
        if (when == kPresent) m_card.advance(card.clock.now());
    }
    Card* operator->() { return &m_card; }
    Card& operator*() { return m_card; }

private:
    std::lock_guard<std::mutex> m_lock;
    Card m_card;
};

/// The cards of the process, made on first use.
class Cards {
public:
    static Cards& instance();

    std::uint32_t count();
    /// Null, with errno ENODEV, when there is none of that number.
    EmbeddedCard* find(std::uint32_t index);
    /// 0, or -1 with errno set: EINVAL for a bad configuration or count, with nothing changed; ENOMEM.
    int powerCycle(const CardConfig& config, std::uint32_t count);

private:
    int powerOn(const CardConfig& config, std::uint32_t count);

    std::once_flag m_firstUse;
    std::atomic<std::uint32_t> m_count{0};
    EmbeddedCard m_cards[kMaxCards];
};

}  // namespace vexo_sim
