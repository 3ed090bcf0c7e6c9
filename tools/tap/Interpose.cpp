// The calls of registers and streams, recorded. Each makes the same call of the hardware library and returns its result
// and its errno unchanged. None of these functions is noexcept: an exception of a packet handler must pass through, and
// so must the unwinding when its thread ends.

#include <algorithm>
#include <cstring>

#include "tools/tap/NextCalls.h"
#include "tools/tap/Tap.h"

using namespace tap;

void tap::cardsWereLookedUp() {}

// ---- registers ----

namespace {

// Makes a call. Records it with its result, if accesses are recorded.
template <typename Call>
int recorded(capture::AccessKind kind, enyx_hw_core* core, const enyx_hw_register_description* field,
             const std::uint64_t* value, Call call) {
    if (!recordsRegisters()) return call();
    const std::uint64_t start = clock_ticks::now();
    const int result = call();
    const std::uint64_t end = clock_ticks::now();
    const KeepErrno keep;
    const Origin origin = origins().find(core);
    const bool failed = result < 0;
    capture::RegisterAccess access;
    access.kind = kind;
    if (origin.card >= 0 && origin.card < capture::kUnknownCard) access.card = static_cast<std::uint8_t>(origin.card);
    if (origin.core != Origin::kUnknown) access.core = static_cast<std::uint32_t>(origin.core);
    if (field != nullptr) {
        access.byteAddress = field->address;
        access.bitOffset = field->bit_offset;
        access.bitWidth = field->bit_width;
    }
    if (value != nullptr && !(failed && kind == capture::AccessKind::kRead)) access.value = *value;
    access.result = result;
    access.error = failed ? keep.value() : 0;
    access.durationNs = end - start;
    recordAccess(start, access);
    return result;
}

}  // namespace

int enyx_hw_core_reset(enyx_hw_core* core) {
    return recorded(capture::AccessKind::kCoreReset, core, nullptr, nullptr,
                    [=] { return g_next.enyx_hw_core_reset(core); });
}

int enyx_hw_read(enyx_hw_core* core, const enyx_hw_register_description* reg, uint64_t* value) {
    return recorded(capture::AccessKind::kRead, core, reg, value,
                    [=] { return g_next.enyx_hw_read(core, reg, value); });
}

int enyx_hw_write(enyx_hw_core* core, const enyx_hw_register_description* reg, uint64_t value) {
    return recorded(capture::AccessKind::kWrite, core, reg, &value,
                    [=] { return g_next.enyx_hw_write(core, reg, value); });
}

// ---- streams ----

enyx_hw_a2c_stream* enyx_hw_a2c_stream_create(const enyx_hw_a2c_stream_descriptor* descriptor,
                                              const void* configuration) {
    enyx_hw_a2c_stream* stream = g_next.enyx_hw_a2c_stream_create(descriptor, configuration);
    const KeepErrno keep;
    if (stream != nullptr && g_next.enyx_hw_a2c_stream_poll_once.isThere()) {
        openStream(stream, origins().find(descriptor));
    }
    return stream;
}

void enyx_hw_a2c_stream_destroy(enyx_hw_a2c_stream* stream) {
    closeStream(stream);
    g_next.enyx_hw_a2c_stream_destroy(stream);
}

namespace {

// Longer packets make readers of capture files give up the whole file.
constexpr std::uint32_t kMostKept = 262'144;

void keepUpTo(Source& source, std::uint32_t mtu) { source.keepUpTo(mtu == 0 ? kMostKept : std::min(mtu, kMostKept)); }

// For a program that did not ask for the stream's MTU.
std::uint32_t askForLimit(Source& source) {
    std::uint32_t mtu = 0;
    const auto* stream = static_cast<const enyx_hw_a2c_stream*>(source.stream);
    const bool known = g_next.enyx_hw_a2c_stream_get_mtu.isThere() &&
                       g_next.enyx_hw_a2c_stream_get_mtu(stream, &mtu) == 0;
    keepUpTo(source, known ? mtu : 0);
    return source.limit.load(std::memory_order_relaxed);
}

// Slow path: the MTU is not known, the packet is empty or longer than the MTU, the ring looks full, or the processor's
// counter does not run evenly. A length above the MTU is not trusted: there may be no bytes to copy.
[[gnu::noinline, gnu::cold]] void recordAndDeliverSlow(const std::uint8_t* data, std::uint32_t size, void* context) {
    Source& source = *static_cast<Source*>(context);
    {
        const KeepErrno keep;
        std::uint32_t limit = source.limit.load(std::memory_order_relaxed);
        if (limit == 0) limit = askForLimit(source);
        const std::uint32_t kept = std::min(size, limit);
        if (source.ring.put(clock_ticks::now(), data, kept, size - kept, source.presence.atOnce())) {
            source.presence.packet();
        } else {
            source.presence.begin();
        }
    }
    source.handler(data, size, source.context);
}

// Replaces the program's own handler in the poll. The packet waits in the source while its bytes are copied: keeping it
// in registers would save and restore two more of them.
void recordAndDeliver(const std::uint8_t* data, std::uint32_t size, void* context) {
    Source& source = *static_cast<Source*>(context);
    const bool isUsual = size - 1 < source.quickLimit.load(std::memory_order_relaxed);  // not empty, not too long
    if (!isUsual) return recordAndDeliverSlow(data, size, context);
    unsigned char* room = source.ring.reserve(__rdtsc(), size, 0, source.presence.atOnce());
    if (room == nullptr) return recordAndDeliverSlow(data, size, context);
    source.data = data;
    source.size = size;
    std::memcpy(room, data, size);
    source.ring.commit();
    source.presence.packet();
    source.handler(source.data, source.size, source.context);
}

// Slow path: the stream is not captured, or it is not at its first place in the table.
[[gnu::noinline, gnu::cold]] int pollSlow(enyx_hw_a2c_stream* stream, enyx_hw_a2c_stream_handler handler,
                                          void* context) {
    Source* source = g_streams.find(stream);
    if (source == nullptr || handler == nullptr) return g_next.enyx_hw_a2c_stream_poll_once(stream, handler, context);
    source->handler = handler;
    source->context = context;
    source->presence.poll();
    return g_next.enyx_hw_a2c_stream_poll_once(stream, recordAndDeliver, source);
}

}  // namespace

int enyx_hw_a2c_stream_get_mtu(const enyx_hw_a2c_stream* stream, uint32_t* mtu) {
    const int result = g_next.enyx_hw_a2c_stream_get_mtu(stream, mtu);
    Source* source = g_streams.find(stream);
    if (result == 0 && mtu != nullptr && source != nullptr) keepUpTo(*source, *mtu);
    return result;
}

int enyx_hw_a2c_stream_poll_once(enyx_hw_a2c_stream* stream, enyx_hw_a2c_stream_handler handler, void* context) {
    Source* source = g_streams.findAtOnce(stream);
    if (source == nullptr || handler == nullptr) return pollSlow(stream, handler, context);
    source->handler = handler;
    source->context = context;
    source->presence.poll();
    return g_next.enyx_hw_a2c_stream_poll_once.known()(stream, recordAndDeliver, source);
}
