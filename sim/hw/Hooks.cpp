#include "sim/hw/Hooks.h"

#include <algorithm>
#include <mutex>
#include <vector>

#include "sim/hw/Cards.h"

namespace vexo_sim {
namespace {

template <typename Function>
struct ResultOf;
template <typename Result, typename... Arguments>
struct ResultOf<Result(Arguments...)> {
    using Type = Result;
};

template <typename Function>
constexpr hw_calls::CallKind declaredKind() {
    using Result = typename ResultOf<Function>::Type;
    if (std::is_void_v<Result>) return hw_calls::CallKind::kVoid;
    return std::is_pointer_v<Result> ? hw_calls::CallKind::kPointer : hw_calls::CallKind::kStatus;
}

// The list of calls and the header must agree on the kind of each result.
#define ENYX_HW_CALL(name, function, kind) \
    static_assert(declaredKind<decltype(function)>() == hw_calls::CallKind::k##kind, #function);
ENYX_HW_CALLS(ENYX_HW_CALL)
#undef ENYX_HW_CALL

// A failure that still counts: nth and times go down.
struct Script {
    CallFailure failure;
    const void* origin;
};

// Never destroyed: a program's last destructors may still make calls.
struct Watch {
    std::mutex scriptMutex;
    std::vector<Script> scripts;
    std::mutex traceMutex;
    enyx_sim_trace trace = nullptr;
    void* context = nullptr;
};

Watch& watch() {
    static Watch& instance = *new Watch;
    return instance;
}

// True when the script makes this call fail.
bool strikes(CallFailure& failure) {
    if (failure.nth == 1) return true;
    --failure.nth;
    return false;
}

}  // namespace

namespace hooks {

std::atomic<unsigned> g_active{kFirstCall};

void setActive(unsigned bit, bool on) {
    if (on)
        g_active.fetch_or(bit);
    else
        g_active.fetch_and(~bit);
}

void beforeFirstCall() {
    if ((g_active.load(std::memory_order_relaxed) & kFirstCall) == 0) return;
    Cards::instance().decideOnce();
    setActive(kFirstCall, false);
}

int addScript(const CallFailure& script, const void* origin) {
    if (!isValid(script)) {
        errno = EINVAL;
        return -1;
    }
    Watch& w = watch();
    const std::lock_guard<std::mutex> lock(w.scriptMutex);
    w.scripts.push_back({script, origin});
    setActive(kScripts, true);
    return 0;
}

void removeScripts(const void* origin) {
    Watch& w = watch();
    const std::lock_guard<std::mutex> lock(w.scriptMutex);
    w.scripts.erase(std::remove_if(w.scripts.begin(), w.scripts.end(),
                                   [origin](const Script& script) { return script.origin == origin; }),
                    w.scripts.end());
    if (w.scripts.empty()) setActive(kScripts, false);
}

void clearScripts() {
    Watch& w = watch();
    const std::lock_guard<std::mutex> lock(w.scriptMutex);
    w.scripts.clear();
    setActive(kScripts, false);
}

std::optional<CallFailure> next(Call call) {
    Watch& w = watch();
    const std::lock_guard<std::mutex> lock(w.scriptMutex);
    std::optional<CallFailure> failure;
    for (auto script = w.scripts.begin(); script != w.scripts.end();) {
        CallFailure& rest = script->failure;
        const bool fails = rest.call == call && strikes(rest);
        if (fails && !failure) failure = rest;
        const bool spent = fails && rest.times > 0 && --rest.times == 0;
        script = spent ? w.scripts.erase(script) : script + 1;
    }
    if (w.scripts.empty()) setActive(kScripts, false);
    return failure;
}

void setTrace(enyx_sim_trace trace, void* context) {
    Watch& w = watch();
    const std::lock_guard<std::mutex> lock(w.traceMutex);
    w.trace = trace;
    w.context = context;
    setActive(kTrace, trace != nullptr);
}

void emit(const TraceLine& line) {
    Watch& w = watch();
    const std::lock_guard<std::mutex> lock(w.traceMutex);
    if (w.trace != nullptr) w.trace(line.line().c_str(), w.context);
}

}  // namespace hooks
}  // namespace vexo_sim
