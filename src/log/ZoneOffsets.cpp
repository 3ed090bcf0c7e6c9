#include "src/log/ZoneOffsets.h"

#include <atomic>
#include <climits>

#include "src/util/LocalTime.h"

namespace zone_offsets {

namespace {

constexpr std::time_t kWeek = 7 * 86400;  // no zone changes its offset twice in a week
constexpr std::time_t kHorizon = 400 * 86400L;
constexpr std::time_t kRenewal = 30 * 86400L;  // a process that logs less often than this may show a stale offset
constexpr int kMaxSpans = 8;                   // zones change twice a year, a few four times

// Periods with one offset each, in order of time. The first one has no beginning.
struct Table {
    std::atomic<int> count{0};
    std::atomic<std::time_t> from[kMaxSpans]{};
    std::atomic<long> offset[kMaxSpans]{};
};

// A handler reads the table that g_current selects. The log fills the other one.
Table g_tables[2];
std::atomic<int> g_current{0};
std::time_t g_learnedAt = 0;

bool offsetOf(std::time_t when, long& offset) {
    std::tm local;
    if (!local_time::breakDown(when, local)) return false;
    offset = local.tm_gmtoff;
    return true;
}

// The first second after @p before whose offset is no longer @p offset; it is not later than @p after.
std::time_t changeBetween(std::time_t before, std::time_t after, long offset) {
    while (after - before > 1) {
        const std::time_t middle = before + (after - before) / 2;
        long there = offset;
        offsetOf(middle, there);
        (there == offset ? before : after) = middle;
    }
    return after;
}

void fill(Table& table, std::time_t now, long offset) {
    table.from[0] = LONG_MIN;
    table.offset[0] = offset;
    int count = 1;
    for (std::time_t week = now; week < now + kHorizon && count < kMaxSpans; week += kWeek) {
        long next = offset;
        if (!offsetOf(week + kWeek, next) || next == offset) continue;
        table.from[count] = changeBetween(week, week + kWeek, offset);
        table.offset[count] = offset = next;
        ++count;
    }
    table.count = count;
}

}  // namespace

void learn(std::time_t now, long utcOffset, bool zoneChanged) {
    const bool isKnown = !zoneChanged && g_learnedAt != 0 && now >= g_learnedAt && now < g_learnedAt + kRenewal;
    if (isKnown && at(now) == utcOffset) return;
    const int other = 1 - g_current;
    fill(g_tables[other], now, utcOffset);
    g_current = other;
    g_learnedAt = now;
}

long at(std::time_t when) {
    const Table& table = g_tables[g_current];
    long offset = 0;
    for (int i = 0; i < table.count && table.from[i] <= when; ++i) offset = table.offset[i];
    return offset;
}

}  // namespace zone_offsets
