#pragma once

#include <enyx-hw-c/enyx_hw.h>

#include <string>

#define CARDTEST_CALLS(X)                        \
    X(enyx_hw_filter_create)                     \
    X(enyx_hw_filter_set_index)                  \
    X(enyx_hw_filter_set_name)                   \
    X(enyx_hw_filter_destroy)                    \
    X(enyx_hw_enumerate_accelerators)            \
    X(enyx_hw_accelerator_get)                   \
    X(enyx_hw_free_accelerator_descriptors)      \
    X(enyx_hw_accelerator_enumerate_mmios)       \
    X(enyx_hw_mmio_create)                       \
    X(enyx_hw_mmio_destroy)                      \
    X(enyx_hw_free_mmio_descriptors)             \
    X(enyx_hw_enumerate_cores)                   \
    X(enyx_hw_core_tree_get_root)                \
    X(enyx_hw_core_reset)                        \
    X(enyx_hw_core_enumerate)                    \
    X(enyx_hw_core_lock)                         \
    X(enyx_hw_core_unlock)                       \
    X(enyx_hw_read)                              \
    X(enyx_hw_write)                             \
    X(enyx_hw_accelerator_enumerate_a2c_streams) \
    X(enyx_hw_a2c_stream_create)                 \
    X(enyx_hw_free_a2c_stream_descriptors)       \
    X(enyx_hw_a2c_stream_get_mtu)                \
    X(enyx_hw_a2c_stream_poll_once)              \
    X(enyx_hw_a2c_stream_stats_get_backpressure) \
    X(enyx_hw_a2c_stream_stats_get_packet_count) \
    X(enyx_hw_a2c_stream_stats_get_fifo_errors)  \
    X(enyx_hw_a2c_stream_stats_get_errors)       \
    X(enyx_hw_a2c_stream_destroy)                \
    X(enyx_hw_accelerator_enumerate_c2a_streams) \
    X(enyx_hw_c2a_stream_create)                 \
    X(enyx_hw_free_c2a_stream_descriptors)       \
    X(enyx_hw_c2a_stream_get_mtu)                \
    X(enyx_hw_c2a_stream_send)                   \
    X(enyx_hw_c2a_stream_destroy)

namespace cardtest {

/// Loads the card's library, libenyx-hw-c.so.1, and looks up all calls of the hardware interface. The program is not
/// linked to the library: it must show its options, and take --library, on a machine that has none. A library in
/// LD_PRELOAD goes first, as it does for a linked program. Must come before any call of the interface.
/// @return false, with the reason in @p error, when the library or one of the calls is missing
bool loadCardLibrary(std::string& error);

/// The file that the calls of the hardware interface come from; empty when no library is loaded.
std::string libraryInUse();

/// A call of the card's library. Usable once loadCardLibrary() has succeeded.
template <typename Function>
class CardCall;

class AnyCardCall {
public:
    AnyCardCall(const AnyCardCall&) = delete;
    AnyCardCall& operator=(const AnyCardCall&) = delete;

protected:
    explicit AnyCardCall(const char* name);
    void* address() const { return m_address; }

private:
    friend bool loadCardLibrary(std::string& error);

    const char* m_name;
    AnyCardCall* m_next;  // all calls form a list
    void* m_address = nullptr;
};

template <typename Result, typename... Arguments>
class CardCall<Result(Arguments...)> : public AnyCardCall {
public:
    explicit CardCall(const char* name) : AnyCardCall(name) {}
    Result operator()(Arguments... arguments) const {
        return reinterpret_cast<Result (*)(Arguments...)>(address())(arguments...);
    }
};

// Inside this namespace the name of a call means one of these, not the function that the header declares.
#define CARDTEST_CALL(function) inline CardCall<decltype(::function)> function(#function);
CARDTEST_CALLS(CARDTEST_CALL)
#undef CARDTEST_CALL

}  // namespace cardtest
