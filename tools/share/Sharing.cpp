#include "tools/share/Sharing.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <new>
#include <string>
#include <thread>

#include "tools/stats/CardCounters.h"
#include "tools/tap/AllSignalsBlocked.h"
#include "tools/tap/Report.h"
#include "tools/tap/TapClock.h"

namespace share {

std::array<Shared, kStreams> g_shared;

namespace {

constexpr auto kBetweenReads = std::chrono::milliseconds(100);
constexpr std::uint64_t kMegabyte = 1U << 20;

// Of the thread that reads the card's counters.
struct Counted {
    std::uint32_t card = 0;
    std::uint32_t channel = 0;
    stats::CardCounters counters;
    vexo_stats::Stream sums{};
};

struct Sharing {
    std::array<Counted, kStreams> counted;
    std::mutex streamsMutex;  // held while streams are opened and closed, and while the card's counters are read
    std::condition_variable wake;
    bool isEnding = false;
    std::thread reader;
};

enum class State { kNotBegun, kRunning, kOff };

// Never deleted once it is used: a poll may be under way when the process ends.
std::atomic<Sharing*> g_sharing{nullptr};
std::atomic<State> g_state{State::kNotBegun};
std::once_flag g_begin;
cpu_set_t g_cpusAtStart;  // before the application pinned a thread
bool g_cpusKnown = false;

[[gnu::constructor]] void rememberCpus() {
    g_cpusKnown = ::sched_getaffinity(0, sizeof g_cpusAtStart, &g_cpusAtStart) == 0;
}

std::uint64_t ringBytes() {
    const char* const text = std::getenv(kRingVariable);
    if (text == nullptr || *text == '\0') return kDefaultRingMb * kMegabyte;
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text, &end, 10);
    const bool isNumber = *text >= '0' && *text <= '9' && *end == '\0' && errno == 0;
    if (isNumber && value >= 1 && value <= kMostRingBytes / kMegabyte) return value * kMegabyte;
    tap::report(std::string(kRingVariable) + "=" + text + " is not a number from 1 to " +
                std::to_string(kMostRingBytes / kMegabyte) + ": " + std::to_string(kDefaultRingMb) + " is used");
    return kDefaultRingMb * kMegabyte;
}

void readCard(Counted& counted, Shared& shared) {
    vexo_stats::Stream& sums = counted.sums;
    counted.counters.add(sums, stats::askCard(shared.stream.load(std::memory_order_relaxed)), false);
    const auto orZero = [](std::uint64_t n) { return n == vexo_stats::kUnknown ? 0 : n; };
    shared.ring->setCard({orZero(sums.backPressure), orZero(sums.fifoErrors), orZero(sums.errors)});
}

void readAll(Sharing& sharing) {
    for (std::size_t i = 0; i < kStreams; ++i)
        if (g_shared[i].isOpen()) readCard(sharing.counted[i], g_shared[i]);
}

// A thread of its own: a read of the card's registers would delay the packets of a polling thread.
void runReader(Sharing& sharing) {
    if (g_cpusKnown) ::pthread_setaffinity_np(::pthread_self(), sizeof g_cpusAtStart, &g_cpusAtStart);
    ::pthread_setname_np(::pthread_self(), "vexo-share");
    std::unique_lock<std::mutex> lock(sharing.streamsMutex);
    while (!sharing.wake.wait_for(lock, kBetweenReads, [&sharing] { return sharing.isEnding; })) readAll(sharing);
    readAll(sharing);
}

void startReader(Sharing& sharing) {
    const tap::AllSignalsBlocked blocked;  // also in the reader: the application's handlers must not run there
    try {
        sharing.reader = std::thread([&sharing] { runReader(sharing); });
    } catch (const std::exception& error) {  // no thread, or no memory
        tap::report(std::string("cannot start a thread: ") + error.what() +
                    "; the relay learns no counters of the card");
    }
}

void forgetStreams() {
    g_state.store(State::kOff);
    for (Shared& shared : g_shared) shared.stream.store(&Shared::kNoStream, std::memory_order_release);
    tap::origins().end();
}

// In a child of fork(): the rings are the parent's. The fork may have come from a packet's handler.
void leaveToParent() {
    forgetStreams();
    for (Shared& shared : g_shared)
        if (shared.ring != nullptr) shared.ring->leaveToParent();
}

// At exit, and before the objects of the card's library end: they were there first.
void end() {
    if (g_state.load() != State::kRunning) return;
    Sharing& sharing = *g_sharing.load();
    if (sharing.reader.joinable()) {
        {
            const std::lock_guard<std::mutex> lock(sharing.streamsMutex);
            sharing.isEnding = true;
        }
        sharing.wake.notify_all();
        sharing.reader.join();
    }
    forgetStreams();
    for (Shared& shared : g_shared)
        if (shared.ring != nullptr) shared.ring->end();
}

// The library with the card's calls is loaded by now, so its objects end after this.
void begin() {
    tap::clock_ticks::choose();
    ::pthread_atfork(nullptr, nullptr, leaveToParent);
    g_sharing.store(new (std::nothrow) Sharing);
    g_state.store(g_sharing.load() != nullptr ? State::kRunning : State::kOff);
    std::atexit(end);
}

Sharing* running() {
    if (g_state.load(std::memory_order_acquire) == State::kOff) return nullptr;
    std::call_once(g_begin, begin);
    return g_state.load(std::memory_order_acquire) == State::kRunning ? g_sharing.load() : nullptr;
}

// Under streamsMutex.
void close(Sharing& sharing, Shared& shared, bool asksCard) {
    if (asksCard) readCard(sharing.counted[static_cast<std::size_t>(&shared - g_shared.data())], shared);
    shared.stream.store(&Shared::kNoStream, std::memory_order_release);
    shared.ring->end();
}

// A library may free a stream in another way than by a destroy call. Its handle comes back then, or its place.
void closeFreed(Sharing& sharing, const void* stream, std::uint32_t card, std::uint32_t channel) {
    for (std::size_t i = 0; i < kStreams; ++i) {
        const Counted& counted = sharing.counted[i];
        const bool isSame = g_shared[i].stream.load() == stream || (counted.card == card && counted.channel == channel);
        if (g_shared[i].isOpen() && isSame) close(sharing, g_shared[i], false);
    }
}

std::uint32_t mtuOf(const enyx_hw_a2c_stream* stream) {
    std::uint32_t mtu = 0;
    const bool isKnown = tap::g_next.enyx_hw_a2c_stream_get_mtu.isThere() &&
                         tap::g_next.enyx_hw_a2c_stream_get_mtu(stream, &mtu) == 0;
    return isKnown && mtu != 0 ? std::min(mtu, kMostPacketBytes) : kMostPacketBytes;
}

// @return why the stream is not shared; empty when it is
std::string open(Sharing& sharing, const enyx_hw_a2c_stream* stream, const tap::Origin& origin) {
    RingWriter::Stream what;
    what.card = static_cast<std::uint32_t>(origin.card);
    what.channel = static_cast<std::uint32_t>(origin.index);
    what.mtu = mtuOf(stream);
    what.flags = ::dlsym(RTLD_DEFAULT, "enyx_sim_is_simulated") != nullptr ? kSimulated : 0;
    const std::lock_guard<std::mutex> lock(sharing.streamsMutex);
    closeFreed(sharing, stream, what.card, what.channel);
    const auto free = std::find_if(g_shared.begin(), g_shared.end(), [](const Shared& one) { return !one.isOpen(); });
    if (free == g_shared.end()) return "there are too many streams";
    if (free->ring == nullptr) free->ring = new RingWriter;
    if (!free->ring->make(what, ringBytes())) return free->ring->error();
    Counted& counted = sharing.counted[static_cast<std::size_t>(free - g_shared.begin())];
    counted = {};
    counted.card = what.card;
    counted.channel = what.channel;
    vexo_stats::describe(counted.sums, what.card, what.channel);
    counted.counters.start(counted.sums, stats::askCard(stream), 0);
    free->limit = what.mtu;
    free->stream.store(stream, std::memory_order_release);
    if (!sharing.reader.joinable()) startReader(sharing);
    return {};
}

}  // namespace

void openStream(const enyx_hw_a2c_stream* stream, const tap::Origin& origin) {
    Sharing* const sharing = running();
    if (sharing == nullptr) return;
    std::string fault = "it has no number";
    try {
        if (origin.card != tap::Origin::kUnknown && origin.index != tap::Origin::kUnknown)
            fault = open(*sharing, stream, origin);
        if (!fault.empty()) tap::report(tap::describeStream(origin).name + " is not shared: " + fault);
    } catch (const std::bad_alloc&) {
        // Not shared, and no memory to say so. The application goes on.
    }
}

void closeStream(const void* stream) {
    if (stream == nullptr || g_state.load(std::memory_order_acquire) != State::kRunning) return;
    Sharing& sharing = *g_sharing.load();
    const std::lock_guard<std::mutex> lock(sharing.streamsMutex);
    Shared* const shared = find(stream);
    if (shared != nullptr) close(sharing, *shared, true);
}

}  // namespace share
