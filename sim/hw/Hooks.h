#pragma once

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <type_traits>

#include "sim/hw/Interface.h"
#include "sim/hw/TraceLine.h"

namespace vexo_sim {

/// Every call of the C interface, in the order of its header.
enum class Call : std::uint32_t {
    kFilterCreate,
    kFilterSetIndex,
    kFilterSetName,
    kFilterDestroy,
    kEnumerateAccelerators,
    kAcceleratorGet,
    kFreeAcceleratorDescriptors,
    kEnumerateMmios,
    kMmioCreate,
    kMmioDestroy,
    kFreeMmioDescriptors,
    kEnumerateCores,
    kCoreTreeGetRoot,
    kCoreReset,
    kCoreEnumerate,
    kCoreLock,
    kCoreUnlock,
    kRead,
    kWrite,
    kEnumerateA2cStreams,
    kA2cStreamCreate,
    kFreeA2cStreamDescriptors,
    kA2cStreamGetMtu,
    kA2cStreamPollOnce,
    kA2cStreamGetBackpressure,
    kA2cStreamGetPacketCount,
    kA2cStreamGetFifoErrors,
    kA2cStreamGetErrors,
    kA2cStreamDestroy,
    kEnumerateC2aStreams,
    kC2aStreamCreate,
    kFreeC2aStreamDescriptors,
    kC2aStreamGetMtu,
    kC2aStreamSend,
    kC2aStreamDestroy,
    kCount
};

const char* nameOf(Call call);

namespace hooks {

/// What a script makes of a call.
struct Outcome {
    int error;
    std::optional<std::int64_t> result;
};

inline constexpr unsigned kScripts = 1;
inline constexpr unsigned kTrace = 2;
inline constexpr unsigned kFirstCall = 4;  // no call was made yet: what the card is may bring scripts with it
extern std::atomic<unsigned> g_active;     // which of these is so: calls look no further while none is

/// Decides what cards the process has, if that is still open: scripts come with them, and count this call too.
void beforeFirstCall();
void setActive(unsigned bit, bool on);

/// @param origin  whoever may take the script back by removeScripts(); null for a script of the process's own
int addScript(const enyx_sim_failure& failure, const void* origin = nullptr);
void removeScripts(const void* origin);
void clearScripts();
/// The outcome if a script applies to this call; counts the call either way.
std::optional<Outcome> next(Call call);

void setTrace(enyx_sim_trace trace, void* context);
void emit(const TraceLine& line);

}  // namespace hooks

template <typename Result>
Result failed(Call call, const hooks::Outcome& outcome) {
    errno = outcome.error;
    if constexpr (std::is_pointer_v<Result>) {
        return nullptr;
    } else {
        if (outcome.result) return static_cast<Result>(*outcome.result);
        return call == Call::kC2aStreamSend ? static_cast<Result>(outcome.error) : Result{-1};
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

/// The rare way through a call: scripted or watched.
template <typename Work, typename Describe>
[[gnu::noinline, gnu::cold]] auto performWatched(Call call, Work& work, Describe& describe) -> decltype(work()) {
    using Result = decltype(work());
    hooks::beforeFirstCall();
    const std::optional<hooks::Outcome> outcome = hooks::next(call);
    const Result result = outcome ? failed<Result>(call, *outcome) : work();
    if ((hooks::g_active.load(std::memory_order_relaxed) & hooks::kTrace) != 0) {
        TraceLine line(nameOf(call));
        describe(line);
        traceResult(line, result);
    }
    return result;
}

/// Runs one call of the C interface: work() does it, describe(TraceLine&) names its arguments.
template <typename Work, typename Describe>
auto perform(Call call, Work work, Describe describe) -> decltype(work()) {
    if (hooks::g_active.load(std::memory_order_relaxed) == 0) return work();
    return performWatched(call, work, describe);
}

/// The same for an enumeration, work(room): a script may change how many objects it reports, in which case those that
/// there are, up to that number, are described all the same.
template <typename Work, typename Describe>
ssize_t performCount(Call call, std::size_t room, Work work, Describe describe) {
    if (hooks::g_active.load(std::memory_order_relaxed) == 0) return work(room);
    hooks::beforeFirstCall();
    const auto scripted = [&]() -> ssize_t {
        const std::optional<hooks::Outcome> outcome = hooks::next(call);
        if (!outcome) return work(room);
        if (outcome->result.value_or(0) > 0 && work(std::min(room, static_cast<std::size_t>(*outcome->result))) < 0)
            return -1;
        return failed<ssize_t>(call, *outcome);
    };
    const ssize_t result = scripted();
    if ((hooks::g_active.load(std::memory_order_relaxed) & hooks::kTrace) != 0) {
        TraceLine line(nameOf(call));
        describe(line);
        traceResult(line.number("room", static_cast<std::int64_t>(room)), result);
    }
    return result;
}

/// The same for a call without a result, which cannot be scripted.
template <typename Work, typename Describe>
void performVoid(Call call, Work work, Describe describe) {
    if ((hooks::g_active.load(std::memory_order_relaxed) & hooks::kTrace) != 0) {
        TraceLine line(nameOf(call));
        describe(line);
        hooks::emit(line);
    }
    work();
}

}  // namespace vexo_sim
