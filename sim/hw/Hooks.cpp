#include "sim/hw/Hooks.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

#include "sim/hw/CallTable.h"
#include "sim/hw/Cards.h"

namespace vexo_sim {
namespace {

static_assert(sizeof kCalls / sizeof kCalls[0] == static_cast<std::size_t>(Call::kCount));

struct Script {
    std::size_t call;
    std::uint32_t wait;   // calls still to be let through
    std::uint32_t times;  // calls still to fail; 0 = all
    hooks::Outcome outcome;
    const void* origin;
};

// Plain storage that is never destroyed, because calls may come from a program's last destructors.
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

bool isScriptable(const CallEntry& entry, const enyx_sim_failure& failure) {
    if (failure.call == nullptr || std::strcmp(entry.name, failure.call) != 0) return false;
    return canFail(entry, failure.has_result != 0);
}

// True when the script makes this call fail.
bool step(Script& script) {
    if (script.wait > 0) {
        --script.wait;
        return false;
    }
    return true;
}

}  // namespace

const char* nameOf(Call call) { return kCalls[static_cast<std::size_t>(call)].name; }

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

int addScript(const enyx_sim_failure& failure, const void* origin) {
    const auto* entry = std::find_if(std::begin(kCalls), std::end(kCalls),
                                     [&](const CallEntry& e) { return isScriptable(e, failure); });
    if (entry == std::end(kCalls) || failure.nth == 0) {
        errno = EINVAL;
        return -1;
    }
    Outcome outcome{failure.error, std::nullopt};
    if (failure.has_result != 0) outcome.result = failure.result;
    Watch& w = watch();
    const std::lock_guard<std::mutex> lock(w.scriptMutex);
    w.scripts.push_back({static_cast<std::size_t>(entry - kCalls), failure.nth - 1, failure.times, outcome, origin});
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

std::optional<Outcome> next(Call call) {
    Watch& w = watch();
    const std::lock_guard<std::mutex> lock(w.scriptMutex);
    std::optional<Outcome> outcome;
    for (auto script = w.scripts.begin(); script != w.scripts.end();) {
        const bool fails = script->call == static_cast<std::size_t>(call) && step(*script);
        if (fails && !outcome) outcome = script->outcome;
        const bool spent = fails && script->times > 0 && --script->times == 0;
        script = spent ? w.scripts.erase(script) : script + 1;
    }
    if (w.scripts.empty()) setActive(kScripts, false);
    return outcome;
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
