#pragma once

#include <string>
#include <vector>

#include "tools/data/NumberText.h"
#include "tools/vexo/stat/Pages.h"

/// The same pages, for different readers.
namespace vexo::stat {

/// For people. @param before  an earlier look, for rates; may be empty
std::string asText(const std::vector<Page>& pages, const std::vector<Page>& before);

/// One table: losses by cause, a line for each stream.
std::string asLossTable(const std::vector<Page>& pages);

/// One line of JSON for each process.
std::string asJson(const std::vector<Page>& pages);

/// The text format of Prometheus. Processes that have ended are not in it.
std::string asPrometheus(const std::vector<Page>& pages);

// What the views share, `vexo watch` among them.

using data::grouped;
std::string duration(double seconds);       // as in 1.05 ms
std::string processName(const Page& page);  // name and number, harmless
std::string lifeLine(const Page& page);     // as in running for 12.5 s
std::string startUpLine(const Page& page);  // its steps, with the time of each since the first

/// "callbacks": the first bound that at least this share of the times lies below, in seconds; 0 without any.
double boundOf(const std::uint64_t (&buckets)[vexo_stats::kBuckets], std::size_t used, double share, const Page& page);
/// Buckets of the gaps that count gaps.
inline constexpr std::size_t kGapBuckets = vexo_stats::kFirstBucket;

const char* nameOf(vexo_stats::Step step);  // as in card_looked_up
const char* nameOf(Life life);
const char* writerOf(const Page& page);     // tap, relay or application
std::string typeName(std::size_t slot);     // as in 17, other, none
std::string numberOrNone(std::uint64_t n);  // "-" for what is not known

}  // namespace vexo::stat
