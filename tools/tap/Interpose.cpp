// The calls that the tap intercepts. Each makes the same call of the hardware library and returns its result and its
// errno unchanged. None of these functions is noexcept: an exception of a packet handler must pass through, and so must
// the unwinding when its thread ends.

#include <algorithm>
#include <cstring>

// Everything else of this library is hidden.
#pragma GCC visibility push(default)
#include <enyx-hw-c/enyx_hw.h>
#pragma GCC visibility pop

#include "interface/CallList.h"
#include "tools/tap/NextCall.h"
#include "tools/tap/Tap.h"

using namespace tap;

namespace {

// Each call of the library behind the tap, under the name of its function.
struct NextCalls {
    constexpr NextCalls() = default;  // a call may come before any constructor of the tap ran
#define ENYX_HW_CALL(name, function, kind) NextCall<decltype(::function)> function{#function};
    ENYX_HW_CALLS(ENYX_HW_CALL)
#undef ENYX_HW_CALL
};
NextCalls g_next;

// ---- what each handle describes ----

template <typename Descriptor>
void learn(const enyx_hw_filter* filter, std::int64_t card, Descriptor** descriptors, std::size_t room, ssize_t found) {
    const KeepErrno keep;
    if (descriptors == nullptr || found <= 0) return;
    const Origin wanted = origins().find(filter);
    const std::size_t filled = std::min(room, static_cast<std::size_t>(found));
    for (std::size_t i = 0; i < filled; ++i) origins().set(descriptors[i], enumerated(wanted, card, i));
}

template <typename Descriptor>
void forgetAll(Descriptor** descriptors, std::size_t count) {
    for (std::size_t i = 0; descriptors != nullptr && i < count; ++i) origins().forget(descriptors[i]);
}

// A handle that is made from another one describes the same object.
template <typename Child>
Child* inherit(const void* parent, Child* child) {
    const KeepErrno keep;
    if (child != nullptr) origins().set(child, origins().find(parent));
    return child;
}

template <typename Change>
int changeFilter(const enyx_hw_filter* filter, int result, Change change) {
    const KeepErrno keep;
    if (result != 0) return result;
    Origin wanted = origins().find(filter);
    change(wanted);
    origins().set(filter, wanted);
    return result;
}

}  // namespace

int enyx_hw_filter_set_index(enyx_hw_filter* filter, uint32_t index) {
    return changeFilter(filter, g_next.enyx_hw_filter_set_index(filter, index),
                        [index](Origin& wanted) { wanted.index = index; });
}

int enyx_hw_filter_set_name(enyx_hw_filter* filter, const char* name) {
    return changeFilter(filter, g_next.enyx_hw_filter_set_name(filter, name),
                        [name](Origin& wanted) { wanted.name = name != nullptr ? name : ""; });
}

void enyx_hw_filter_destroy(enyx_hw_filter* filter) {
    origins().forget(filter);
    g_next.enyx_hw_filter_destroy(filter);
}

ssize_t enyx_hw_enumerate_accelerators(const enyx_hw_filter* filter, enyx_hw_accelerator_descriptor** descriptors,
                                       size_t count) {
    const ssize_t found = g_next.enyx_hw_enumerate_accelerators(filter, descriptors, count);
    const KeepErrno keep;
    if (descriptors == nullptr || found <= 0) return found;
    const Origin wanted = origins().find(filter);
    for (std::size_t i = 0; i < std::min(count, static_cast<std::size_t>(found)); ++i) {
        Origin card;
        card.card = enumerated(wanted, Origin::kUnknown, i).index;
        origins().set(descriptors[i], card);
    }
    return found;
}

void enyx_hw_free_accelerator_descriptors(enyx_hw_accelerator_descriptor** descriptors, size_t count) {
    forgetAll(descriptors, count);
    g_next.enyx_hw_free_accelerator_descriptors(descriptors, count);
}

enyx_hw_accelerator* enyx_hw_accelerator_get(const enyx_hw_accelerator_descriptor* descriptor) {
    return inherit(descriptor, g_next.enyx_hw_accelerator_get(descriptor));
}

