#include "tests/threads/LockRecorder.h"

#include "tests/support/Sanitizers.h"

#if !defined(__SANITIZE_THREAD__) && !defined(VEXO_WITH_THREAD_SANITIZER)

// The library announces its locks to fork_safe::add, so the real one is built here under another name, behind one that
// also writes down which mutex has which rank.
#define add addToFork
#include "src/util/ForkSafe.cpp"
#undef add

#include <enyx-hw-c/enyx_hw.h>
#include <pthread.h>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "tests/support/NextFunction.h"

namespace {

// As docs/architecture.md lists them.
constexpr std::array<const char*, 10> kOrder = {
    "g_brixLogInit_mutex", "order_mutex", "subscribe_mutex", "s_usersMutex", "s_initMutex",
    "s_coreMutex",         "core lock",   "standard output", "g_log_mutex",  "s_mutex"};
constexpr int kLocks = static_cast<int>(kOrder.size());
constexpr int kCore = 6;
constexpr int kStandardOutput = 7;

constexpr int PlaceOf(fork_safe::Rank rank) {
    const int place = static_cast<int>(rank);
    return rank >= fork_safe::Rank::kLog ? place + 2 : place;
}
static_assert(PlaceOf(fork_safe::Rank::kCores) == kCore - 1 && PlaceOf(fork_safe::Rank::kLocalTime) == kLocks - 1);

// Constant-initialized: locks are taken before main.
std::array<std::atomic<const void*>, kLocks> g_mutexes{};
std::array<std::array<std::atomic<bool>, kLocks>, kLocks> g_inside{};  // [outer][inner]
std::atomic<bool> g_records{false};

thread_local int t_naming = -1;
thread_local std::array<int, kLocks> t_held{};  // how often, as some of them are recursive

}  // namespace

namespace fork_safe {

void add(Rank rank, const Actions& actions) {
    t_naming = PlaceOf(rank);
    actions.take();
    t_naming = -1;
    actions.release();
    addToFork(rank, actions);
}

}  // namespace fork_safe

namespace {

int PlaceOf(const void* mutex) {
    for (int place = 0; place < kLocks; ++place)
        if (g_mutexes[place].load(std::memory_order_relaxed) == mutex) return place;
    return -1;
}

void WillTake(int place) {
    if (place < 0 || !g_records.load(std::memory_order_relaxed) || t_held[place] > 0) return;
    for (int outer = 0; outer < kLocks; ++outer)
        if (t_held[outer] > 0) g_inside[outer][place] = true;
}

void HasTaken(int place) {
    if (place >= 0 && g_records.load(std::memory_order_relaxed)) ++t_held[place];
}

void HasReleased(int place) {
    if (place >= 0 && t_held[place] > 0) --t_held[place];
}

std::atomic<int (*)(pthread_mutex_t*)> g_realLock{nullptr};
std::atomic<int (*)(pthread_mutex_t*)> g_realTry{nullptr};
std::atomic<int (*)(pthread_mutex_t*)> g_realUnlock{nullptr};
std::atomic<void (*)(std::FILE*)> g_realFlock{nullptr};
std::atomic<int (*)(std::FILE*)> g_realFtrylock{nullptr};
std::atomic<void (*)(std::FILE*)> g_realFunlock{nullptr};
std::atomic<int (*)(enyx_hw_core*)> g_realCoreLock{nullptr};
std::atomic<int (*)(enyx_hw_core*)> g_realCoreUnlock{nullptr};

using test_support::NextFunction;

int PlaceOfStream(const std::FILE* stream) { return stream == stdout ? kStandardOutput : -1; }

}  // namespace

extern "C" {

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    if (t_naming >= 0) g_mutexes[t_naming] = mutex;
    const int place = PlaceOf(mutex);
    WillTake(place);
    const int result = NextFunction(g_realLock, "pthread_mutex_lock")(mutex);
    if (result == 0) HasTaken(place);
    return result;
}

// Waits for nobody, so it may come in any order; what follows may not.
int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
    const int result = NextFunction(g_realTry, "pthread_mutex_trylock")(mutex);
    if (result == 0) HasTaken(PlaceOf(mutex));
    return result;
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    HasReleased(PlaceOf(mutex));
    return NextFunction(g_realUnlock, "pthread_mutex_unlock")(mutex);
}

void flockfile(std::FILE* stream) noexcept {
    WillTake(PlaceOfStream(stream));
    NextFunction(g_realFlock, "flockfile")(stream);
    HasTaken(PlaceOfStream(stream));
}

int ftrylockfile(std::FILE* stream) noexcept {
    const int result = NextFunction(g_realFtrylock, "ftrylockfile")(stream);
    if (result == 0) HasTaken(PlaceOfStream(stream));
    return result;
}

void funlockfile(std::FILE* stream) noexcept {
    HasReleased(PlaceOfStream(stream));
    NextFunction(g_realFunlock, "funlockfile")(stream);
}

int enyx_hw_core_lock(enyx_hw_core* core) {
    WillTake(kCore);
    const int result = NextFunction(g_realCoreLock, "enyx_hw_core_lock")(core);
    if (result == 0) HasTaken(kCore);
    return result;
}

int enyx_hw_core_unlock(enyx_hw_core* core) {
    HasReleased(kCore);
    return NextFunction(g_realCoreUnlock, "enyx_hw_core_unlock")(core);
}

}  // extern "C"

namespace lock_recorder {

bool Works() { return true; }

void Start() {
    t_held = {};  // a child of fork() never releases what its parent took for the fork
    g_records = true;
}

std::vector<std::string> Inversions() {
    std::vector<std::string> found;
    for (int outer = 0; outer < kLocks; ++outer) {
        for (int inner = 0; inner < outer; ++inner) {
            if (g_inside[outer][inner]) found.push_back(std::string(kOrder[outer]) + " before " + kOrder[inner]);
        }
    }
    return found;
}

bool WasTakenInside(const std::string& outer, const std::string& inner) {
    for (int o = 0; o < kLocks; ++o)
        for (int i = 0; i < kLocks; ++i)
            if (kOrder[o] == outer && kOrder[i] == inner) return g_inside[o][i];
    std::fprintf(stderr, "there is no lock %s or %s\n", outer.c_str(), inner.c_str());
    std::abort();
}

}  // namespace lock_recorder

#else

namespace lock_recorder {

bool Works() { return false; }
void Start() {}
std::vector<std::string> Inversions() { return {}; }
bool WasTakenInside(const std::string&, const std::string&) { return false; }

}  // namespace lock_recorder

#endif
