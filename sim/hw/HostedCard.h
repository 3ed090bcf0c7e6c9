#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <memory>

#include "sim/hw/CardBackend.h"
#include "sim/shm/AttachedCard.h"

namespace vexo_sim {

/// A card that another process hosts.
class HostedCard final : public CardBackend {
public:
    /// The card of a living host at @p bus. Null when there is none that this process may use.
    static std::unique_ptr<HostedCard> attach(std::uint32_t bus);

    bool responds() const override { return m_file.holderOf({CardPart::kHost}).has_value(); }
    bool isCurrent() const override;
    std::optional<Holder> host() const override;
    void bringUpToDate() override {}
    void forgetTime() override {}
    PacketView advanceAndPeek(RingState&) override { return {}; }
    bool take(CardPart stream) override;
    void giveBack(CardPart stream) override;
    std::optional<Holder> holderOf(CardPart stream) const override;

private:
    explicit HostedCard(AttachedCard card) : CardBackend(*card.block), m_file(std::move(card.file)) {}

    bool claim(CardPart stream);
    void release(CardPart stream);
    bool ownsHere(CardPart stream) const;

    CardFile m_file;
    // The process that owns each stream through this object, 0 for none. The kernel's locks do not tell handles of one
    // process apart, and after a fork() the child finds its parent's number here.
    std::array<std::atomic<pid_t>, 2 * kStreams> m_owner{};
};

}  // namespace vexo_sim
