#include "tools/stats/CardCounters.h"
#include "tools/tap/NextCalls.h"

namespace stats {
namespace {

template <typename Call>
std::optional<std::uint32_t> ask(Call& call, const enyx_hw_a2c_stream* stream) {
    std::uint32_t value = 0;
    if (!call.isThere() || call(stream, &value) != 0) return std::nullopt;
    return value;
}

}  // namespace

CardReading askCard(const void* handle) {
    const auto* const stream = static_cast<const enyx_hw_a2c_stream*>(handle);
    const tap::KeepErrno keep;
    CardReading now;
    now.packets = ask(tap::g_next.enyx_hw_a2c_stream_stats_get_packet_count, stream);
    now.backPressure = ask(tap::g_next.enyx_hw_a2c_stream_stats_get_backpressure, stream);
    now.fifoErrors = ask(tap::g_next.enyx_hw_a2c_stream_stats_get_fifo_errors, stream);
    now.errors = ask(tap::g_next.enyx_hw_a2c_stream_stats_get_errors, stream);
    return now;
}

}  // namespace stats
