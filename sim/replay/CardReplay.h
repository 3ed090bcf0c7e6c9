#pragma once

#include <array>
#include <memory>
#include <string>

#include "sim/replay/Replay.h"
#include "sim/scenario/Scenario.h"

namespace vexo_sim {

/// A card that delivers what a scenario's capture holds, in place of what it would send by itself. For whoever advances
/// the card, one thread at a time.
class CardReplay {
public:
    /// To be called when the card has been switched on as the scenario says.
    /// @param problem  what is to be told of the file, one line; empty when it is in order
    /// @return null when nothing can be replayed
    static std::unique_ptr<CardReplay> start(const scenario::Scenario& scenario, Card& card, std::string& problem);

    /// Delivers what is due, after each Card::advance().
    void advance(Card& card);
    /// When there is more to do, on the card's own clock: see Replay::nextDue().
    std::uint64_t nextDue() const { return m_replay.nextDue(); }

private:
    Replay m_replay;
    std::array<std::uint32_t, kStreams> m_opened{};  // a stream that was opened again begins again
};

}  // namespace vexo_sim
