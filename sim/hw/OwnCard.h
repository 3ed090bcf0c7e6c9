#pragma once

#include <memory>
#include <string>

#include "sim/hw/LocalCard.h"
#include "sim/replay/CardReplay.h"
#include "sim/scenario/Scenario.h"

namespace vexo_sim {

/// A card of this process's own, advanced by the calls that the process makes.
class OwnCard final : public LocalCard {
public:
    /// A card that is switched off. Null when there is no memory for it.
    static std::unique_ptr<OwnCard> make();

    /// Switches the card on: switchOn(Card&, now) does it. The replay of a capture ends.
    template <typename SwitchOn>
    void powerOn(SwitchOn switchOn) {
        const StateLock lock(locks(), state());
        m_replay.reset();
        clock().forget();
        Card card(state());
        switchOn(card, clock().now());
    }
    /// Replays the scenario's capture. False, with the reason in @p problem, when that is not possible. When it
    /// succeeds, @p problem may still hold a warning about the capture.
    bool replay(const scenario::Scenario& scenario, std::string& problem);

    void bringUpToDate() override;
    PacketView advanceAndPeek(RingState& ring) override;
    int take(CardPart stream) override;
    void giveBack(CardPart stream) override;

private:
    using LocalCard::LocalCard;

    void advance();

    std::unique_ptr<CardReplay> m_replay;
};

}  // namespace vexo_sim
