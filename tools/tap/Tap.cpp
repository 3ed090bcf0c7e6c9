#include "tools/tap/Tap.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <thread>

#include "tools/Version.h"
#include "tools/stats/CardCounters.h"
#include "tools/tap/AllSignalsBlocked.h"
#include "tools/tap/Report.h"
#include "tools/tap/TapPage.h"

namespace tap {

StreamTable g_streams;

namespace {

constexpr auto kIdle = std::chrono::milliseconds(1);
constexpr auto kFlushEvery = std::chrono::milliseconds(100);

using Clock = std::chrono::steady_clock;

struct Capture {
    Capture(const Settings& s, capture::CaptureFiles::Settings files) : settings(s), writer(s, std::move(files)) {
        writer.countWith([this](const capture::InterfaceInfo& info) { return page.newStats(info); });
    }

    Settings settings;
    TapPage page;
    TapWriter writer;
    std::mutex registerMutex;  // register accesses come from any thread; they are rare
    Source* registers = nullptr;
    std::atomic<Clock::rep> firstStream{0};  // when it was opened; 0 = no stream yet
    std::atomic<bool> ending{false};
    std::thread thread;
};

enum class State { kNotBegun, kRunning, kOff };

// Never deleted: a poll or an access may be under way when the process ends.
std::atomic<Capture*> g_capture{nullptr};
std::atomic<State> g_state{State::kNotBegun};
std::mutex g_beginMutex;
std::mutex g_streamsMutex;  // held while g_streams changes, and while the card is asked for its counters
bool g_cardAnswers = true;  // until the recording or the card's library ends; under g_streamsMutex
cpu_set_t g_cpusAtStart;    // before the application pinned a thread
bool g_cpusKnown = false;

std::string hardwareName() {
    Dl_info info{};
    void* call = ::dlsym(RTLD_NEXT, "enyx_hw_a2c_stream_poll_once");
    const bool simulated = ::dlsym(RTLD_DEFAULT, "enyx_sim_is_simulated") != nullptr;
    const std::string kind = simulated ? "simulated card" : "card";
    if (call == nullptr || ::dladdr(call, &info) == 0 || info.dli_fname == nullptr) return kind;
    return kind + " behind " + info.dli_fname;
}

std::string osName() {
    utsname name{};
    if (::uname(&name) != 0) return "";
    return std::string(name.sysname) + " " + name.release + " " + name.machine;
}

std::string applicationName() {
    return std::string(program_invocation_short_name) + " (process " + std::to_string(::getpid()) +
           "), captured by vexo tap " + kVexoVersion;
}

capture::CaptureFiles::Settings fileSettings(const Settings& settings) {
    capture::CaptureFiles::Settings files;
    files.path = settings.file;
    files.rotateBytes = settings.rotateBytes;
    files.rotateEveryNs = settings.rotateSeconds * 1'000'000'000;
    files.recorder = {settings.keep, settings.keepFreeBytes};
    files.section = {hardwareName(), osName(), applicationName()};
    files.report = report;
    return files;
}

stats::CardReading askCard(const Source& source) {
    if (!g_cardAnswers || source.stream == nullptr) return {};
    return stats::askCard(source.stream);
}

// What the card has counted for the streams. In the writer's thread: the answers take time, and no packet must wait.
void readCards(Capture& capture) {
    capture.writer.eachSource([&capture](Source& source) {
        if (source.stats == nullptr || !source.described) return;
        StreamStats& stats = *source.stats;
        stats.beginLook(source.presence, source.ring);
        std::vector<StreamStats::Noted> noted;
        {
            const std::lock_guard<std::mutex> lock(g_streamsMutex);
            if (g_cardAnswers && source.stream != nullptr)
                stats.note(askCard(source), StreamStats::When::kOpen, source.ring.lost());
            noted = stats.takeNoted();
        }
        capture::CaptureFiles& files = capture.writer.files();
        const std::uint64_t lostInRing = source.ring.lost();
        stats.endLook(noted, lostInRing, files.lost(source.interface) + lostInRing - source.lostCounted);
        files.setCard(source.interface, stats.card());
    });
}

// Asks a last time. Under g_streamsMutex.
void askLast(Capture& capture, StreamStats::When when) {
    capture.writer.eachSource([when](Source& source) {
        if (source.stats != nullptr && source.stream != nullptr)
            source.stats->note(askCard(source), when, source.ring.lost());
    });
    g_cardAnswers = false;
}

// At exit, before the objects of the card's library end: they were there first.
void askLastAtExit() {
    Capture* capture = g_capture.load();
    if (capture == nullptr || g_state.load() != State::kRunning) return;
    const std::lock_guard<std::mutex> lock(g_streamsMutex);
    askLast(*capture, StreamStats::When::kOpen);
}

void tellResult(const Capture& capture) {
    const capture::CaptureFiles& files = capture.writer.files();
    reportResult(files.written(), files.files(), files.lost());
}

// After this, calls go to the card and are not recorded.
void turnOff() {
    g_state.store(State::kOff);
    g_streams.clear();
    origins().end();
}

// The program goes on, and its polls find no ring any more. It may destroy a stream from now on without our knowing.
void stopRecording(Capture& capture) {
    const std::lock_guard<std::mutex> lock(g_streamsMutex);
    askLast(capture, StreamStats::When::kClosed);
    turnOff();
}

// Registers are accessed long before the first stream is opened: a start-up may take minutes.
bool isDurationOver(const Capture& capture, Clock::time_point now) {
    const Clock::duration first(capture.firstStream.load(std::memory_order_relaxed));
    const std::chrono::seconds duration(capture.settings.durationSeconds);
    return first.count() != 0 && duration.count() > 0 && now.time_since_epoch() - first >= duration;
}

void runWriter(Capture& capture) {
    if (g_cpusKnown) ::pthread_setaffinity_np(::pthread_self(), sizeof g_cpusAtStart, &g_cpusAtStart);
    ::pthread_setname_np(::pthread_self(), "vexo-tap");
    capture.writer.startClock();
    auto flushed = Clock::now();
    bool isOver = false;
    while (!isOver && !capture.ending.load(std::memory_order_acquire)) {
        if (!capture.writer.drain()) std::this_thread::sleep_for(kIdle);
        const auto now = Clock::now();
        isOver = isDurationOver(capture, now);
        if (now - flushed < kFlushEvery) continue;
        readCards(capture);
        capture.writer.flush();
        flushed = now;
    }
    if (isOver) stopRecording(capture);
    capture.writer.drainAll();
    readCards(capture);
    capture.writer.finish();
    if (isOver)
        report("recorded for " + std::to_string(capture.settings.durationSeconds) + " seconds: the recording ends");
    tellResult(capture);
}

bool startWriter(Capture& capture) {
    const AllSignalsBlocked blocked;  // also in the writer: the application's handlers must not run there
    try {
        capture.thread = std::thread([&capture] { runWriter(capture); });
    } catch (const std::exception& error) {  // no thread, or no memory
        report(std::string("cannot start the writer: ") + error.what() + "; nothing is captured");
        return false;
    }
    return true;
}

// A child of fork() has no writer, and must not write into its parent's file.
void stopInChild() {
    turnOff();
    if (Capture* const capture = g_capture.load()) capture->page.leaveToParent();
    g_capture.store(nullptr);
}

void begin() {
    const std::lock_guard<std::mutex> lock(g_beginMutex);
    if (g_state.load() != State::kNotBegun) return;
    clock_ticks::choose();
    ::pthread_atfork(nullptr, nullptr, stopInChild);
    const Settings settings = settingsFromEnvironment();
    auto capture = std::make_unique<Capture>(settings, fileSettings(settings));
    if (settings.registers) {
        capture->registers = capture->writer.add({capture::kRegisterLink, "registers", "register accesses"});
        if (capture->registers == nullptr) report("no memory for register accesses: they are not captured");
    }
    g_capture.store(capture.get());
    g_state.store(State::kRunning);
    std::atexit(askLastAtExit);
    if (!startWriter(*capture)) {
        turnOff();
        g_capture.store(nullptr);
    }
    [[maybe_unused]] const Capture* kept = capture.release();
}

Capture* running() {
    if (g_state.load(std::memory_order_acquire) == State::kNotBegun) begin();
    return g_state.load(std::memory_order_acquire) == State::kRunning ? g_capture.load() : nullptr;
}

[[gnu::constructor]] void rememberCpus() {
    g_cpusKnown = ::sched_getaffinity(0, sizeof g_cpusAtStart, &g_cpusAtStart) == 0;
}

// At exit: writes what is in the rings, and ends the file.
[[gnu::destructor]] void end() {
    turnOff();
    Capture* capture = g_capture.load();
    if (capture == nullptr) return;
    capture->ending.store(true, std::memory_order_release);
    capture->thread.join();
    capture->page.end();
}

}  // namespace

namespace {

// Under g_streamsMutex.
void release(Source& source) {
    if (source.stats != nullptr) source.stats->note(askCard(source), StreamStats::When::kClosed, source.ring.lost());
    source.stream = nullptr;
    TapWriter::release(source);
}

}  // namespace

void openStream(const void* stream, const Origin& origin) {
    Capture* capture = running();
    if (capture == nullptr) return;
    Clock::rep none = 0;
    capture->firstStream.compare_exchange_strong(none, Clock::now().time_since_epoch().count());
    const capture::InterfaceInfo info = describeStream(origin);
    Source* source = capture->writer.add(info);
    const std::lock_guard<std::mutex> lock(g_streamsMutex);
    if (g_state.load() != State::kRunning) return;  // the recording has just ended
    // The same handle may come back without a destroy call: a library may free it in another way.
    if (Source* before = g_streams.remove(stream)) release(*before);
    if (source != nullptr) {
        source->stream = stream;
        source->keepUpTo(0);
        source->presence.begin();
        const bool isMarked = source->ring.putOpening(clock_ticks::now());
        if (source->stats != nullptr) source->stats->noteOpening(askCard(*source), source->ring.lost(), isMarked);
    }
    if (source != nullptr && g_streams.insert(stream, source)) return;
    if (source != nullptr) release(*source);
    report("no memory or no room for " + info.name + ": it is not captured");
}

void closeStream(const void* stream) {
    if (g_state.load(std::memory_order_acquire) != State::kRunning) return;
    const std::lock_guard<std::mutex> lock(g_streamsMutex);
    Source* source = g_streams.remove(stream);
    if (source != nullptr) release(*source);
}

bool recordsRegisters() {
    if (g_state.load(std::memory_order_acquire) == State::kOff) return false;
    static const bool wanted = wantsRegisters();
    if (!wanted) return false;
    const Capture* capture = running();
    return capture != nullptr && capture->registers != nullptr;
}

void recordAccess(std::uint64_t startTicks, const capture::RegisterAccess& access) {
    Capture* capture = running();
    if (capture == nullptr) return;
    const std::lock_guard<std::mutex> lock(capture->registerMutex);
    capture->registers->ring.put(startTicks, &access, sizeof access);
}

}  // namespace tap
