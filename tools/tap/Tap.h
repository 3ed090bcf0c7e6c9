#pragma once

#include "capture/RegisterAccess.h"
#include "tools/tap/Origins.h"
#include "tools/tap/StreamTable.h"
#include "tools/tap/TapWriter.h"

/// The tap of this process: at most one capture, begun by the first stream or register access.
namespace tap {

/// The streams that are captured at this moment.
[[gnu::visibility("hidden")]] extern StreamTable g_streams;

/// Captures what @p stream delivers from now on, unless the capture of this process has ended.
void openStream(const void* stream, const Origin& origin);
void closeStream(const void* stream);

/// Whether register accesses are recorded. Begins the capture if it has not begun.
bool recordsRegisters();
/// Records one access. @p startTicks is the time before the call; access.durationNs is in ticks here.
void recordAccess(std::uint64_t startTicks, const capture::RegisterAccess& access);

}  // namespace tap
