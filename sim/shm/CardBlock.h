#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <type_traits>

#include "sim/card/CallFailure.h"
#include "sim/card/Card.h"
#include "sim/shm/Locks.h"

namespace vexo_sim {

/// The first bytes of every card in shared memory, of whatever version.
inline constexpr char kCardMagic[8] = {'V', 'E', 'X', 'O', 'C', 'A', 'R', 'D'};

inline constexpr std::uint32_t kMaxSharedFailures = 32;

/// What the host of a card tells those who look at it. Written once, before anybody can see it.
struct HostInfo {
    std::uint64_t startedAt;  // seconds since 1970
    std::int32_t pid;
    std::uint32_t bus;
    char scenario[256];
    char description[256];
    std::uint32_t failureCount;
    CallFailure failures[kMaxSharedFailures];
};

/// A card and all that its users share, in one piece of memory: on the heap of a process, or in memory shared by
/// several. Zero bytes and init() make a card that is switched off.
struct CardBlock {
    char magic[8];
    std::uint32_t layout;
    std::uint32_t bytes;
    HostInfo host;
    RobustMutex mutex;                  // over the state, but for the reader's side of the rings
    std::atomic<std::uint64_t> knocks;  // how often somebody found the mutex taken
    CoreLock rootLock;
    CoreLock registerLock;
    CardState state;

    void init();
    /// Whether memory made by another program has this very layout.
    bool isCompatible() const;
};
static_assert(std::is_standard_layout_v<CardBlock>, "the block is shared between programs");

/// Exclusive use of a card's state; repairs what a user left half done who died in the middle of it.
class BlockLock {
public:
    explicit BlockLock(CardBlock& block) : m_block(block) { acquire(); }
    /// Gives up at once when somebody else is at it.
    BlockLock(CardBlock& block, std::try_to_lock_t) : m_block(block) { settle(block.mutex.tryLock()); }
    ~BlockLock() {
        if (m_owned) m_block.mutex.unlock();
    }
    BlockLock(const BlockLock&) = delete;
    BlockLock& operator=(const BlockLock&) = delete;

    bool owns() const { return m_owned; }

private:
    void acquire();
    void settle(RobustMutex::Result result);

    CardBlock& m_block;
    bool m_owned = false;
};

}  // namespace vexo_sim
