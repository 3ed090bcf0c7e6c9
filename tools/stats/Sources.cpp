#include "tools/stats/Sources.h"

#include <VexoZceMdStatsFile.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <thread>

#include "tools/stats/Settings.h"
#include "tools/tap/AllSignalsBlocked.h"
#include "tools/tap/KnownLayouts.h"
#include "tools/tap/Report.h"

namespace stats {

std::array<Source, vexo_stats::kStreams> g_sources;

namespace {

using vexo_stats::PageFile;
using vexo_stats::Process;
using vexo_stats::Stream;

constexpr auto kBetweenReads = std::chrono::milliseconds(100);
constexpr std::uint64_t kMicroseconds = 1'000'000;

struct Page {
    PageFile file;
    Process* process = nullptr;
    std::uint64_t longCallback = 0;
    std::unique_ptr<vexo::data::Layouts> layouts;  // null: none is known
    std::mutex streamsMutex;  // held while streams are opened and closed, and while the card's counters are read
    std::condition_variable wake;
    bool isEnding = false;
    std::thread reader;
};

enum class State { kNotBegun, kRunning, kOff };

// Never deleted once it is used: a poll may be under way when the process ends.
std::atomic<Page*> g_page{nullptr};
std::atomic<State> g_state{State::kNotBegun};
std::atomic<pid_t> g_beginner{0};  // process whose thread makes the page, or has made it
cpu_set_t g_cpusAtStart;           // before the application pinned a thread
bool g_cpusKnown = false;

[[gnu::constructor]] void rememberCpus() {
    g_cpusKnown = ::sched_getaffinity(0, sizeof g_cpusAtStart, &g_cpusAtStart) == 0;
}

void readCard(Source& source) {
    const void* const stream = source.stream.load(std::memory_order_relaxed);
    const bool byApplication = source.absence.look(source.counts);
    const std::uint64_t missing = __atomic_load_n(&source.counts.sequenceLost, __ATOMIC_RELAXED);
    source.card.add(source.counts, askCard(stream), byApplication);
    source.card.noteLostBeforeCard(source.counts, missing);
}

void readAll() {
    for (Source& source : g_sources) {
        if (source.isOpen()) readCard(source);
    }
}

// A thread of its own: a read of the card's registers would delay the packets of a polling thread.
void runReader(Page& page) {
    if (g_cpusKnown) ::pthread_setaffinity_np(::pthread_self(), sizeof g_cpusAtStart, &g_cpusAtStart);
    ::pthread_setname_np(::pthread_self(), "vexo-stats");
    std::unique_lock<std::mutex> lock(page.streamsMutex);
    while (!page.wake.wait_for(lock, kBetweenReads, [&page] { return page.isEnding; })) readAll();
    readAll();
}

void startReader(Page& page) {
    const tap::AllSignalsBlocked blocked;  // also in the reader: the application's handlers must not run there
    try {
        page.reader = std::thread([&page] { runReader(page); });
    } catch (const std::exception& error) {  // no thread, or no memory
        tap::report(std::string("cannot start a thread: ") + error.what() + "; counters of the card are not shown");
    }
}

void turnOff() {
    g_state.store(State::kOff);
    for (Source& source : g_sources) source.close();
    tap::origins().end();
}

void mapNothing(void* block) {
    ::mmap(block, vexo_stats::kBlockBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
}

// In a child of fork(): the page is the parent's. The fork may have come from a packet's handler, whose poll still
// counts when the handler returns, or while another thread made the page.
void leaveToParent() {
    if (g_beginner.load() == 0) return;
    turnOff();
    for (Source& source : g_sources) mapNothing(&source.counts);
    const Page* page = g_page.load();
    if (page != nullptr) mapNothing(page->process);
}

// At exit, and before the objects of the card's library end: they were there first.
void end() {
    if (g_state.load() != State::kRunning) return;
    Page& page = *g_page.load();
    if (page.reader.joinable()) {
        {
            const std::lock_guard<std::mutex> lock(page.streamsMutex);
            page.isEnding = true;
        }
        page.wake.notify_all();
        page.reader.join();
    }
    turnOff();
    page.file.end(*page.process);
}

bool map(Page& page) {
    page.process = static_cast<Process*>(page.file.map(0, 1));
    bool isMapped = page.process != nullptr;
    for (std::size_t i = 0; i < g_sources.size(); ++i) {
        isMapped = isMapped && page.file.map(1 + i, 1, &g_sources[i].counts) != nullptr;
    }
    return isMapped;
}

bool makePage(Page& page) {
    if (!page.file.make(vexo_stats::kTap) || !map(page)) return false;
    vexo_stats::describe(*page.process, vexo_stats::kTap);
    page.layouts = tap::knownLayouts();
    page.longCallback = page.process->clockPerSecond / kMicroseconds * ringLastsMicroseconds();
    const bool isPublished = page.file.publish(*page.process);
    page.file.close();
    return isPublished;
}

// The library with the card's calls is loaded by now, so its objects end after this.
void begin() {
    ::pthread_atfork(nullptr, nullptr, leaveToParent);
    std::unique_ptr<Page> page(new (std::nothrow) Page);
    if (page == nullptr || !makePage(*page)) {
        tap::report("no statistics page: " + (page != nullptr ? page->file.error() : std::string("no memory")));
        g_state.store(State::kOff);
        return;
    }
    g_page.store(page.release());
    g_state.store(State::kRunning);
    std::atexit(end);
}

void beginOnce() {
    pid_t beginner = 0;
    if (g_beginner.compare_exchange_strong(beginner, ::getpid())) {
        try {
            begin();
        } catch (const std::bad_alloc&) {
            g_state.store(State::kOff);
        }
    }
    // Another thread is about it. In a child of fork() there is no such thread, and no page.
    while (g_state.load(std::memory_order_acquire) == State::kNotBegun && g_beginner.load() == ::getpid()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

Page* running() {
    if (g_state.load(std::memory_order_acquire) == State::kNotBegun) beginOnce();
    return g_state.load(std::memory_order_acquire) == State::kRunning ? g_page.load() : nullptr;
}

// A library may free a stream in another way than by a destroy call. Its handle comes back then, or its place.
void closeFreed(const void* stream, std::uint64_t card, std::uint64_t channel) {
    for (Source& source : g_sources) {
        if (!source.isOpen()) continue;
        const bool isSamePlace = card != vexo_stats::kUnknown && channel != vexo_stats::kUnknown &&
                                 source.counts.card == card && source.counts.channel == channel;
        if (!isSamePlace && source.stream.load() != stream) continue;
        source.close();
        source.counts.state = vexo_stats::kClosed;
    }
}

// The block of the same stream when it is opened again, or a new one.
Source* sourceFor(const Page& page, std::uint64_t card, std::uint64_t channel) {
    for (Source& source : g_sources) {
        const Stream& counts = source.counts;
        if (counts.state == vexo_stats::kClosed && counts.card == card && counts.channel == channel) return &source;
    }
    for (Source& source : g_sources) {
        Stream& counts = source.counts;
        if (counts.state != vexo_stats::kUnused) continue;
        vexo_stats::describe(counts, card, channel);
        counts.pollsKnown = 1;
        counts.longCallback = page.longCallback;
        return &source;
    }
    return nullptr;
}

void open(Page& page, const enyx_hw_a2c_stream* stream, const tap::Origin& origin, Handler counting) {
    const auto number = [](std::int64_t value) {
        return value == tap::Origin::kUnknown ? vexo_stats::kUnknown : static_cast<std::uint64_t>(value);
    };
    const std::lock_guard<std::mutex> lock(page.streamsMutex);
    closeFreed(stream, number(origin.card), number(origin.index));
    Source* source = sourceFor(page, number(origin.card), number(origin.index));
    if (source == nullptr) {
        tap::report("no room for " + tap::describeStream(origin).name + " in the statistics page: it is not counted");
        return;
    }
    source->counting = counting;
    source->handler = nullptr;
    source->poll = tap::g_next.enyx_hw_a2c_stream_poll_once.known();
    source->sequence.restart(page.layouts.get());
    source->absence.start(source->counts);
    source->card.start(source->counts, askCard(stream), source->counts.sequenceLost);
    source->counts.state = vexo_stats::kOpen;
    source->stream.store(stream, std::memory_order_release);
    if (!page.reader.joinable()) startReader(page);
}

}  // namespace

void noteLast(vexo_stats::Step step) {
    Page* page = running();
    if (page != nullptr) __atomic_store_n(&page->process->steps[step], vexo_stats::startNow(), __ATOMIC_RELAXED);
}

// Steps are noted once, but looked at as often as polls of several streams alternate.
void noteFirst(vexo_stats::Step step) {
    const Page* page = running();
    if (page == nullptr || __atomic_load_n(&page->process->steps[step], __ATOMIC_RELAXED) != 0) return;
    std::uint64_t notYet = 0;
    __atomic_compare_exchange_n(&page->process->steps[step], &notYet, vexo_stats::startNow(), false, __ATOMIC_RELAXED,
                                __ATOMIC_RELAXED);
}

void openStream(enyx_hw_a2c_stream* stream, const tap::Origin& origin, Handler counting) {
    Page* page = running();
    if (page == nullptr) return;
    noteFirst(vexo_stats::kStreamOpened);
    try {
        open(*page, stream, origin, counting);
    } catch (const std::bad_alloc&) {
        // Not counted, and no memory to say so. The application goes on.
    }
}

void closeStream(const void* stream) {
    if (stream == nullptr || g_state.load(std::memory_order_acquire) != State::kRunning) return;
    const std::lock_guard<std::mutex> lock(g_page.load()->streamsMutex);
    Source* source = find(stream);
    if (source == nullptr) return;
    readCard(*source);
    source->close();
    source->counts.state = vexo_stats::kClosed;
}

}  // namespace stats
