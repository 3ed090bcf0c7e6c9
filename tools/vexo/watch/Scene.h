#pragma once

#include <VexoZceMdStatsPage.h>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "tools/data/Losses.h"
#include "tools/vexo/show/LogSource.h"
#include "tools/vexo/stat/Pages.h"
#include "tools/vexo/watch/Receiver.h"

namespace vexo::watch {

/// The numbers of all streams of a page together.
struct Totals {
    std::uint64_t packets[vexo_stats::kTypeSlots] = {};
    std::uint64_t bytes[vexo_stats::kTypeSlots] = {};
    std::uint64_t gaps[vexo_stats::kBuckets] = {};
    std::uint64_t callbacks[vexo_stats::kBuckets] = {};
    std::uint64_t idlePolls = 0;
    std::uint64_t failedPolls = 0;
    bool pollsKnown = false;
    std::uint64_t allPackets = 0;
    std::uint64_t allBytes = 0;
    data::Losses losses;
};
Totals totalsOf(const stat::Page& page);

/// What one look has more than an earlier one; 0 where a number went back. The losses are those of @p now.
Totals difference(const Totals& now, const Totals& before);

/// An instrument with its rate.
struct BusyInstrument {
    std::string id;  // as it came, so it may hold any bytes
    std::uint64_t packets = 0;
    std::uint64_t more = 0;  // since the look before
};

/// One look at a process, with what has changed since an earlier one.
struct Scene {
    std::optional<stat::Page> page;  // empty: the process has made none yet
    double seconds = 0;              // since the look before; 0: there was none
    Totals now;
    Totals more;
    std::vector<std::uint64_t> streamMore;  // packets of each stream since the look before
    std::string source;                     // what is watched, in words; harmless
    bool countsInstruments = false;
    std::vector<BusyInstrument> instruments;  // the busiest first
    std::uint64_t unknown = 0;                // market-data packets that no layout describes
    std::uint64_t crowded = 0;
    std::string logName;
    std::string logFault;
    std::deque<ShownLine> log;  // the last lines
    std::size_t newLines = 0;   // so many are new; more than there are here, when many came

    bool isRated() const { return seconds > 0; }
    double perSecond(std::uint64_t n) const { return isRated() ? static_cast<double>(n) / seconds : 0; }
};

/// A look of its own.
struct Look {
    std::optional<stat::Page> page;
    Totals totals;
    Instruments instruments;
};

/// Fills in what two looks make of a scene. @param before  null: there was none
void compare(const Look& now, const Look* before, Scene& scene);

}  // namespace vexo::watch
