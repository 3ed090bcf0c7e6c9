#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <optional>

#include "shm/CardFile.h"

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
    bool ownsHere(CardPart stream) const;
    /// Who has the stream, this process included.
    std::optional<Holder> holderOf(CardPart stream) const;

    /// False in a child of the process that attached: what its parent owns is not the child's to give up.
    bool isAttachedHere() const;

private:
    HostedCard(CardFile file, CardBlock& block);

    CardFile m_file;
    CardBlock* m_block;
    pid_t m_process;
    // The kernel's locks do not tell handles of one process apart.
    std::array<std::atomic<bool>, 2 * kStreams> m_owned{};
};

}  // namespace vexo_sim
