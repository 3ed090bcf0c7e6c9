#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

// The calls of the C interface, in the order of enyx-hw-c/enyx_hw.h. This is the only list of them: the simulated
// card's trace and failure hooks, the scenario keys that name a call, and the tap are made from it.
//
// Each line is X(name, function, kind of result):
//   Pointer  a handle, or null with errno set
//   Status   a number; negative with errno set on failure
//   Void     nothing: the call cannot fail
#define ENYX_HW_CALLS(X)                                                           \
    X(FilterCreate, enyx_hw_filter_create, Pointer)                                \
    X(FilterSetIndex, enyx_hw_filter_set_index, Status)                            \
    X(FilterSetName, enyx_hw_filter_set_name, Status)                              \
    X(FilterDestroy, enyx_hw_filter_destroy, Void)                                 \
    X(EnumerateAccelerators, enyx_hw_enumerate_accelerators, Status)               \
    X(AcceleratorGet, enyx_hw_accelerator_get, Pointer)                            \
    X(FreeAcceleratorDescriptors, enyx_hw_free_accelerator_descriptors, Void)      \
    X(EnumerateMmios, enyx_hw_accelerator_enumerate_mmios, Status)                 \
    X(MmioCreate, enyx_hw_mmio_create, Pointer)                                    \
    X(MmioDestroy, enyx_hw_mmio_destroy, Void)                                     \
    X(FreeMmioDescriptors, enyx_hw_free_mmio_descriptors, Void)                    \
    X(EnumerateCores, enyx_hw_enumerate_cores, Pointer)                            \
    X(CoreTreeGetRoot, enyx_hw_core_tree_get_root, Pointer)                        \
    X(CoreReset, enyx_hw_core_reset, Status)                                       \
    X(CoreEnumerate, enyx_hw_core_enumerate, Status)                               \
    X(CoreLock, enyx_hw_core_lock, Status)                                         \
    X(CoreUnlock, enyx_hw_core_unlock, Status)                                     \
    X(Read, enyx_hw_read, Status)                                                  \
    X(Write, enyx_hw_write, Status)                                                \
    X(EnumerateA2cStreams, enyx_hw_accelerator_enumerate_a2c_streams, Status)      \
    X(A2cStreamCreate, enyx_hw_a2c_stream_create, Pointer)                         \
    X(FreeA2cStreamDescriptors, enyx_hw_free_a2c_stream_descriptors, Void)         \
    X(A2cStreamGetMtu, enyx_hw_a2c_stream_get_mtu, Status)                         \
    X(A2cStreamPollOnce, enyx_hw_a2c_stream_poll_once, Status)                     \
    X(A2cStreamGetBackpressure, enyx_hw_a2c_stream_stats_get_backpressure, Status) \
    X(A2cStreamGetPacketCount, enyx_hw_a2c_stream_stats_get_packet_count, Status)  \
    X(A2cStreamGetFifoErrors, enyx_hw_a2c_stream_stats_get_fifo_errors, Status)    \
    X(A2cStreamGetErrors, enyx_hw_a2c_stream_stats_get_errors, Status)             \
    X(A2cStreamDestroy, enyx_hw_a2c_stream_destroy, Void)                          \
    X(EnumerateC2aStreams, enyx_hw_accelerator_enumerate_c2a_streams, Status)      \
    X(C2aStreamCreate, enyx_hw_c2a_stream_create, Pointer)                         \
    X(FreeC2aStreamDescriptors, enyx_hw_free_c2a_stream_descriptors, Void)         \
    X(C2aStreamGetMtu, enyx_hw_c2a_stream_get_mtu, Status)                         \
    X(C2aStreamSend, enyx_hw_c2a_stream_send, Status)                              \
    X(C2aStreamDestroy, enyx_hw_c2a_stream_destroy, Void)

namespace hw_calls {

enum class Call : std::uint32_t {
#define ENYX_HW_CALL(name, function, kind) k##name,
    ENYX_HW_CALLS(ENYX_HW_CALL)
#undef ENYX_HW_CALL
};

enum class CallKind { kPointer, kStatus, kVoid };

struct CallEntry {
    const char* function;
    CallKind kind;
};

inline constexpr CallEntry kCalls[] = {
#define ENYX_HW_CALL(name, function, kind) {#function, CallKind::k##kind},
    ENYX_HW_CALLS(ENYX_HW_CALL)
#undef ENYX_HW_CALL
};

inline constexpr std::size_t kCallCount = sizeof kCalls / sizeof kCalls[0];

constexpr const CallEntry& entryOf(Call call) { return kCalls[static_cast<std::size_t>(call)]; }
constexpr const char* nameOf(Call call) { return entryOf(call).function; }

/// Whether a call can fail, with a result of its own or in the usual way.
constexpr bool canFail(Call call, bool withResult) {
    const CallKind kind = entryOf(call).kind;
    return kind == CallKind::kStatus || (kind == CallKind::kPointer && !withResult);
}

/// The call whose function has this name, if there is one.
inline std::optional<Call> find(std::string_view function) {
    for (std::size_t n = 0; n < kCallCount; ++n)
        if (function == kCalls[n].function) return static_cast<Call>(n);
    return std::nullopt;
}

}  // namespace hw_calls
