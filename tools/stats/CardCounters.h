#pragma once

#include "tools/stats/Sources.h"

namespace stats {

/// Asks the card for the counters of an open stream and adds what is new to its block. A real card answers by a read of
/// its registers, which takes a microsecond or two.
void readCardCounters(Source& source);

}  // namespace stats
