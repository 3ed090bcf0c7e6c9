#include "src/log/LocalSecond.h"

#include "src/log/LineBuilder.h"
#include "src/util/LocalTime.h"

LocalSecond g_lineSecond;
LocalSecond g_fileSecond;

__attribute__((noinline)) bool LocalSecond::breakDown(std::time_t when) {
    std::tm local;
    m_isKnown = local_time::breakDown(when, local);
    if (!m_isKnown) return false;
    m_when = when;
    m_date = local_time::date(local);
    m_utcOffset = local.tm_gmtoff;
    LineBuilder(m_head + kLevelSize + 1, kTextSize).appendTime(local);
    m_isNewZone = !(m_zone == Zone::current());
    m_zone = Zone::current();
    return true;
}
