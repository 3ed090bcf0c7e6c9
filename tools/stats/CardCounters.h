#pragma once

#include "tools/stats/Sources.h"

namespace stats {

/// When a stream has been opened: what the card's counters show now is not this stream's.
void beginCardCounters(Source& source);

/// Asks the card for the counters of an open stream and adds what is new to its block. A real card answers by a read of
/// its registers, which takes a microsecond or two.
void readCardCounters(Source& source);

}  // namespace stats
