#pragma once

#include <string>
#include <vector>

#include "sim/card/CardState.h"

namespace vexo_sim::scenario {

/// Instruments from a file of `index,table,id` lines; table is 0 or `single`, 1 or `combination`. Blank lines and those
/// that begin with # are skipped. Throws Rejected.
std::vector<Instrument> readInstrumentList(const std::string& path);

/// Instruments from a day file of the market-data library: "inst_index,inst_id", `index,id` lines, "bin_file_over_tag".
/// Ids that begin with SPD- or IPS- are combinations. Throws Rejected, also for a file without its end tag.
std::vector<Instrument> readDayFile(const std::string& path);

}  // namespace vexo_sim::scenario
