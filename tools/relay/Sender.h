#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>

#include "tools/relay/Batcher.h"
#include "tools/relay/PacketQueue.h"
#include "tools/relay/PacketSource.h"
#include "tools/tap/TapClock.h"

namespace relay {

/// Carries packets from the queue to the batcher. Everything here runs on the sending thread.
class Sender {
public:
    using Ask = std::function<std::optional<StreamCounts>()>;

    /// @param ask  the counts of the card's stream; asked every hundredth of a second
    Sender(PacketQueue& queue, Batcher& batcher, Ask ask);

    /// Takes what is in the queue, and sends what is due. @return whether there was a packet
    bool step();
    /// Waits until there is something to do.
    void rest();
    /// Sends what is left in the queue, unless @p isOver says that it takes too long, and the last counts.
    void finish(const std::function<bool()>& isOver);

    /// The card did not answer when it was asked last.
    bool isCardSilent() const { return m_isCardSilent; }
    std::uint64_t nowNs() const { return m_clock.at(tap::clock_ticks::now()); }

private:
    bool drain();
    void askCard(bool isDue);

    PacketQueue& m_queue;
    Batcher& m_batcher;
    const Ask m_ask;
    tap::WallClock m_clock;
    std::uint64_t m_askedNs = 0;
    bool m_isCardSilent = false;
};

}  // namespace relay