ssize_t enyx_hw_accelerator_enumerate_mmios(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                                            enyx_hw_mmio_descriptor** descriptors, size_t count) {
    const ssize_t found = g_next.enyx_hw_accelerator_enumerate_mmios(accelerator, filter, descriptors, count);
    learn(filter, origins().find(accelerator).card, descriptors, count, found);
    return found;
}

void enyx_hw_free_mmio_descriptors(enyx_hw_mmio_descriptor** descriptors, size_t count) {
    forgetAll(descriptors, count);
    g_next.enyx_hw_free_mmio_descriptors(descriptors, count);
}

enyx_hw_mmio* enyx_hw_mmio_create(const enyx_hw_mmio_descriptor* descriptor) {
    return inherit(descriptor, g_next.enyx_hw_mmio_create(descriptor));
}

enyx_hw_core_tree* enyx_hw_enumerate_cores(enyx_hw_mmio* mmio) {
    return inherit(mmio, g_next.enyx_hw_enumerate_cores(mmio));
}

enyx_hw_core* enyx_hw_core_tree_get_root(enyx_hw_core_tree* tree) {
    return inherit(tree, g_next.enyx_hw_core_tree_get_root(tree));
}

ssize_t enyx_hw_core_enumerate(enyx_hw_core* root, uint16_t hardware_id, enyx_hw_core** cores, size_t count) {
    const ssize_t found = g_next.enyx_hw_core_enumerate(root, hardware_id, cores, count);
    const KeepErrno keep;
    if (cores == nullptr || found <= 0) return found;
    Origin core;
    core.card = origins().find(root).card;
    core.core = hardware_id;
    for (std::size_t i = 0; i < std::min(count, static_cast<std::size_t>(found)); ++i) origins().set(cores[i], core);
    return found;
}

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

ssize_t enyx_hw_accelerator_enumerate_a2c_streams(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                                                  enyx_hw_a2c_stream_descriptor** descriptors, size_t count) {
    const ssize_t found = g_next.enyx_hw_accelerator_enumerate_a2c_streams(accelerator, filter, descriptors, count);
    learn(filter, origins().find(accelerator).card, descriptors, count, found);
    return found;
}

void enyx_hw_free_a2c_stream_descriptors(enyx_hw_a2c_stream_descriptor** descriptors, size_t count) {
    forgetAll(descriptors, count);
    g_next.enyx_hw_free_a2c_stream_descriptors(descriptors, count);
}

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
        source.ring.put(clock_ticks::now(), data, kept, size - kept);
    }
    source.handler(data, size, source.context);
}

// Replaces the program's own handler in the poll. The packet waits in the source while its bytes are copied: keeping it
// in registers would save and restore two more of them.
void recordAndDeliver(const std::uint8_t* data, std::uint32_t size, void* context) {
    Source& source = *static_cast<Source*>(context);
    const bool isUsual = size - 1 < source.quickLimit.load(std::memory_order_relaxed);  // not empty, not too long
    if (!isUsual) return recordAndDeliverSlow(data, size, context);
    unsigned char* room = source.ring.reserve(__rdtsc(), size, 0);
    if (room == nullptr) return recordAndDeliverSlow(data, size, context);
    source.data = data;
    source.size = size;
    std::memcpy(room, data, size);
    source.ring.commit();
    source.handler(source.data, source.size, source.context);
}

// Slow path: the stream is not captured, or it is not at its first place in the table.
[[gnu::noinline, gnu::cold]] int pollSlow(enyx_hw_a2c_stream* stream, enyx_hw_a2c_stream_handler handler,
                                          void* context) {
    Source* source = g_streams.find(stream);
    if (source == nullptr || handler == nullptr) return g_next.enyx_hw_a2c_stream_poll_once(stream, handler, context);
    source->handler = handler;
    source->context = context;
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
    return g_next.enyx_hw_a2c_stream_poll_once.known()(stream, recordAndDeliver, source);
}
