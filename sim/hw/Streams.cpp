#include <unistd.h>

#include <cstdio>
#include <optional>
#include <string>

#include "capture/StandardStreams.h"
#include "sim/hw/Hooks.h"
#include "sim/hw/HwCard.h"

namespace vexo_sim {
namespace {

// What differs between the two directions.
struct Up {
    using Descriptor = enyx_hw_a2c_stream_descriptor;
    using Stream = enyx_hw_a2c_stream;
    static constexpr CardPart::Kind kPart = CardPart::kUp;
    static void attach(Stream& stream) {
        stream.ring = &stream.card->backend->state().up[stream.channel].ring;
        stream.delivering = false;
    }
};

struct Down {
    using Descriptor = enyx_hw_c2a_stream_descriptor;
    using Stream = enyx_hw_c2a_stream;
    static constexpr CardPart::Kind kPart = CardPart::kDown;
    static void attach(Stream&) {}
};

template <typename Direction>
ssize_t enumerateStreams(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                         typename Direction::Descriptor** descriptors, std::size_t room) {
    using Descriptor = typename Direction::Descriptor;
    if (!usable(accelerator)) return -1;
    const auto describe = [&](std::uint32_t index) -> Descriptor* {
        Descriptor* descriptor = pool<Descriptor>().make();
        if (descriptor == nullptr) return nullptr;
        descriptor->card = accelerator->card;
        descriptor->channel = index;
        return pool<Descriptor>().publish(descriptor);
    };
    return enumerate(
        filter, descriptors, room, kStreams, ENOENT,
        [](std::uint32_t index, char(&name)[kNameSize]) {
            return std::snprintf(name, sizeof name, "CUSTOM_CHAN%u_DATA", index) > 0;
        },
        describe);
}

std::string holderOf(const HwCard& card, CardPart stream) {
    const CardBackend& backend = *card.backend;
    const std::uint32_t heldUp = backend.state().faults.heldUp;
    const bool byScenario = stream.kind == CardPart::kUp && (heldUp >> stream.channel & 1) != 0;
    if (byScenario) return toText(backend.host().value_or(describeProcess(getpid()))) + ", as its scenario says";
    const std::optional<Holder> holder = backend.holderOf(stream);
    return holder ? toText(*holder) : "a process that has just ended";
}

void tellHolder(const HwCard& card, CardPart stream) {
    capture::printError("libenyx-hw-c: stream CUSTOM_CHAN%u_DATA of the simulated card at bus %u is held by %s.\n",
                        stream.channel, card.index, holderOf(card, stream).c_str());
}

template <typename Direction>
typename Direction::Stream* openStream(const typename Direction::Descriptor* descriptor) {
    using Stream = typename Direction::Stream;
    if (!usable(descriptor) || !isPresent(*descriptor->card)) return nullptr;
    Stream* stream = pool<Stream>().make();
    if (stream == nullptr) return nullptr;
    stream->card = descriptor->card;
    stream->channel = descriptor->channel;
    Direction::attach(*stream);
    pool<Stream>().publish(stream);
    const int error = stream->card->backend->take({Direction::kPart, stream->channel});
    if (error == 0) return stream;
    if (error == EBUSY) tellHolder(*stream->card, {Direction::kPart, stream->channel});
    pool<Stream>().kill(stream);
    errno = error;
    return nullptr;
}

template <typename Direction>
void closeStream(typename Direction::Stream* stream) {
    if (!usable(stream)) return;
    stream->card->backend->giveBack({Direction::kPart, stream->channel});
    pool<typename Direction::Stream>().kill(stream);
}

template <typename Stream>
int getMtu(const Stream* stream, std::uint32_t* mtu) {
    if (!usable(stream)) return -1;
    if (mtu == nullptr) {
        errno = EINVAL;
        return -1;
    }
    CardAccess card(*stream->card, CardAccess::kAsItIs);
    if (!card) return -1;
    *mtu = card->state().config.mtu;
    return card.end() ? 0 : -1;
}

int getCounter(const enyx_hw_a2c_stream* stream, std::uint32_t UpStreamState::*counter, std::uint32_t* value) {
    if (!usable(stream)) return -1;
    if (value == nullptr) {
        errno = EINVAL;
        return -1;
    }
    CardAccess card(*stream->card);
    if (!card) return -1;
    *value = card->state().up[stream->channel].*counter;
    return card.end() ? 0 : -1;
}

// Takes the packet out of the ring when its handler ends, even with an exception. If the handler destroyed the stream,
// the packet is already out of the ring.
class Delivery {
public:
    explicit Delivery(enyx_hw_a2c_stream& stream) : m_stream(stream) { m_stream.delivering = true; }
    ~Delivery() {
        m_stream.delivering = false;
        if (isAlive(&m_stream)) ring::release(*m_stream.ring);
    }
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;

private:
    enyx_hw_a2c_stream& m_stream;
};

int poll(enyx_hw_a2c_stream* stream, enyx_hw_a2c_stream_handler handler, void* context) {
    if (!usable(stream)) return -1;
    if (handler == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (stream->delivering) return 0;
    PacketView packet = ring::peek(*stream->ring);
    if (packet.data == nullptr) {
        packet = stream->card->backend->advanceAndPeek(*stream->ring);
        if (packet.data == nullptr) return 0;
    }
    const Delivery delivery(*stream);
    handler(packet.data, packet.size, context);
    return 1;
}

int send(enyx_hw_c2a_stream* stream, const void* data, std::uint32_t size) {
    if (!usable(stream) || data == nullptr || size == 0) return EINVAL;
    CardAccess card(*stream->card, CardAccess::kAsItIs);
    if (!card) return errno;
    if (size > card->state().config.mtu) return EMSGSIZE;
    const bool isSent = card->send(stream->channel, size);
    if (!card.end()) return errno;
    return isSent ? 0 : EAGAIN;
}

// The poll of a process that has a trace or scripts.
[[gnu::noinline, gnu::cold]] int pollSlow(enyx_hw_a2c_stream* stream, enyx_hw_a2c_stream_handler handler,
                                          void* context) {
    return perform(
        Call::kA2cStreamPollOnce, [=] { return poll(stream, handler, context); },
        [=](TraceLine& line) { line.stream(stream); });
}

template <typename Stream>
int performGet(Call call, const Stream* stream, std::uint32_t* value, int (*get)(const Stream*, std::uint32_t*)) {
    return perform(
        call, [=] { return get(stream, value); },
        [=](TraceLine& line) { line.stream(stream).number("value", value != nullptr ? *value : 0); });
}

template <std::uint32_t UpStreamState::*counter>
int performGetCounter(Call call, const enyx_hw_a2c_stream* stream, std::uint32_t* value) {
    return performGet<enyx_hw_a2c_stream>(
        call, stream, value, [](const enyx_hw_a2c_stream* s, std::uint32_t* v) { return getCounter(s, counter, v); });
}

}  // namespace
}  // namespace vexo_sim

using namespace vexo_sim;

ssize_t enyx_hw_accelerator_enumerate_a2c_streams(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                                                  enyx_hw_a2c_stream_descriptor** descriptors, size_t count) {
    return performCount(
        Call::kEnumerateA2cStreams, count,
        [=](std::size_t n) { return enumerateStreams<Up>(accelerator, filter, descriptors, n); },
        [=](TraceLine& line) { line.accelerator(accelerator).filter(filter); });
}

enyx_hw_a2c_stream* enyx_hw_a2c_stream_create(const enyx_hw_a2c_stream_descriptor* descriptor, const void*) {
    return perform(
        Call::kA2cStreamCreate, [=] { return openStream<Up>(descriptor); },
        [=](TraceLine& line) { line.descriptor(descriptor); });
}

void enyx_hw_free_a2c_stream_descriptors(enyx_hw_a2c_stream_descriptor** descriptors, size_t count) {
    performVoid(
        Call::kFreeA2cStreamDescriptors, [=] { freeDescriptors(descriptors, count); },
        [=](TraceLine& line) { line.number("count", static_cast<std::int64_t>(count)); });
}

int enyx_hw_a2c_stream_get_mtu(const enyx_hw_a2c_stream* stream, uint32_t* mtu) {
    return performGet(Call::kA2cStreamGetMtu, stream, mtu, getMtu<enyx_hw_a2c_stream>);
}

int enyx_hw_a2c_stream_poll_once(enyx_hw_a2c_stream* stream, enyx_hw_a2c_stream_handler handler, void* context) {
    if (hooks::g_active.load(std::memory_order_relaxed) != 0) return pollSlow(stream, handler, context);
    return poll(stream, handler, context);
}

int enyx_hw_a2c_stream_stats_get_backpressure(const enyx_hw_a2c_stream* stream, uint32_t* value) {
    return performGetCounter<&UpStreamState::backPressure>(Call::kA2cStreamGetBackpressure, stream, value);
}

int enyx_hw_a2c_stream_stats_get_packet_count(const enyx_hw_a2c_stream* stream, uint32_t* value) {
    return performGetCounter<&UpStreamState::packets>(Call::kA2cStreamGetPacketCount, stream, value);
}

int enyx_hw_a2c_stream_stats_get_fifo_errors(const enyx_hw_a2c_stream* stream, uint32_t* value) {
    return performGetCounter<&UpStreamState::fifoErrors>(Call::kA2cStreamGetFifoErrors, stream, value);
}

int enyx_hw_a2c_stream_stats_get_errors(const enyx_hw_a2c_stream* stream, uint32_t* value) {
    return performGetCounter<&UpStreamState::errors>(Call::kA2cStreamGetErrors, stream, value);
}

void enyx_hw_a2c_stream_destroy(enyx_hw_a2c_stream* stream) {
    performVoid(
        Call::kA2cStreamDestroy, [=] { closeStream<Up>(stream); }, [=](TraceLine& line) { line.stream(stream); });
}

ssize_t enyx_hw_accelerator_enumerate_c2a_streams(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                                                  enyx_hw_c2a_stream_descriptor** descriptors, size_t count) {
    return performCount(
        Call::kEnumerateC2aStreams, count,
        [=](std::size_t n) { return enumerateStreams<Down>(accelerator, filter, descriptors, n); },
        [=](TraceLine& line) { line.accelerator(accelerator).filter(filter); });
}

enyx_hw_c2a_stream* enyx_hw_c2a_stream_create(const enyx_hw_c2a_stream_descriptor* descriptor, const void*) {
    return perform(
        Call::kC2aStreamCreate, [=] { return openStream<Down>(descriptor); },
        [=](TraceLine& line) { line.descriptor(descriptor); });
}

void enyx_hw_free_c2a_stream_descriptors(enyx_hw_c2a_stream_descriptor** descriptors, size_t count) {
    performVoid(
        Call::kFreeC2aStreamDescriptors, [=] { freeDescriptors(descriptors, count); },
        [=](TraceLine& line) { line.number("count", static_cast<std::int64_t>(count)); });
}

int enyx_hw_c2a_stream_get_mtu(const enyx_hw_c2a_stream* stream, uint32_t* mtu) {
    return performGet(Call::kC2aStreamGetMtu, stream, mtu, getMtu<enyx_hw_c2a_stream>);
}

int enyx_hw_c2a_stream_send(enyx_hw_c2a_stream* stream, const void* data, uint32_t size) {
    return perform(
        Call::kC2aStreamSend, [=] { return send(stream, data, size); },
        [=](TraceLine& line) { line.stream(stream).number("size", size); });
}

void enyx_hw_c2a_stream_destroy(enyx_hw_c2a_stream* stream) {
    performVoid(
        Call::kC2aStreamDestroy, [=] { closeStream<Down>(stream); }, [=](TraceLine& line) { line.stream(stream); });
}
