#include "sim/shm/OwnerBook.h"

#include "sim/shm/ThreadMutex.h"

namespace vexo_sim {
namespace {

constexpr std::uint32_t kSlotBits = 8;
constexpr std::uint32_t kHoldingShift = 56;
constexpr std::uint64_t kTicketMask = (std::uint64_t{1} << (kHoldingShift - kSlotBits)) - 1;
constexpr std::uint64_t kSlotMask = (1U << kSlotBits) - 1;
static_assert(kMaxUsers <= kSlotMask, "a slot fits into its bits");

std::int32_t slotOf(std::uint64_t word) { return static_cast<std::int32_t>(word & kSlotMask) - 1; }

Holding holdingOf(std::uint64_t word) { return static_cast<Holding>(word >> kHoldingShift); }

}  // namespace

// A child of fork() does not inherit the kernel's lock: it needs a slot of its own.
bool OwnerBook::hasSlot() {
    if (m_slot.load(std::memory_order_acquire) >= 0 && m_generation == forkGeneration()) return true;
    const std::lock_guard<std::mutex> lock(m_claimMutex);
    if (m_slot >= 0 && m_generation == forkGeneration()) return true;
    m_slot = -1;
    m_generation = forkGeneration();
    for (std::uint32_t slot = 0; slot < kMaxUsers; ++slot) {
        if (!m_file.claim({CardPart::kUser, slot})) continue;
        m_slot.store(static_cast<std::int32_t>(slot), std::memory_order_release);
        return true;
    }
    return false;
}

std::uint64_t OwnerBook::newWord(Holding holding) {
    if (!hasSlot()) return 0;
    const std::uint64_t ticket = m_tickets.fetch_add(1, std::memory_order_relaxed) & kTicketMask;
    return static_cast<std::uint64_t>(holding) << kHoldingShift | ticket << kSlotBits |
           static_cast<std::uint64_t>(m_slot.load(std::memory_order_relaxed) + 1);
}

bool OwnerBook::isProtected(std::uint64_t word) {
    return holdingOf(word) == Holding::kProtected || holdingOf(word) == Holding::kTakenProtected;
}

bool OwnerBook::isTaken(std::uint64_t word) {
    return holdingOf(word) == Holding::kTaken || holdingOf(word) == Holding::kTakenProtected;
}

bool OwnerBook::isOwn(std::uint64_t word) { return hasSlot() && slotOf(word) == m_slot; }

bool OwnerBook::isDead(std::uint64_t word) const {
    const std::int32_t slot = slotOf(word);
    return slot < 0 || slot >= static_cast<std::int32_t>(kMaxUsers) || !holderOf(word);
}

std::optional<pid_t> OwnerBook::holderOf(std::uint64_t word) const {
    const std::int32_t slot = slotOf(word);
    if (slot < 0 || slot >= static_cast<std::int32_t>(kMaxUsers)) return std::nullopt;
    return m_file.holderOf({CardPart::kUser, static_cast<std::uint32_t>(slot)});
}

}  // namespace vexo_sim
