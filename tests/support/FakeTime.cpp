#include "tests/support/FakeTime.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "tests/support/NextFunction.h"

namespace {

constexpr std::int64_t kNsPerSecond = 1000000000LL;

// Constant-initialised atomics: the functions below are called before main and from signal handlers.
std::atomic<bool> g_faked{false};
std::atomic<bool> g_localtimeFails{false};
std::atomic<std::int64_t> g_nowNs{0};
std::atomic<std::int64_t> g_stepNs{0};
std::atomic<bool (*)(const char*, const void*)> g_askedFirst{nullptr};

bool Fails(const char* call, const void* caller, int error) {
    const auto asked = g_askedFirst.load(std::memory_order_relaxed);
    if (asked == nullptr || !asked(call, caller)) return false;
    errno = error;
    return true;
}

struct SleepLog {
    std::mutex mutex;
    std::vector<unsigned int> taken;
    std::function<void(unsigned int)> callback;
};

SleepLog& Sleeping() {
    static SleepLog log;
    return log;
}

std::atomic<std::time_t (*)(std::time_t*)> g_realTime{nullptr};
std::atomic<std::tm* (*)(const std::time_t*)> g_realLocaltime{nullptr};
std::atomic<std::tm* (*)(const std::time_t*, std::tm*)> g_realLocaltimeR{nullptr};
std::atomic<int (*)(clockid_t, timespec*)> g_realClockGettime{nullptr};
std::atomic<unsigned int (*)(unsigned int)> g_realSleep{nullptr};

bool LagOf(clockid_t clock, std::int64_t& lagNs) {
    switch (clock) {
        case CLOCK_REALTIME:
        case CLOCK_REALTIME_COARSE: lagNs = 0; return true;
        case CLOCK_MONOTONIC: lagNs = test_support::FakeTime::kMonotonicLagNs; return true;
        default: return false;
    }
}

/// Rounds towards the past, so that an instant before 1970 has a sub-second part of 0 to 999,999,999 as well.
timespec Split(std::int64_t ns) {
    std::int64_t seconds = ns / kNsPerSecond;
    if (ns % kNsPerSecond < 0) --seconds;
    timespec split{};
    split.tv_sec = seconds;
    split.tv_nsec = ns - seconds * kNsPerSecond;
    return split;
}

unsigned int FakeSleep(unsigned int seconds) {
    std::function<void(unsigned int)> callback;
    g_nowNs.fetch_add(seconds * kNsPerSecond);
    {
        const std::lock_guard<std::mutex> lock(Sleeping().mutex);
        Sleeping().taken.push_back(seconds);
        callback = Sleeping().callback;
    }
    if (callback) callback(seconds);
    return 0;
}

}  // namespace

extern "C" {

std::time_t time(std::time_t* out) noexcept {
    if (!g_faked.load()) return test_support::NextFunction(g_realTime, "time")(out);
    const std::time_t now = Split(g_nowNs.load()).tv_sec;
    if (out != nullptr) *out = now;
    return now;
}

int clock_gettime(clockid_t clock, timespec* out) noexcept {
    if (Fails("clock_gettime", __builtin_return_address(0), EINVAL)) return -1;
    std::int64_t lagNs = 0;
    if (!g_faked.load() || !LagOf(clock, lagNs))
        return test_support::NextFunction(g_realClockGettime, "clock_gettime")(clock, out);
    *out = Split(g_nowNs.fetch_add(g_stepNs.load()) - lagNs);
    return 0;
}

std::tm* localtime(const std::time_t* when) noexcept {
    if (Fails("localtime", __builtin_return_address(0), EOVERFLOW)) return nullptr;
    if (!g_localtimeFails.load()) return test_support::NextFunction(g_realLocaltime, "localtime")(when);
    errno = EOVERFLOW;
    return nullptr;
}

std::tm* localtime_r(const std::time_t* when, std::tm* out) noexcept {
    if (Fails("localtime_r", __builtin_return_address(0), EOVERFLOW)) return nullptr;
    if (!g_localtimeFails.load()) return test_support::NextFunction(g_realLocaltimeR, "localtime_r")(when, out);
    errno = EOVERFLOW;
    return nullptr;
}

unsigned int sleep(unsigned int seconds) {
    return g_faked.load() ? FakeSleep(seconds) : test_support::NextFunction(g_realSleep, "sleep")(seconds);
}

}  // extern "C"

namespace test_support {

FakeTime::FakeTime() : FakeTime(2025, 3, 3, 10, 0, 0) {}

FakeTime::FakeTime(int year, int month, int day, int hour, int minute, int second) {
    if (g_faked.load()) throw std::logic_error("only one FakeTime may live at a time");
    SetLocal(year, month, day, hour, minute, second);
    g_faked.store(true);
}

FakeTime::~FakeTime() {
    g_faked.store(false);
    g_localtimeFails.store(false);
    g_stepNs.store(0);
    const std::lock_guard<std::mutex> lock(Sleeping().mutex);
    Sleeping().taken.clear();
    Sleeping().callback = nullptr;
}

void FakeTime::SetLocal(int year, int month, int day, int hour, int minute, int second) {
    std::tm local{};
    local.tm_year = year - 1900;
    local.tm_mon = month - 1;
    local.tm_mday = day;
    local.tm_hour = hour;
    local.tm_min = minute;
    local.tm_sec = second;
    local.tm_isdst = -1;
    SetEpoch(::mktime(&local));
}

void FakeTime::SetEpoch(std::int64_t seconds, std::int64_t nanoseconds) {
    g_nowNs.store(seconds * kNsPerSecond + nanoseconds);
}

void FakeTime::AdvanceNs(std::int64_t nanoseconds) { g_nowNs.fetch_add(nanoseconds); }

void FakeTime::SetStepPerRead(std::int64_t nanoseconds) { g_stepNs.store(nanoseconds); }

std::int64_t FakeTime::NowNs() const { return g_nowNs.load(); }

std::vector<unsigned int> FakeTime::Sleeps() const {
    const std::lock_guard<std::mutex> lock(Sleeping().mutex);
    return Sleeping().taken;
}

void FakeTime::OnSleep(std::function<void(unsigned int seconds)> callback) {
    const std::lock_guard<std::mutex> lock(Sleeping().mutex);
    Sleeping().callback = std::move(callback);
}

void FakeTime::FailLocaltime(bool fail) { g_localtimeFails.store(fail); }

void FakeTime::AskFirst(bool (*fails)(const char*, const void*)) { g_askedFirst.store(fails); }

}  // namespace test_support
