#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <optional>

#include "sim/shm/CardFile.h"

namespace vexo_sim {

/// A process's way to a card that another process hosts.
class HostedCard {
public:
    /// The card of a living host at @p bus; null when there is none that this process may use.
    static std::unique_ptr<HostedCard> attach(std::uint32_t bus);

    CardBlock& block() { return *m_block; }
    const CardFile& file() const { return m_file; }
    bool isHostAlive() const { return m_file.holderOf({CardPart::kHost}).has_value(); }
    /// Whether this is the file that attach() would find by that name now.
    bool isCurrent() const;

    /// Makes the process the owner of a stream. False when it is taken, by this process or another one.
    bool claim(CardPart stream);
    void release(CardPart stream);
    /// False also in a child of the process that owns it.
    bool ownsHere(CardPart stream) const;
    /// Who has the stream, this process included.
    std::optional<Holder> holderOf(CardPart stream) const;

    Holder host() const;

private:
    HostedCard(CardFile file, CardBlock& block);

    CardFile m_file;
    CardBlock* m_block;
    // Process that owns each stream through this object, 0 for none. The kernel's locks do not tell handles of one
    // process apart, and what a child of the process finds here is its parent's.
    std::array<std::atomic<pid_t>, 2 * kStreams> m_owner{};
};

}  // namespace vexo_sim
