#include "sim/hw/OwnCard.h"

#include <unistd.h>

#include <new>

namespace vexo_sim {

std::unique_ptr<OwnCard> OwnCard::make() {
    std::unique_ptr<Memory> memory(new (std::nothrow) Memory);
    if (memory == nullptr || memory->get() == nullptr) return nullptr;
    memory->get()->init();
    return std::unique_ptr<OwnCard>(new (std::nothrow) OwnCard(std::move(memory)));
}

bool OwnCard::replay(const scenario::Scenario& scenario, std::string& problem) {
    const BlockLock lock(block());
    Card card(block().state);
    m_replay = CardReplay::start(scenario, card, problem);
    return m_replay != nullptr;
}

inline void OwnCard::advance(CardState& state) {
    Card card(state);
    card.advance(m_clock.now());
    if (m_replay != nullptr) m_replay->advance(card);
}

void OwnCard::bringUpToDate() { advance(block().state); }

void OwnCard::forgetTime() {
    const BlockLock lock(block());
    m_clock.forget();
}

// Another thread that holds the lock is advancing the card: its packets come with the next poll.
PacketView OwnCard::advanceAndPeek(RingState& ring) {
    {
        CardBlock& own = block();
        const BlockLock lock(own, std::try_to_lock);
        if (!lock.owns()) return {};
        advance(own.state);
    }
    return ring::peek(ring);
}

bool OwnCard::take(CardPart stream) {
    const BlockLock lock(block());
    bringUpToDate();
    return open(Card(block().state), stream);
}

void OwnCard::giveBack(CardPart stream) {
    const BlockLock lock(block());
    bringUpToDate();
    close(Card(block().state), stream);
}

std::optional<Holder> OwnCard::holderOf(CardPart) const { return describeProcess(getpid()); }

}  // namespace vexo_sim
