#include "src/util/ForkSafe.h"

#include <pthread.h>
#include <cstddef>

namespace fork_safe {

namespace {

constexpr std::size_t kRanks = static_cast<std::size_t>(Rank::kCount);

Actions g_actions[kRanks]{};  // constant-initialized: filled while other sources' globals are constructed

void beforeFork() {
    for (const Actions& actions : g_actions) {
        if (actions.take != nullptr) actions.take();
    }
}

template <void (*Actions::*kAction)()>
void afterFork() {
    for (std::size_t rank = kRanks; rank-- > 0;) {
        if (g_actions[rank].*kAction != nullptr) (g_actions[rank].*kAction)();
    }
}

}  // namespace

void add(Rank rank, const Actions& actions) {
    static const int registered = ::pthread_atfork(beforeFork, afterFork<&Actions::release>,
                                                   afterFork<&Actions::renew>);
    static_cast<void>(registered);  // fails only without memory; a child is then as badly off as without this file
    g_actions[static_cast<std::size_t>(rank)] = actions;
}

}  // namespace fork_safe
