#pragma once

#include <array>
#include <memory>
#include <string>

#include "sim/replay/Replay.h"
#include "sim/scenario/Scenario.h"

namespace vexo_sim {

/// Replays a scenario's capture through a card, in place of the card's own packets. The thread that advances the card
/// uses it.
class CardReplay {
public:
    /// Call it when the card has been switched on as the scenario says.
    /// @param problem  what is wrong with the file, one line; empty when nothing is
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
