#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "sim/card/Card.h"
#include "sim/card/ZeroedMemory.h"
#include "sim/hw/Handles.h"
#include "sim/replay/CardReplay.h"
#include "sim/scenario/Scenario.h"
#include "sim/shm/CardBlock.h"
#include "sim/shm/HostClock.h"
#include "sim/shm/HostedCard.h"

namespace vexo_sim {

inline constexpr std::uint32_t kMaxCards = 5;
inline constexpr std::uint16_t kRootCoreId = 0;
inline constexpr std::uint16_t kRegisterCoreId = 474;

/// One card as this process reaches it: its own, or one that another process hosts. Handles point at it, so it is
/// never destroyed.
struct HwCard {
    std::uint32_t index = 0;
    CardBlock* block = nullptr;
    std::unique_ptr<ZeroedMemory<CardBlock>> memory;  // of a card of one's own, from the first power-on on
    std::unique_ptr<HostedCard> hosted;
    HostClock clock;
    enyx_hw_accelerator accelerator;
    std::atomic<bool> announced{false};  // as a simulated one

    std::unique_ptr<CardReplay> replay;  // of a card of one's own; a hosted card is the host's to advance

    Card card() { return Card(block->state); }
    /// Lets a card of one's own do what is due. Its state must be locked.
    void bringUpToDate() {
        if (hosted != nullptr) return;
        Card own = card();
        own.advance(clock.now());
        if (replay != nullptr) replay->advance(own);
    }
    /// False when the card's host has died: registers no longer answer, streams stay idle.
    bool responds() const { return hosted == nullptr || hosted->isHostAlive(); }
};

/// Whether a card is there to be opened; errno is ENODEV if not: gone by a power cycle, or with its host.
inline bool isPresent(const HwCard& card) {
    if (isAlive(&card.accelerator) && card.responds()) return true;
    errno = ENODEV;
    return false;
}

/// Exclusive use of a card. A hosted card is kept up to date by its host.
class CardAccess {
public:
    enum When {
        kPresent,  // brought up to the present moment first
        kAsItIs,   // for what does not depend on the time, and must not cost a look at the clock
    };
    explicit CardAccess(HwCard& card, When when = kPresent) : m_lock(*card.block), m_card(card.card()) {
        if (when == kPresent) card.bringUpToDate();
    }
    Card* operator->() { return &m_card; }
    Card& operator*() { return m_card; }

private:
    BlockLock m_lock;
    Card m_card;
};

/// The cards that the process sees. What they are is decided on first use: those that hosts offer, or else a card of
/// the process's own. VEXO_SIM_SCENARIO and VEXO_SIM_SET may say what that one is; with either, hosts are ignored.
/// VEXO_SIM_CARD decides too: `hosted` and `embedded` insist on the one or the other.
class Cards {
public:
    static Cards& instance();

    /// Decides, if that has not been done.
    void decideOnce();
    /// Looks for hosts that came, or took the place of a dead one, since the last look.
    void refresh();
    /// Null, with errno ENODEV, when there is none at that bus.
    HwCard* find(std::uint32_t index);
    /// Cards of the process's own, like new. 0, or -1 with errno set: EINVAL for a bad configuration or count, EPERM
    /// when the cards are hosted, both with nothing changed; ENOMEM.
    int powerCycle(const CardConfig& config, std::uint32_t count);
    /// The same with one card, at the scenario's bus.
    int powerCycle(const scenario::Scenario& scenario);

private:
    enum class Kind { kNone, kEmbedded, kHosted };

    void decide();
    void attachHosted();
    bool makeOwn();
    int claimOwn();
    /// Cards at the buses that @p buses has a bit for; @p switchOn does it: (Card&, now, bus).
    template <typename SwitchOn>
    int powerOn(std::uint32_t buses, SwitchOn switchOn);
    int powerOn(const scenario::Scenario& scenario);
    int startReplay(const scenario::Scenario& scenario);

    std::once_flag m_firstUse;
    std::mutex m_mutex;  // over a change of the cards
    Kind m_kind = Kind::kNone;
    std::atomic<HwCard*> m_cards[kMaxCards] = {};
    HwCard m_own[kMaxCards];
    std::vector<std::unique_ptr<HwCard>> m_attached;  // those of dead hosts too: handles may point at them
};

}  // namespace vexo_sim
