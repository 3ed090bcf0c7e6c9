#include "tools/stats/Sources.h"

#include <VexoZceMdStats.h>
#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>

#include "tools/stats/Settings.h"
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

// Never deleted: a poll may be under way when the process ends.
std::atomic<Page*> g_page{nullptr};
std::atomic<State> g_state{State::kNotBegun};
std::mutex g_beginMutex;
cpu_set_t g_cpusAtStart;  // before the application pinned a thread
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

// The application's signal handlers must not run in the reader.
void startReader(Page& page) {
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        page.reader = std::thread([&page] { runReader(page); });
    } catch (const std::system_error& error) {
        tap::report(std::string("cannot start a thread: ") + error.what() + "; counters of the card are not shown");
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void turnOff() {
    g_state.store(State::kOff);
    for (Source& source : g_sources) source.close();
    tap::origins().end();
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
    page.file.close();
    return isMapped;
}

// The library with the card's calls is loaded by now, so its objects end after this.
void begin() {
    const std::lock_guard<std::mutex> lock(g_beginMutex);
    if (g_state.load() != State::kNotBegun) return;
    auto* page = new (std::nothrow) Page;
    if (page == nullptr || !page->file.make(vexo_stats::kTap) || !map(*page)) {
        tap::report("no statistics page: " +
                    (page != nullptr && !page->file.error().empty() ? page->file.error() : std::string("no memory")));
        g_state.store(State::kOff);
        return;
    }
    vexo_stats::describe(*page->process, vexo_stats::kTap);
    page->layouts = tap::knownLayouts();
    page->longCallback = page->process->clockPerSecond / kMicroseconds * ringLastsMicroseconds();
    ::pthread_atfork(nullptr, nullptr, turnOff);  // the page is the parent's
    g_page.store(page);
    g_state.store(State::kRunning);
    std::atexit(end);
}

Page* running() {
    if (g_state.load(std::memory_order_acquire) == State::kNotBegun) begin();
    return g_state.load(std::memory_order_acquire) == State::kRunning ? g_page.load() : nullptr;
}

// The block of the same stream when it is opened again, or a new one.
Source* sourceFor(const Page& page, std::uint64_t card, std::uint64_t channel) {
    for (Source& source : g_sources) {
        if (source.isOpen()) continue;
        Stream& counts = source.counts;
        if (counts.state == vexo_stats::kClosed && (counts.card != card || counts.channel != channel)) continue;
        if (counts.state != vexo_stats::kUnused) return &source;
        counts.pollsKnown = 1;
        counts.longCallback = page.longCallback;
        vexo_stats::describe(counts, card, channel);
        return &source;
    }
    return nullptr;
}

}  // namespace

void noteLast(vexo_stats::Step step) {
    Page* page = running();
    if (page != nullptr) __atomic_store_n(&page->process->steps[step], vexo_stats::startNow(), __ATOMIC_RELAXED);
}

void noteFirst(vexo_stats::Step step) {
    const Page* page = running();
    if (page == nullptr) return;
    std::uint64_t notYet = 0;
    __atomic_compare_exchange_n(&page->process->steps[step], &notYet, vexo_stats::startNow(), false, __ATOMIC_RELAXED,
                                __ATOMIC_RELAXED);
}

void openStream(enyx_hw_a2c_stream* stream, const tap::Origin& origin, Handler counting) {
    Page* page = running();
    if (page == nullptr) return;
    noteFirst(vexo_stats::kStreamOpened);
    const auto number = [](std::int64_t value) {
        return value == tap::Origin::kUnknown ? vexo_stats::kUnknown : static_cast<std::uint64_t>(value);
    };
    const std::lock_guard<std::mutex> lock(page->streamsMutex);
    if (Source* before = find(stream)) before->close();  // freed in another way than by a destroy call
    Source* source = sourceFor(*page, number(origin.card), number(origin.index));
    if (source == nullptr) {
        tap::report("no room for " + tap::describeStream(origin).name + " in the statistics page: it is not counted");
        return;
    }
    source->counting = counting;
    source->handler = nullptr;
    source->sequence.restart(page->layouts.get());
    source->absence.start(source->counts);
    source->card.start(source->counts, askCard(stream), source->counts.sequenceLost);
    source->counts.state = vexo_stats::kOpen;
    source->stream.store(stream, std::memory_order_release);
    if (!page->reader.joinable()) startReader(*page);
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
