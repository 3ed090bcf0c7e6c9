// The calls of registers and streams, counted. Each makes the same call of the hardware library and returns its result
// and its errno unchanged. None of these functions is noexcept: an exception of a packet handler must pass through, and
// so must the unwinding when its thread ends.

#include <cstddef>
#include <cstring>

#include "tools/data/Sequence.h"
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

using vexo::data::Numbering;
using Expected = vexo::data::SequenceCounter::Expected;

constexpr std::size_t kHeadBytes = vexo::data::kHeadBytes;
constexpr std::uint32_t kOrdinaryTypes = 32;
static_assert(kOrdinaryTypes == Numbering::kTypes);

std::uint32_t word(const std::uint8_t* data, std::size_t at = 0) {
    std::uint32_t value;
    std::memcpy(&value, data + at, sizeof value);
    return value;
}

constexpr std::size_t kCountsAt = vexo_stats::kBlockBytes;  // of Source::counts, the second half of a source

// One more packet in its slot, and its bytes. Left to itself, the compiler first works out where the slot is.
void countPacket(Source& source, std::uint64_t slot, std::uint64_t size) {
    __asm__ volatile("incq %c[packets](%[source], %[slot], 8)\n\taddq %[size], %c[bytes](%[source], %[slot], 8)"
                     :
                     : [packets] "i"(kCountsAt + offsetof(vexo_stats::Stream, packets)),
                       [bytes] "i"(kCountsAt + offsetof(vexo_stats::Stream, bytes)), [source] "r"(&source),
                       [slot] "r"(slot), [size] "r"(size)
                     : "cc", "memory");
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

[[gnu::noinline, gnu::cold]] void deliverOutOfTurn(const std::uint8_t* data, std::uint32_t size, void* context) {
    Source& source = *static_cast<Source*>(context);
    source.sequence.take(source.counts, data, size);
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

// Each packet has a number in its head. Compares, then counts on, both in memory.
template <std::uint32_t kAt>
struct HeadNumber {
    static constexpr std::uint32_t kLeast = kHeadBytes;
    static bool isNext(const Expected& expected, std::uint32_t, const std::uint8_t* data, std::uint32_t) {
        bool isNext;
        __asm__("cmpl %[number], %[next]"
                : "=@cce"(isNext)
                : [next] "m"(expected.next[0]), [number] "r"(word(data, kAt)));
        return isNext;
    }
    static void goOn(Expected& expected, std::uint32_t) { vexo_stats::addOne(expected.next[0]); }
};

// Packets of some types have a number in their payload.
template <typename Number, bool kIsBigEndian, bool kIsByType>
struct FieldNumber {
    static constexpr std::uint32_t kLeast = sizeof(std::uint32_t);
    static bool isNext(const Expected& expected, std::uint32_t type, const std::uint8_t* data, std::uint32_t size) {
        if (size != expected.sizes[type]) return false;
        return vexo::data::loadUnsigned(data + expected.at[type], sizeof(Number), kIsBigEndian) ==
               static_cast<Number>(expected.next[kIsByType ? type : 0]);
    }
    static void goOn(Expected& expected, std::uint32_t type) {
        vexo_stats::addOne(expected.next[kIsByType ? type : 0]);
    }
};

template <class Place>
void countInTurnAndDeliver(const std::uint8_t* data, std::uint32_t size, void* context) {
    Source& source = *static_cast<Source*>(context);
    countGap(source);
    if (size < Place::kLeast) return deliverOutOfTurn(data, size, context);
    const std::uint32_t type = word(data);
    Expected& expected = source.sequence.expected;
    if (type >= kOrdinaryTypes || !Place::isNext(expected, type, data, size)) {
        return deliverOutOfTurn(data, size, context);
    }
    Place::goOn(expected, type);
    countPacket(source, type, size);
    source.handler(data, size, source.context);
}

// ---- which of these a stream needs ----

template <typename Number>
Handler inTurnBy(const Numbering& numbering) {
    if (numbering.isBigEndian) {
        return numbering.isByType ? countInTurnAndDeliver<FieldNumber<Number, true, true>>
                                  : countInTurnAndDeliver<FieldNumber<Number, true, false>>;
    }
    return numbering.isByType ? countInTurnAndDeliver<FieldNumber<Number, false, true>>
                              : countInTurnAndDeliver<FieldNumber<Number, false, false>>;
}

// @param numbering  null: nobody knows how the packets are numbered
Handler handlerFor(const Numbering* numbering) {
    if (numbering == nullptr) return countAndDeliver;
    if (numbering->place == Numbering::Place::kHead) {
        switch (numbering->headAt) {
            case 4: return countInTurnAndDeliver<HeadNumber<4>>;
            case 5: return countInTurnAndDeliver<HeadNumber<5>>;
            case 6: return countInTurnAndDeliver<HeadNumber<6>>;
            case 7: return countInTurnAndDeliver<HeadNumber<7>>;
            default: return countInTurnAndDeliver<HeadNumber<8>>;
        }
    }
    switch (numbering->width) {
        case 1: return inTurnBy<std::uint8_t>(*numbering);
        case 2: return inTurnBy<std::uint16_t>(*numbering);
        case 4: return inTurnBy<std::uint32_t>(*numbering);
        default: return inTurnBy<std::uint64_t>(*numbering);
    }
}

bool isQuote(const std::uint8_t* data, std::uint32_t size) {
    return size >= kHeadBytes && word(data) >= 17 && word(data) <= 20;
}

// Until it is known how the quotes are numbered.
[[gnu::cold]] void countFirst(const std::uint8_t* data, std::uint32_t size, void* context) {
    Source& source = *static_cast<Source*>(context);
    countGap(source);
    source.sequence.take(source.counts, data, size);
    if (isQuote(data, size)) {
        noteFirst(vexo_stats::kFirstQuote);
        if (source.sequence.isDecided()) source.counting = handlerFor(source.sequence.numbering());
    }
    deliverOdd(data, size, context);
}

// The first packet after the stream was opened: its time is no gap.
[[gnu::cold]] void countOpening(const std::uint8_t* data, std::uint32_t size, void* context) {
    Source& source = *static_cast<Source*>(context);
    vexo_stats::expectFirst(source.counts, vexo_stats::startNow());
    noteFirst(vexo_stats::kFirstPacket);
    source.counting = countFirst;
    countFirst(data, size, context);
}

// ---- polls ----

// What a thread polled that has polled nothing. A constant, because a poll may come before any constructor ran.
Source g_none(&Source::kNoStream);

// The stream that this thread polled last.
[[gnu::tls_model("initial-exec")]] thread_local Source* t_last = &g_none;

// What the card calls for each packet of this poll. Without a handler the poll is an error, and the card has to see
// that there is none. The compiler would make a branch of it.
Handler countingFor(const Source& source, Handler handler) {
    __asm__("testq %0, %0\n\tcmovneq %1, %0" : "+r"(handler) : "m"(source.counting) : "cc");
    return handler;
}

// After the poll. The result of the usual one is made anew, because the clock takes the register that it is in.
int countPoll(Source& source, int result) {
    vexo_stats::Stream& counts = source.counts;
    if (__builtin_expect(result == 1, 1)) {
        const std::uint64_t time = vexo_stats::endNow() - counts.lastPacket;
        vexo_stats::add(counts.callbackClock, time);
        vexo_stats::addOne(counts.callbacks[vexo_stats::bucketOf(time)]);
        int one;
        __asm__("movl $1, %0" : "=r"(one));
        return one;
    }
    if (result == 0) {
        vexo_stats::addOne(counts.idlePolls);
    } else {
        vexo_stats::addOne(counts.failedPolls);
    }
    return result;
}

// Compares in memory. Another thread may close this thread's last stream and open another one in its place.
bool isOf(const Source& source, const enyx_hw_a2c_stream* stream) {
    bool isIt;
    __asm__("cmpq %[stream], %[now]" : "=@cce"(isIt) : [now] "m"(source.stream), [stream] "r"(stream));
    return isIt;
}

// The thread polled another stream before.
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
    if (!isOf(source, stream)) return pollSlow(stream, handler, context);
    source.handler = handler;
    source.context = context;
    return countPoll(source, source.poll(stream, countingFor(source, handler), &source));
}
