// The calls of registers and streams, counted. Each makes the same call of the hardware library and returns its result
// and its errno unchanged. None of these functions is noexcept: an exception of a packet handler must pass through, and
// so must the unwinding when its thread ends.

#include <cstddef>
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

// One more packet in its slot, and its bytes. Left to itself, the compiler first works out where the slot is.
void countPacket(Source& source, std::uint64_t slot, std::uint64_t size) {
    __asm__ volatile("incq %c[packets](%[source], %[slot], 8)\n\taddq %[size], %c[bytes](%[source], %[slot], 8)"
                     :
                     : [packets] "i"(offsetof(Source, counts) + offsetof(vexo_stats::Stream, packets)),
                       [bytes] "i"(offsetof(Source, counts) + offsetof(vexo_stats::Stream, bytes)),
                       [source] "r"(&source), [slot] "r"(slot), [size] "r"(size)
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

// Compares, then counts on, both in memory.
bool isNext(Source& source, std::uint32_t sequence) {
    bool isNext;
    __asm__("cmpl %[sequence], %[next]" : "=@cce"(isNext) : [next] "m"(source.next), [sequence] "r"(sequence));
    if (isNext) __asm__("incl %0" : "+m"(source.next) : : "cc");
    return isNext;
}

void countInTurnAndDeliver(const std::uint8_t* data, std::uint32_t size, void* context) {
    Source& source = *static_cast<Source*>(context);
    countGap(source);
    if (size < kHeadBytes) return deliverOddInTurn(data, size, context);
    const std::uint32_t type = word(data);
    if (type >= kOrdinaryTypes || !isNext(source, word(data, kSequenceAt)))
        return deliverOddInTurn(data, size, context);
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
        const bool isNumbered = size >= kHeadBytes && word(data, kLengthAt) == size && source.isSimulated;
        if (isNumbered) source.counts.sequenceKnown = 1;
        if (isNumbered && !source.hasNext) source.next = word(data, kSequenceAt);
        source.hasNext = source.hasNext || isNumbered;
        if (isQuote(data, size)) {
            noteFirst(vexo_stats::kFirstQuote);
            source.counting = source.hasNext ? countInTurnAndDeliver : countAndDeliver;
        }
    }
    return source.hasNext ? countInTurnAndDeliver(data, size, context) : countAndDeliver(data, size, context);
}

// The first packet after the stream was opened: its time is no gap.
[[gnu::cold]] void countOpening(const std::uint8_t* data, std::uint32_t size, void* context) {
    Source& source = *static_cast<Source*>(context);
    vexo_stats::expectFirst(source.counts, vexo_stats::startNow());
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
