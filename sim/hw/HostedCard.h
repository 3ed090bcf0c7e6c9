#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <memory>

#include "sim/hw/CardBackend.h"
#include "sim/shm/SharedCard.h"

namespace vexo_sim {

/// A card that another process hosts.
class HostedCard final : public CardBackend {
public:
    /// The card of a living host of @p user at @p bus. Null when there is none.
    static std::unique_ptr<HostedCard> attach(std::uint32_t bus, uid_t user);

    /// What the host says about the card. Others may change it at any time: copy a value before you check it.
    const HostInfo& info() const { return m_card->block().host; }

    bool responds() const override { return m_card->file().holderOf({CardPart::kHost}).has_value(); }
    bool isCurrent() const override;
    std::optional<Holder> host() const override;
    std::string hostedScenario() const override;
    void tellOf(CardLock::Result result) override { m_card->tellOf(result); }
    void tellCoreHolder(pid_t holder, bool isStopped) override { m_card->tellCoreHolder(holder, isStopped); }
    void tellLost() override { m_card->tellLost(); }
    void bringUpToDate() override {}
    void forgetTime() override {}
    PacketView advanceAndPeek(RingState&) override { return {}; }
    int take(CardPart stream) override;
    void giveBack(CardPart stream) override;
    std::optional<Holder> holderOf(CardPart stream) const override;

private:
    explicit HostedCard(std::unique_ptr<SharedCard> card)
        : CardBackend(card->block().state, card->locks()), m_card(std::move(card)) {}

    bool claim(CardPart stream);
    void release(CardPart stream);
    template <typename Work>
    bool onState(Work work);
    bool ownsHere(CardPart stream) const;

    std::unique_ptr<SharedCard> m_card;
    // Whether this process owns each stream through this object: forkGeneration() + 1, 0 for no. The kernel's locks do
    // not distinguish handles of one process. After a fork() the child finds its parent's number here.
    std::array<std::atomic<std::uint32_t>, 2 * kStreams> m_owner{};
};

}  // namespace vexo_sim
