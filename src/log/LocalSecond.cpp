#include "src/log/LocalSecond.h"

#include "src/log/LineBuilder.h"
#include "src/util/LocalTime.h"

namespace {

LocalSecond g_last;
bool g_known = false;

// What tzset() changes when the zone does.
struct Zone {
    long west;
    int hasSummer;
    const char* name;
    const char* summerName;

    static Zone current() { return {::timezone, ::daylight, ::tzname[0], ::tzname[1]}; }
    bool operator==(const Zone& other) const {
        return west == other.west && hasSummer == other.hasSummer && name == other.name &&
               summerName == other.summerName;
    }
} g_zone;

__attribute__((noinline)) const LocalSecond* breakDown(std::time_t when) {
    std::tm local;
    g_known = local_time::breakDown(when, local);
    if (!g_known) return nullptr;
    g_last.when = when;
    g_last.date = local_time::date(local);
    g_last.utcOffset = local.tm_gmtoff;
    LineBuilder(g_last.text, sizeof g_last.text).appendTime(local);
    g_zone = Zone::current();
    return &g_last;
}

}  // namespace

const LocalSecond* localSecondOf(std::time_t when) {
    if (g_known && g_last.when == when && g_zone == Zone::current()) return &g_last;
    return breakDown(when);
}

void forgetLocalSecond() { g_known = false; }
