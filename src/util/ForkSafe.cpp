#include "src/util/ForkSafe.h"

#include <pthread.h>
#include <atomic>
#include <cstddef>

namespace fork_safe {

namespace {

constexpr std::size_t kRanks = static_cast<std::size_t>(Rank::kCount);

// Constant-initialized: filled while other sources' globals are constructed.
std::atomic<const Actions*> g_actions[kRanks]{};
// The locks that the current fork has taken. They also ensure that only one thread forks at a time.
const Actions* g_taken[kRanks]{};

void beforeFork() {
    const Actions* taken[kRanks]{};
    for (std::size_t rank = 0; rank < kRanks; ++rank) {
        taken[rank] = g_actions[rank];
        if (taken[rank] != nullptr) taken[rank]->take();
    }
    for (std::size_t rank = 0; rank < kRanks; ++rank) g_taken[rank] = taken[rank];
}

template <void (*Actions::*kAction)()>
void afterFork() {
    const Actions* taken[kRanks];
    for (std::size_t rank = 0; rank < kRanks; ++rank) taken[rank] = g_taken[rank];
    for (std::size_t rank = kRanks; rank-- > 0;) {
        if (taken[rank] != nullptr) (taken[rank]->*kAction)();
    }
}

}  // namespace

void add(Rank rank, const Actions& actions) {
    g_actions[static_cast<std::size_t>(rank)] = &actions;
    static const int registered = ::pthread_atfork(beforeFork, afterFork<&Actions::release>,
                                                   afterFork<&Actions::renew>);
    static_cast<void>(registered);  // fails only when memory is short; then children get the locks as they were
}

}  // namespace fork_safe
