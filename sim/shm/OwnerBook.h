#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>

#include "sim/shm/CardFile.h"

namespace vexo_sim {

/// How a process holds a lock.
enum class Holding : std::uint8_t {
    kOrdinary = 0,   // others may take the lock away if the process does not go on
    kProtected = 1,  // others only wait: the process is the host, or changes what never moves
    kTaken = 2,      // as kOrdinary, after the lock was taken away from another process
    kTakenProtected = 3,
};

/// The owner book of a card's locks, as one process uses it. An owner word is holding << 56 | ticket << 8 | slot + 1. A
/// process owns a slot by a kernel lock on a byte of the card's file. The kernel distinguishes two processes even if
/// they have the same number in their containers, and frees the slot however the process dies. A word is only compared,
/// and its slot looked up; it is never used as a pointer. So a hostile writer can disturb the order of the holders, and
/// nothing else.
class OwnerBook {
public:
    OwnerBook(CardFile& file, std::atomic<std::uint64_t>& tickets) : m_file(file), m_tickets(tickets) {}

    /// The word of a new holder; 0 when no slot is free. No two holders share a word.
    std::uint64_t newWord(Holding holding);
    static bool isProtected(std::uint64_t word);
    static bool isTaken(std::uint64_t word);
    /// Whether a word names this process's slot. If this process does not hold the lock, a dead process has left the
    /// word.
    bool isOwn(std::uint64_t word);
    /// Whether the process that a word names has died.
    bool isDead(std::uint64_t word) const;
    /// The living process that a word names; 0 for one in another container.
    std::optional<pid_t> holderOf(std::uint64_t word) const;

private:
    bool hasSlot();

    CardFile& m_file;
    std::atomic<std::uint64_t>& m_tickets;  // in shared memory: makes words unique
    std::mutex m_claimMutex;
    std::atomic<std::int32_t> m_slot{-1};
    std::atomic<std::uint32_t> m_generation{0};  // forkGeneration() of the process that owns the slot
};

}  // namespace vexo_sim
