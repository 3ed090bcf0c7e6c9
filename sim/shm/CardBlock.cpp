#include "sim/shm/CardBlock.h"

#include <sched.h>

#include <cstring>
#include <ctime>

namespace vexo_sim {
namespace {

constexpr std::uint32_t kLayout = 2;

void pauseBriefly(unsigned round) {
    constexpr unsigned kYields = 16;
    const timespec shortly{0, 20'000};
    if (round < kYields)
        sched_yield();
    else
        nanosleep(&shortly, nullptr);
}

}  // namespace

void CardBlock::init() {
    std::memcpy(magic, kCardMagic, sizeof magic);
    layout = kLayout;
    bytes = sizeof(CardBlock);
    mutex.init();
    rootLock.init();
    registerLock.init();
}

bool CardBlock::isCompatible() const {
    return std::memcmp(magic, kCardMagic, sizeof magic) == 0 && layout == kLayout && bytes == sizeof(CardBlock);
}

// A host that feeds as fast as it can hands the mutex to nobody by itself: it stands back when somebody knocks.
void BlockLock::acquire() {
    RobustMutex::Result result = m_block.mutex.tryLock();
    for (unsigned round = 0; result == RobustMutex::kBusy; ++round) {
        m_block.knocks.fetch_add(1, std::memory_order_relaxed);
        pauseBriefly(round);
        result = m_block.mutex.tryLock();
    }
    settle(result);
}

void BlockLock::settle(RobustMutex::Result result) {
    m_owned = result == RobustMutex::kLocked || result == RobustMutex::kHolderDied;
    if (result == RobustMutex::kHolderDied) Card(m_block.state).repair();
}

}  // namespace vexo_sim
