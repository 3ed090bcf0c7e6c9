// The calls of streams, shared. Each makes the same call of the hardware library and returns its result and its errno
// unchanged. None of these functions is noexcept: an exception of a packet handler must pass through, and so must the
// unwinding when its thread ends.

#include "tools/share/Sharing.h"
#include "tools/tap/TapClock.h"

using namespace share;
using tap::g_next;

void tap::cardsWereLookedUp() {}

namespace {

// What a thread polled that has polled nothing. A constant, because a poll may come before any constructor ran.
Shared g_none(&Shared::kNoStream);

// The stream that this thread polled last.
[[gnu::tls_model("initial-exec")]] thread_local Shared* t_last = &g_none;

void shareAndDeliver(const std::uint8_t* data, std::uint32_t size, void* context) {
    Shared& shared = *static_cast<Shared*>(context);
    if (__builtin_expect(size <= shared.limit, 1)) {
        shared.ring->put(tap::clock_ticks::now(), data, size);
    } else {
        shared.ring->skip();
    }
    shared.handler(data, size, shared.context);
}

// The thread polled another stream before.
[[gnu::noinline, gnu::cold]] int pollSlow(enyx_hw_a2c_stream* stream, enyx_hw_a2c_stream_handler handler,
                                          void* context) {
    Shared* const shared = stream != nullptr ? find(stream) : nullptr;
    if (shared == nullptr || handler == nullptr) return g_next.enyx_hw_a2c_stream_poll_once(stream, handler, context);
    t_last = shared;
    shared->handler = handler;
    shared->context = context;
    return g_next.enyx_hw_a2c_stream_poll_once(stream, shareAndDeliver, shared);
}

}  // namespace

enyx_hw_a2c_stream* enyx_hw_a2c_stream_create(const enyx_hw_a2c_stream_descriptor* descriptor,
                                              const void* configuration) {
    enyx_hw_a2c_stream* stream = g_next.enyx_hw_a2c_stream_create(descriptor, configuration);
    const tap::KeepErrno keep;
    if (stream != nullptr && g_next.enyx_hw_a2c_stream_poll_once.isThere()) {
        openStream(stream, tap::origins().find(descriptor));
    }
    return stream;
}

void enyx_hw_a2c_stream_destroy(enyx_hw_a2c_stream* stream) {
    closeStream(stream);
    g_next.enyx_hw_a2c_stream_destroy(stream);
}

int enyx_hw_a2c_stream_poll_once(enyx_hw_a2c_stream* stream, enyx_hw_a2c_stream_handler handler, void* context) {
    Shared& shared = *t_last;
    const bool isIt = shared.stream.load(std::memory_order_acquire) == stream && handler != nullptr;
    if (__builtin_expect(!isIt, 0)) return pollSlow(stream, handler, context);
    shared.handler = handler;
    shared.context = context;
    return g_next.enyx_hw_a2c_stream_poll_once.known()(stream, shareAndDeliver, &shared);
}
