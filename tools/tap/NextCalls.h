#pragma once

// Everything else of the libraries that are loaded before the card's is hidden.
#pragma GCC visibility push(default)
#include <enyx-hw-c/enyx_hw.h>
#pragma GCC visibility pop

#include "interface/CallList.h"
#include "tools/tap/NextCall.h"

namespace tap {

/// Each call of the library behind this one, under the name of its function.
struct NextCalls {
    constexpr NextCalls() = default;  // a call may come before any constructor ran
#define ENYX_HW_CALL(name, function, kind) NextCall<decltype(::function)> function{#function};
    ENYX_HW_CALLS(ENYX_HW_CALL)
#undef ENYX_HW_CALL
};
[[gnu::visibility("hidden")]] extern NextCalls g_next;

/// Each library has its own: the program has looked for cards.
[[gnu::visibility("hidden")]] void cardsWereLookedUp();

}  // namespace tap
