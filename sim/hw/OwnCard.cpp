#include "sim/hw/OwnCard.h"

#include <cerrno>
#include <new>

namespace vexo_sim {

std::unique_ptr<OwnCard> OwnCard::make() {
    std::unique_ptr<Memory> memory = makeMemory();
    return std::unique_ptr<OwnCard>(memory != nullptr ? new (std::nothrow) OwnCard(std::move(memory)) : nullptr);
}

bool OwnCard::replay(const scenario::Scenario& scenario, std::string& problem) {
    const StateLock lock(locks(), state());
    Card card(state());
    m_replay = CardReplay::start(scenario, card, problem);
    return m_replay != nullptr;
}

inline void OwnCard::advance() {
    Card card(state());
    card.advance(clock().now());
    if (m_replay != nullptr) m_replay->advance(card);
}

void OwnCard::bringUpToDate() { advance(); }

// If another thread holds the lock, it is advancing the card. The packets then come with the next poll.
PacketView OwnCard::advanceAndPeek(RingState& ring) {
    {
        const StateLock lock(locks(), state(), std::try_to_lock);
        if (!lock.owns()) return {};
        advance();
    }
    return ring::peek(ring);
}

int OwnCard::take(CardPart stream) {
    const StateLock lock(locks(), state());
    advance();
    return open(Card(state()), stream) ? 0 : EBUSY;
}

void OwnCard::giveBack(CardPart stream) {
    const StateLock lock(locks(), state());
    advance();
    close(Card(state()), stream);
}

}  // namespace vexo_sim
