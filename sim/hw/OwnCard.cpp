#include "sim/hw/OwnCard.h"

#include <unistd.h>

#include <new>

namespace vexo_sim {

std::unique_ptr<OwnCard> OwnCard::make() {
    std::unique_ptr<Memory> memory(new (std::nothrow) Memory);
    if (memory == nullptr || memory->get() == nullptr) return nullptr;
    return std::unique_ptr<OwnCard>(new (std::nothrow) OwnCard(std::move(memory)));
}

bool OwnCard::replay(const scenario::Scenario& scenario, std::string& problem) {
    const StateLock lock(m_ownLocks, state());
    Card card(state());
    m_replay = CardReplay::start(scenario, card, problem);
    return m_replay != nullptr;
}

inline void OwnCard::advance() {
    Card card(state());
    card.advance(m_clock.now());
    if (m_replay != nullptr) m_replay->advance(card);
}

void OwnCard::bringUpToDate() { advance(); }

void OwnCard::forgetTime() {
    const StateLock lock(m_ownLocks, state());
    m_clock.forget();
}

// If another thread holds the lock, it is advancing the card. The packets then come with the next poll.
PacketView OwnCard::advanceAndPeek(RingState& ring) {
    {
        const StateLock lock(m_ownLocks, state(), std::try_to_lock);
        if (!lock.owns()) return {};
        advance();
    }
    return ring::peek(ring);
}

bool OwnCard::take(CardPart stream) {
    const StateLock lock(m_ownLocks, state());
    advance();
    return open(Card(state()), stream);
}

void OwnCard::giveBack(CardPart stream) {
    const StateLock lock(m_ownLocks, state());
    advance();
    close(Card(state()), stream);
}

std::optional<Holder> OwnCard::holderOf(CardPart) const { return describeProcess(getpid()); }

}  // namespace vexo_sim
