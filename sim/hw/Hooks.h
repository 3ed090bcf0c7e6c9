#pragma once

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <type_traits>

#include "interface/CallList.h"
#include "sim/card/CallFailure.h"
#include "sim/hw/Exported.h"
#include "sim/hw/TraceLine.h"

namespace vexo_sim {

using hw_calls::Call;

namespace hooks {

inline constexpr unsigned kScripts = 1;
inline constexpr unsigned kTrace = 2;
inline constexpr unsigned kFirstCall = 4;  // until the first call: the cards may add scripts
extern std::atomic<unsigned> g_active;     // a sum of these; 0: calls take the fast path

/// Decides which cards the process has, unless that has been done. Their scripts count this call too.
void beforeFirstCall();
void setActive(unsigned bit, bool on);

/// Adds a script of a scenario or a test that makes a call fail.
/// @param origin  the key for removeScripts(); null for a script of the process itself
/// @return 0; -1 with errno EINVAL when the call cannot fail like that
int addScript(const CallFailure& script, const void* origin = nullptr);
void removeScripts(const void* origin);
void clearScripts();
/// Counts a call. Returns the failure that applies to it, if there is one.
std::optional<CallFailure> next(Call call);

void setTrace(enyx_sim_trace trace, void* context);
void emit(const TraceLine& line);

}  // namespace hooks

template <typename Result>
Result failed(const CallFailure& failure) {
    errno = failure.error;
    if constexpr (std::is_pointer_v<Result>) {
        return nullptr;
    } else {
        if (failure.hasResult != 0) return static_cast<Result>(failure.result);
        return failure.call == Call::kC2aStreamSend ? static_cast<Result>(failure.error) : Result{-1};
    }
}

template <typename Result>
void traceResult(TraceLine& line, Result result) {
    const int error = errno;
    bool failure;
    if constexpr (std::is_pointer_v<Result>) {
        failure = result == nullptr;
        line.text("result", failure ? "null" : "ok");
    } else {
        failure = result < 0;
        line.number("result", result);
    }
    if (failure) line.number("errno", error);
    hooks::emit(line);
    errno = error;
}

/// Slow path of perform(): scripts or a trace are active.
template <typename Work, typename Describe>
[[gnu::noinline, gnu::cold]] auto performSlow(Call call, Work& work, Describe& describe) -> decltype(work()) {
    using Result = decltype(work());
    hooks::beforeFirstCall();
    const std::optional<CallFailure> failure = hooks::next(call);
    const Result result = failure ? failed<Result>(*failure) : work();
    if ((hooks::g_active.load(std::memory_order_relaxed) & hooks::kTrace) != 0) {
        TraceLine line(hw_calls::nameOf(call));
        describe(line);
        traceResult(line, result);
    }
    return result;
}

/// Runs one call of the C interface. work() does it, describe(TraceLine&) names its arguments.
template <typename Work, typename Describe>
auto perform(Call call, Work work, Describe describe) -> decltype(work()) {
    if (hooks::g_active.load(std::memory_order_relaxed) == 0) return work();
    return performSlow(call, work, describe);
}

/// The same for an enumeration, work(room). A script may change the number that it reports. Then existing objects are
/// described up to that number.
template <typename Work, typename Describe>
ssize_t performCount(Call call, std::size_t room, Work work, Describe describe) {
    if (hooks::g_active.load(std::memory_order_relaxed) == 0) return work(room);
    hooks::beforeFirstCall();
    const auto scripted = [&]() -> ssize_t {
        const std::optional<CallFailure> failure = hooks::next(call);
        if (!failure) return work(room);
        const bool describes = failure->hasResult != 0 && failure->result > 0;
        if (describes && work(std::min(room, static_cast<std::size_t>(failure->result))) < 0) return -1;
        return failed<ssize_t>(*failure);
    };
    const ssize_t result = scripted();
    if ((hooks::g_active.load(std::memory_order_relaxed) & hooks::kTrace) != 0) {
        TraceLine line(hw_calls::nameOf(call));
        describe(line);
        traceResult(line.number("room", static_cast<std::int64_t>(room)), result);
    }
    return result;
}

/// The same for a call without a result: it cannot fail.
template <typename Work, typename Describe>
void performVoid(Call call, Work work, Describe describe) {
    if ((hooks::g_active.load(std::memory_order_relaxed) & hooks::kTrace) != 0) {
        TraceLine line(hw_calls::nameOf(call));
        describe(line);
        hooks::emit(line);
    }
    work();
}

}  // namespace vexo_sim
