#include "sim/shm/CardLock.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <utility>

namespace vexo_sim {
namespace {

thread_local std::int32_t t_threadId = 0;

// The kernel's number of the calling thread, asked once.
std::int32_t threadId() {
    static const int forgetsInChild = pthread_atfork(nullptr, nullptr, [] { t_threadId = 0; });
    if (t_threadId == 0 || forgetsInChild != 0) t_threadId = gettid();
    return t_threadId;
}

constexpr std::uint32_t kYields = 16;
constexpr std::uint32_t kShortNaps = 1000;

// @p waited  rounds with the same holder
void pauseBriefly(std::uint32_t round, std::uint32_t waited) {
    if (round < kYields) {
        sched_yield();
        return;
    }
    const timespec nap{0, waited < kShortNaps ? 20'000 : 1'000'000};
    nanosleep(&nap, nullptr);
}

}  // namespace

CardLock::Result CardLock::finish(ThreadMutex::Result here, std::uint32_t rounds, Holding holding) {
    if (here == ThreadMutex::kBusy) return kBusy;
    if (here == ThreadMutex::kFailed) return kDeadlock;
    const bool threadDied = here == ThreadMutex::kHolderDied;
    const Result result = m_word != nullptr ? enter(rounds, holding) : kLocked;
    if (!isLocked(result)) m_threads.unlock();
    return result == kLocked && threadDied ? kHolderDied : result;
}

// Waits this many rounds with the same holder. A long queue of different holders is no reason to give up. After one
// wait for a holder of the state timed out, the next wait for it is short.
CardLock::Result CardLock::enter(std::uint32_t rounds, Holding holding) {
    Result result = tryEnter(false, holding);
    std::uint64_t holder = 0;
    std::uint32_t waited = 0;
    for (std::uint32_t round = 0; result == kBusy && rounds != kOneTry; ++round) {
        m_contended->fetch_add(1, std::memory_order_relaxed);
        pauseBriefly(round, waited);
        const std::uint64_t word = m_word->load(std::memory_order_relaxed);
        waited = word == holder ? waited + 1 : 0;
        holder = word;
        result = tryEnter(round >= kYields, holding);
        const std::uint32_t patience = m_home != nullptr && word == m_stuck ? 2 * kYields : rounds;
        if (result != kBusy || waited < patience) continue;
        m_stuck = word;
        result = m_home != nullptr && !OwnerBook::isProtected(word) ? replace(word, holding) : kTimedOut;
    }
    return result;
}

CardLock::Result CardLock::tryEnter(bool looksForTheDead, Holding holding) {
    std::uint64_t word = m_word->load(std::memory_order_acquire);
    const bool died = word != 0 && (m_book->isOwn(word) || (looksForTheDead && m_book->isDead(word)));
    if (word != 0 && !died) return kBusy;
    // The process from which the dead one took the lock may still continue.
    if (m_home != nullptr && died && OwnerBook::isTaken(word)) return replace(word, holding);
    const std::uint64_t mine = m_book->newWord(holding);
    if (mine == 0) return kFull;
    // Fails when another process was faster, also when both take the lock over from the same dead holder.
    if (!m_word->compare_exchange_strong(word, mine, std::memory_order_acquire)) return kBusy;
    m_mine = mine;
    if (m_home == nullptr || m_home->isHere() || m_home->follow()) return died ? kHolderDied : kLocked;
    leave();
    return kTimedOut;
}

// Takes the lock away from the holder that wrote this word. The place for the state is reserved first: afterwards there
// is no way back to a holder that goes on.
CardLock::Result CardLock::replace(std::uint64_t word, Holding holding) {
    if (m_home != nullptr && !m_home->prepare()) return kTimedOut;
    const std::uint64_t before = word;
    const std::uint64_t mine = m_book->newWord(holding == Holding::kProtected ? Holding::kTakenProtected
                                                                              : Holding::kTaken);
    if (mine == 0) return kFull;
    if (!m_word->compare_exchange_strong(word, mine)) return kBusy;
    m_mine = mine;
    return m_home != nullptr ? moveState(before) : kTookOver;
}

// If the state cannot be moved, the holder before keeps the lock: the state must not be used at its old place.
CardLock::Result CardLock::moveState(std::uint64_t before) {
    if (m_home->move([this] { return !isLost(); })) return kTookOver;
    std::uint64_t mine = std::exchange(m_mine, 0);
    m_word->compare_exchange_strong(mine, before);
    return kTimedOut;
}

CardLock::Result CardLock::takeOver() {
    const ThreadMutex::Result here = m_threads.lock();
    if (here == ThreadMutex::kFailed) return kDeadlock;
    const Result result = replace(m_stuck, Holding::kOrdinary);
    if (!isLocked(result)) m_threads.unlock();
    return result;
}

// Only this process's own word is removed: a lock that it does not hold is never released.
bool CardLock::leave() {
    std::uint64_t mine = std::exchange(m_mine, 0);
    return m_word->compare_exchange_strong(mine, 0, std::memory_order_release);
}

std::optional<pid_t> CardLock::stuckHolder() const { return m_book->holderOf(m_stuck); }

std::optional<pid_t> CardLock::stuckHolderOnce() {
    const std::uint64_t word = m_stuck;
    return m_stuckToldOf.exchange(word) != word ? stuckHolder() : std::nullopt;
}

int CardLock::errorOf(Result result) {
    switch (result) {
        case kBusy: return EBUSY;
        case kTimedOut: return ETIMEDOUT;
        case kDeadlock: return EDEADLK;
        case kFull: return EUSERS;
        default: return 0;
    }
}

// A holder that died needs no repair: no register access is ever half done.
int CoreLock::taken(CardLock::Result result) {
    if (!CardLock::isLocked(result)) return CardLock::errorOf(result);
    m_holder = threadId();
    return 0;
}

int CoreLock::unlock() {
    if (m_holder != threadId()) return EPERM;
    m_holder = 0;
    return m_lock.unlock() ? 0 : ECANCELED;
}

bool CoreLock::isLost() const { return m_holder == threadId() && m_lock.isLost(); }

void StateLock::repair(CardState& state) { Card(state).repair(); }

}  // namespace vexo_sim
