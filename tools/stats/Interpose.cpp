// The calls of registers and streams, counted. Each makes the same call of the hardware library and returns its result
// and its errno unchanged. None of these functions is noexcept: an exception of a packet handler must pass through, and
// so must the unwinding when its thread ends.

#include <dlfcn.h>
#include <cstring>

#include "tools/stats/Sources.h"

using namespace stats;
using tap::g_next;
using tap::KeepErrno;

void tap::cardsWereLookedUp() { noteFirst(vexo_stats::kCardLookedUp); }

// ---- registers ----

int enyx_hw_core_reset(enyx_hw_core* core) {
    const int result = g_next.enyx_hw_core_reset(core);
    const KeepErrno keep;
    noteLast(vexo_stats::kReset);
    return result;
}

int enyx_hw_write(enyx_hw_core* core, const enyx_hw_register_description* reg, uint64_t value) {
    const int result = g_next.enyx_hw_write(core, reg, value);
    const KeepErrno keep;
    noteFirst(vexo_stats::kFirstWrite);
    return result;
}

// ---- packets ----

namespace {

// The head of a packet: its type, and on the simulated card its length and its sequence number.
constexpr std::size_t kHeadBytes = 12;
constexpr std::size_t kLengthAt = 4;
constexpr std::size_t kSequenceAt = 8;
constexpr std::uint32_t kOrdinaryTypes = 32;

std::uint32_t word(const std::uint8_t* data, std::size_t at = 0) {
    std::uint32_t value;
    std::memcpy(&value, data + at, sizeof value);
    return value;
}

bool isSimulated() { return ::dlsym(RTLD_DEFAULT, "enyx_sim_is_simulated") != nullptr; }

void countPacket(Source& source, std::uint32_t slot, std::uint32_t size) {
    vexo_stats::addOne(source.counts.packets[slot]);
    vexo_stats::add(source.counts.bytes[slot], size);
}

// The time from the packet before to this one.
void countGap(Source& source) {
    vexo_stats::Stream& counts = source.counts;
    const std::uint64_t now = vexo_stats::startNow();
    const std::uint64_t gap = vexo_stats::between(counts.lastPacket, now);
    vexo_stats::set(counts.lastPacket, now);
    vexo_stats::addOne(counts.gaps[vexo_stats::bucketOf(gap)]);
}

// ---- what is rare: short packets, odd types, numbers out of turn ----

std::uint32_t slotOf(const std::uint8_t* data, std::uint32_t size) {
    if (size < sizeof(std::uint32_t)) return vexo_stats::kNoType;
    return word(data) < kOrdinaryTypes ? word(data) : std::uint32_t{vexo_stats::kOtherType};
}

[[gnu::noinline, gnu::cold]] void deliverOdd(const std::uint8_t* data, std::uint32_t size, void* context) {
    Source& source = *static_cast<Source*>(context);
    countPacket(source, slotOf(data, size), size);
    source.handler(data, size, source.context);
}

[[gnu::noinline, gnu::cold]] void deliverOddInTurn(const std::uint8_t* data, std::uint32_t size, void* context) {
    Source& source = *static_cast<Source*>(context);
    bool goesOn = true;
    if (size >= kHeadBytes && word(data, kSequenceAt) != source.next) {
        const auto ahead = static_cast<std::int32_t>(word(data, kSequenceAt) - source.next);
        goesOn = vexo_stats::countOutOfTurn(source.counts, ahead);
        if (goesOn) source.next = word(data, kSequenceAt);
    }
    if (goesOn) ++source.next;  // a packet without a number had the expected one
    deliverOdd(data, size, context);
}

// ---- every packet ----

void countAndDeliver(const std::uint8_t* data, std::uint32_t size, void* context) {
    Source& source = *static_cast<Source*>(context);
    countGap(source);
    if (size < sizeof(std::uint32_t)) return deliverOdd(data, size, context);
    const std::uint32_t type = word(data);
    if (type >= kOrdinaryTypes) return deliverOdd(data, size, context);
    countPacket(source, type, size);
    source.handler(data, size, source.context);
}

void countInTurnAndDeliver(const std::uint8_t* data, std::uint32_t size, void* context) {
    Source& source = *static_cast<Source*>(context);
    countGap(source);
    if (size < kHeadBytes) return deliverOddInTurn(data, size, context);
    const std::uint32_t type = word(data);
    if (type >= kOrdinaryTypes || word(data, kSequenceAt) != source.next) return deliverOddInTurn(data, size, context);
    ++source.next;
    countPacket(source, type, size);
    source.handler(data, size, source.context);
}

bool isQuote(const std::uint8_t* data, std::uint32_t size) {
    return size >= kHeadBytes && word(data) >= 17 && word(data) <= 20;
}

// Until a market-data packet has come: notes the steps of a start-up, and looks whether heads are the simulated card's.
// A simulated card may replay a capture of a real one.
[[gnu::cold]] void countFirst(const std::uint8_t* data, std::uint32_t size, void* context) {
    Source& source = *static_cast<Source*>(context);
    {
        const KeepErrno keep;
        noteFirst(vexo_stats::kFirstPacket);
        const bool isKnown = size >= kHeadBytes && word(data, kLengthAt) == size && isSimulated();
        if (isKnown) source.counts.sequenceKnown = 1;
        if (isQuote(data, size)) {
            noteFirst(vexo_stats::kFirstQuote);
            source.counting = source.counts.sequenceKnown != 0 ? countInTurnAndDeliver : countAndDeliver;
        }
    }
    return source.counts.sequenceKnown != 0 ? countInTurnAndDeliver(data, size, context)
                                            : countAndDeliver(data, size, context);
}

// The first packet after the stream was opened: its time is no gap.
[[gnu::cold]] void countOpening(const std::uint8_t* data, std::uint32_t size, void* context) {
    Source& source = *static_cast<Source*>(context);
    vexo_stats::expectFirst(source.counts, vexo_stats::startNow());
    source.counting = countFirst;
    countFirst(data, size, context);
}

// ---- polls ----

// What a thread polled that has polled nothing.
struct NoSource : Source {
    NoSource() { close(); }
} g_none;

// The stream that this thread polled last.
[[gnu::tls_model("initial-exec")]] thread_local Source* t_last = &g_none;

// After the poll.
int countPoll(Source& source, int result) {
    vexo_stats::Stream& counts = source.counts;
    if (__builtin_expect(result == 1, 1)) {
        const std::uint64_t time = vexo_stats::endNow() - counts.lastPacket;
        vexo_stats::add(counts.callbackClock, time);
        vexo_stats::addOne(counts.callbacks[vexo_stats::bucketOf(time)]);
        return 1;
    }
    if (result == 0) {
        vexo_stats::addOne(counts.idlePolls);
    } else {
        vexo_stats::addOne(counts.failedPolls);
    }
    return result;
}

// A thread's first poll of the stream, or one with another handler.
[[gnu::noinline, gnu::cold]] int pollSlow(enyx_hw_a2c_stream* stream, enyx_hw_a2c_stream_handler handler,
                                          void* context) {
    Source* source = stream != nullptr ? find(stream) : nullptr;
    if (source == nullptr || handler == nullptr) return g_next.enyx_hw_a2c_stream_poll_once(stream, handler, context);
    noteFirst(vexo_stats::kFirstPoll);
    source->handler = handler;
    source->context = context;
    t_last = source;
    return countPoll(*source, g_next.enyx_hw_a2c_stream_poll_once(stream, source->counting, source));
}

}  // namespace

enyx_hw_a2c_stream* enyx_hw_a2c_stream_create(const enyx_hw_a2c_stream_descriptor* descriptor,
                                              const void* configuration) {
    enyx_hw_a2c_stream* stream = g_next.enyx_hw_a2c_stream_create(descriptor, configuration);
    const KeepErrno keep;
    if (stream != nullptr && g_next.enyx_hw_a2c_stream_poll_once.isThere()) {
        openStream(stream, tap::origins().find(descriptor), countOpening);
    }
    return stream;
}

void enyx_hw_a2c_stream_destroy(enyx_hw_a2c_stream* stream) {
    closeStream(stream);
    g_next.enyx_hw_a2c_stream_destroy(stream);
}

int enyx_hw_a2c_stream_poll_once(enyx_hw_a2c_stream* stream, enyx_hw_a2c_stream_handler handler, void* context) {
    Source& source = *t_last;
    if (source.stream.load(std::memory_order_relaxed) != stream || source.handler != handler ||
        source.context != context) {
        return pollSlow(stream, handler, context);
    }
    return countPoll(source, g_next.enyx_hw_a2c_stream_poll_once.known()(stream, source.counting, &source));
}
