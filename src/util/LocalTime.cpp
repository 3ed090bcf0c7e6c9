#include "src/util/LocalTime.h"

#include <mutex>

#include "src/util/ForkSafe.h"

namespace local_time {

namespace {

// Guards the static result of localtime(). Also makes a fork wait while a thread holds the C library's own lock of the
// time zone, which the child would find locked for ever.
std::mutex s_mutex;
const fork_safe::Guard<s_mutex> s_forkGuard(fork_safe::Rank::kLocalTime);

}  // namespace

bool breakDown(std::time_t when, std::tm& out) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    ::tzset();  // localtime_r() alone keeps the zone that it found first
    return ::localtime_r(&when, &out) != nullptr;
}

bool plainNow(std::tm& out) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    const std::time_t now = ::time(nullptr);
    const std::tm* const local = ::localtime(&now);
    if (local != nullptr) out = *local;
    return local != nullptr;
}

}  // namespace local_time
