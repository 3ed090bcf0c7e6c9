#pragma once

#include <memory>
#include <string>

#include "sim/card/ZeroedMemory.h"
#include "sim/hw/CardBackend.h"
#include "sim/replay/CardReplay.h"
#include "sim/scenario/Scenario.h"
#include "sim/shm/HostClock.h"

namespace vexo_sim {

/// A card of this process's own, in its own memory.
class OwnCard final : public CardBackend {
public:
    /// A card that is switched off. Null when there is no memory for it.
    static std::unique_ptr<OwnCard> make();

    /// Switches the card on: switchOn(Card&, now) does it. The replay of a capture ends.
    template <typename SwitchOn>
    void powerOn(SwitchOn switchOn) {
        const StateLock lock(m_ownLocks, state());
        m_replay.reset();
        m_clock.forget();
        Card card(state());
        switchOn(card, m_clock.now());
    }
    /// Replays the scenario's capture. False, with the reason in @p problem, when that is not possible. When it
    /// succeeds, @p problem may still hold a warning about the capture.
    bool replay(const scenario::Scenario& scenario, std::string& problem);

    bool responds() const override { return true; }
    bool isCurrent() const override { return true; }
    std::optional<Holder> host() const override { return std::nullopt; }
    void bringUpToDate() override;
    void forgetTime() override;
    PacketView advanceAndPeek(RingState& ring) override;
    bool take(CardPart stream) override;
    void giveBack(CardPart stream) override;
    std::optional<Holder> holderOf(CardPart stream) const override;

private:
    using Memory = ZeroedMemory<CardState>;
    explicit OwnCard(std::unique_ptr<Memory> memory)
        : CardBackend(*memory->get(), m_ownLocks), m_memory(std::move(memory)) {}

    void advance();

    std::unique_ptr<Memory> m_memory;
    CardLocks m_ownLocks;
    HostClock m_clock;
    std::unique_ptr<CardReplay> m_replay;
};

}  // namespace vexo_sim
