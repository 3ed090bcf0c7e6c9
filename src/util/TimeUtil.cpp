#include <ctime>

#include "VexoZceUtil.h"
#include "src/util/LocalTime.h"

namespace {

struct Session {
    unsigned int first, last;  // HHMMSS, both inside
};

// Odd on purpose: the opening second itself (09:00:00, 21:00:00) is outside, and callers depend on it.
constexpr Session kSessions[] = {{90001, 149999}, {210001, 232999}};

unsigned long readNs(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return static_cast<unsigned long>(now.tv_sec) * 1000000000UL + static_cast<unsigned long>(now.tv_nsec);
}

}  // namespace

unsigned long get_time() { return readNs(CLOCK_REALTIME); }

unsigned long BrixGetTimeTamp() { return get_time(); }

unsigned long BrixDiffTimeTamp(long start) { return get_time() - static_cast<unsigned long>(start); }

unsigned long get_time_since_powerof() { return readNs(CLOCK_MONOTONIC); }

unsigned long NS_Sleep(long start, long ns) {
    // Signed, so that an end before 1970 is in the past and not in the far future.
    const long end = static_cast<long>(static_cast<unsigned long>(start) + static_cast<unsigned long>(ns));
    unsigned long now = get_time();
    while (static_cast<long>(now) < end) now = get_time();
    return now;
}

unsigned long CheckIsRotateDay(unsigned long& lastDay) {
    std::tm now{};
    if (!local_time::plainNow(now)) return 0;
    const unsigned long today = local_time::date(now);
    const bool rotates = lastDay != 0 && today > lastDay;
    if (lastDay == 0 || rotates) lastDay = today;
    return rotates ? 1 : 0;
}

bool ZceIsInTradeTime() {
    std::tm now{};
    if (!local_time::plainNow(now)) return false;
    const unsigned int timeOfDay = local_time::timeOfDay(now);
    for (const Session& session : kSessions) {
        if (session.first <= timeOfDay && timeOfDay <= session.last) return true;
    }
    return false;
}
