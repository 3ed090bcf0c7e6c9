#pragma once

namespace vexo_sim {

enum class CallKind { kPointer, kStatus, kVoid };

struct CallEntry {
    const char* name;
    CallKind kind;
};

inline constexpr CallEntry kCalls[] = {
    {"enyx_hw_filter_create", CallKind::kPointer},
    {"enyx_hw_filter_set_index", CallKind::kStatus},
    {"enyx_hw_filter_set_name", CallKind::kStatus},
    {"enyx_hw_filter_destroy", CallKind::kVoid},
    {"enyx_hw_enumerate_accelerators", CallKind::kStatus},
    {"enyx_hw_accelerator_get", CallKind::kPointer},
    {"enyx_hw_free_accelerator_descriptors", CallKind::kVoid},
    {"enyx_hw_accelerator_enumerate_mmios", CallKind::kStatus},
    {"enyx_hw_mmio_create", CallKind::kPointer},
    {"enyx_hw_mmio_destroy", CallKind::kVoid},
    {"enyx_hw_free_mmio_descriptors", CallKind::kVoid},
    {"enyx_hw_enumerate_cores", CallKind::kPointer},
    {"enyx_hw_core_tree_get_root", CallKind::kPointer},
    {"enyx_hw_core_reset", CallKind::kStatus},
    {"enyx_hw_core_enumerate", CallKind::kStatus},
    {"enyx_hw_core_lock", CallKind::kStatus},
    {"enyx_hw_core_unlock", CallKind::kStatus},
    {"enyx_hw_read", CallKind::kStatus},
    {"enyx_hw_write", CallKind::kStatus},
    {"enyx_hw_accelerator_enumerate_a2c_streams", CallKind::kStatus},
    {"enyx_hw_a2c_stream_create", CallKind::kPointer},
    {"enyx_hw_free_a2c_stream_descriptors", CallKind::kVoid},
    {"enyx_hw_a2c_stream_get_mtu", CallKind::kStatus},
    {"enyx_hw_a2c_stream_poll_once", CallKind::kStatus},
    {"enyx_hw_a2c_stream_stats_get_backpressure", CallKind::kStatus},
    {"enyx_hw_a2c_stream_stats_get_packet_count", CallKind::kStatus},
    {"enyx_hw_a2c_stream_stats_get_fifo_errors", CallKind::kStatus},
    {"enyx_hw_a2c_stream_stats_get_errors", CallKind::kStatus},
    {"enyx_hw_a2c_stream_destroy", CallKind::kVoid},
    {"enyx_hw_accelerator_enumerate_c2a_streams", CallKind::kStatus},
    {"enyx_hw_c2a_stream_create", CallKind::kPointer},
    {"enyx_hw_free_c2a_stream_descriptors", CallKind::kVoid},
    {"enyx_hw_c2a_stream_get_mtu", CallKind::kStatus},
    {"enyx_hw_c2a_stream_send", CallKind::kStatus},
    {"enyx_hw_c2a_stream_destroy", CallKind::kVoid},
};

/// Whether a call can be made to fail, with a result of its own or in the usual way.
constexpr bool canFail(const CallEntry& entry, bool withResult) {
    return entry.kind == CallKind::kStatus || (entry.kind == CallKind::kPointer && !withResult);
}

}  // namespace vexo_sim
