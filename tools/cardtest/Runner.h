#pragma once

#include <functional>
#include <optional>
#include <string>

#include "tools/cardtest/Check.h"

namespace cardtest {

enum class Verdict { kPass, kFail, kUntestable };

struct CheckResult {
    const Check* check = nullptr;
    Verdict verdict = Verdict::kPass;
    std::string expected;  // of a failure
    std::string seen;
    std::string reason;  // why it is not testable
};

/// What is found out before the first check.
struct MetCard {
    bool simulated = false;
    std::string library;      // file that the loader took the calls from
    TestPlan plan;            // the user's, completed
    std::string heldStreams;  // numbers of those that cannot be opened; looked for only when the plan writes
};

/// Looks at the card in a process of its own. Nothing, with the reason in @p error, when there is no card.
std::optional<MetCard> meetCard(const TestPlan& plan, std::string& error);

struct CheckLimits {
    std::uint32_t seconds = 60;  // that one check may take
    bool verbose = false;        // show what the card's library writes to standard error
};

/// Runs one check in a process of its own: a card that makes it crash or hang fails only that check.
/// @param waiting  called a few times a second meanwhile
CheckResult runCheck(const Check& check, const TestPlan& plan, const CheckLimits& limits,
                     const std::function<void()>& waiting);

}  // namespace cardtest
