#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "sim/shm/CardFile.h"
#include "sim/shm/CardLock.h"

namespace vexo_sim {

/// A card in shared memory, as one process uses it: its file, its memory and its locks.
class SharedCard {
public:
    /// @param speaker  the beginning of each line that this process writes to standard error
    SharedCard(CardFile cardFile, CardBlock& cardBlock, std::string speaker)
        : m_file(std::move(cardFile)),
          m_block(cardBlock),
          m_book(m_file, m_block.tickets),
          m_home(m_file, m_block),
          m_locks(m_book, m_block, m_home),
          m_speaker(std::move(speaker)) {}

    CardFile& file() { return m_file; }
    const CardFile& file() const { return m_file; }
    CardBlock& block() { return m_block; }
    CardLocks& locks() { return m_locks; }

    /// The process that hosts the card.
    Holder host() const;
    /// Writes a line to standard error if a StateLock timed out or took the lock away from a process, once for each
    /// holder.
    void tellOf(CardLock::Result result);
    /// The same for a core lock, which a process may hold for long.
    void tellCoreHolder(pid_t holder, bool isStopped) const;
    /// Writes that this process has lost a lock, because it was stopped.
    void tellLost() const;

private:
    CardFile m_file;
    CardBlock& m_block;
    OwnerBook m_book;
    StateHome m_home;
    CardLocks m_locks;
    std::string m_speaker;
};

/// The card of a living host of @p user at @p bus. Null when there is none. Does not use a card of another version, and
/// writes that to standard error.
std::unique_ptr<SharedCard> attachCard(std::uint32_t bus, uid_t user, const std::string& speaker);

/// Describes a host of another version, as a part of a sentence: "of another version (its card has layout 1, ...)".
std::string describeVersion(const BlockHeader& header);

}  // namespace vexo_sim
