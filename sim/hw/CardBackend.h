#pragma once

#include <optional>
#include <string>

#include "sim/shm/CardFile.h"
#include "sim/shm/CardLock.h"
#include "sim/shm/Holder.h"

namespace vexo_sim {

/// How this process reaches a card. There are three ways: OwnCard lives in this process and is advanced by its calls;
/// HostedCard lies in shared memory and is advanced by its host; RemoteCard gets its packets from a card of another
/// machine. All that differs between them is here.
class CardBackend {
public:
    virtual ~CardBackend() = default;

    CardState& state() { return *m_state; }
    const CardState& state() const { return *m_state; }
    CardLocks& locks() { return *m_locks; }

    /// False when the card's host has died: registers no longer answer, streams stay idle.
    virtual bool responds() const = 0;
    /// False when a new enumeration would find another card at this bus.
    virtual bool isCurrent() const = 0;
    /// The process that hosts the card, when that is another one.
    virtual std::optional<Holder> host() const = 0;
    /// What else the card is known by: the host's scenario, or where a remote card is. Empty for a card of this
    /// process, which its environment describes.
    virtual std::string hostedScenario() const { return {}; }
    /// What the banner says instead of the usual; empty for the usual.
    virtual std::string banner(std::uint32_t /*bus*/) { return {}; }
    /// Whether its registers can be opened. If not, a line says why and what to do.
    virtual bool offersRegisters() { return true; }

    /// Writes a line about a lock that was not simply taken, if an operator needs it.
    virtual void tellOf(CardLock::Result) {}
    /// Writes a line that says which process holds a core lock for long.
    virtual void tellCoreHolder(pid_t, bool /*isStopped*/) {}
    /// Writes a line that says that this process has lost a lock.
    virtual void tellLost() {}

    /// Lets the card do what is due. Call it with the state locked.
    virtual void bringUpToDate() = 0;
    /// Makes the next use of the card read the clock again, even within the same second.
    virtual void forgetTime() = 0;
    /// The next packet, after the ring was found empty: advances the card first, unless somebody else advances it.
    virtual PacketView advanceAndPeek(RingState& ring) = 0;

    /// Opens a stream for this process: 0, or an errno value. EBUSY: somebody holds it, this process included. Of any
    /// other a line tells.
    virtual int take(CardPart stream) = 0;
    /// Closes a stream that this process holds. In a child of fork() the parent's streams stay open.
    virtual void giveBack(CardPart stream) = 0;
    /// Who holds a stream, this process included.
    virtual std::optional<Holder> holderOf(CardPart stream) const = 0;

protected:
    CardBackend(CardState& state, CardLocks& locks) : m_state(&state), m_locks(&locks) {}

    static bool open(Card card, CardPart stream) {
        return stream.kind == CardPart::kUp ? card.openUp(stream.channel) : card.openDown(stream.channel);
    }
    static void close(Card card, CardPart stream) {
        stream.kind == CardPart::kUp ? card.closeUp(stream.channel) : card.closeDown(stream.channel);
    }

private:
    CardState* m_state;
    CardLocks* m_locks;
};

}  // namespace vexo_sim
