#pragma once

#include <cstdint>
#include <type_traits>

#include "interface/CallList.h"

namespace vexo_sim {

/// A call of the C interface that fails as a scenario or a test wants. Every process on the card counts its own calls.
/// Plain values: a host passes its scenario's failures on through shared memory.
struct CallFailure {
    hw_calls::Call call;
    std::uint32_t nth;        // the first call that fails; 1 = the next one
    std::uint32_t times;      // how many fail in a row; 0 = all from the nth on
    std::int32_t error;       // errno of the failed call
    std::uint32_t hasResult;  // 1: the call returns `result` instead of its usual failure
    std::int64_t result;
};
static_assert(std::is_trivially_copyable_v<CallFailure>, "lies in shared memory");

/// False when there is no such call, or when it cannot fail like that.
inline bool isValid(const CallFailure& failure) {
    return static_cast<std::size_t>(failure.call) < hw_calls::kCallCount && failure.nth > 0 && failure.hasResult <= 1 &&
           hw_calls::canFail(failure.call, failure.hasResult == 1);
}

}  // namespace vexo_sim
