// A program that knows nothing of a tap: receives from the scripted card the way that its argument names, and prints
// what it saw. Exit status 3: something on the card's interface was not as it has to be.
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include "tests/unit/tools/ScriptedCard.h"

namespace {

std::uint32_t g_received = 0;
std::atomic<long> g_aheadSeconds{0};  // of the clock that runs while the program does
std::mutex g_disk;                    // whoever holds it lets no write to a file come to its end

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "%s\n", what);
    std::exit(3);
}

struct Wanted {
    const char* name = nullptr;
    int index = -1;
    int card = 0;
};

enyx_hw_filter* filterFor(const char* name, int index) {
    enyx_hw_filter* filter = enyx_hw_filter_create();
    if (name != nullptr) enyx_hw_filter_set_name(filter, name);
    if (index >= 0) enyx_hw_filter_set_index(filter, static_cast<std::uint32_t>(index));
    return filter;
}

enyx_hw_accelerator* openCard(int number) {
    enyx_hw_filter* filter = filterFor(nullptr, number);
    enyx_hw_accelerator_descriptor* descriptor = nullptr;
    enyx_hw_enumerate_accelerators(filter, &descriptor, 1);
    enyx_hw_accelerator* card = enyx_hw_accelerator_get(descriptor);
    enyx_hw_free_accelerator_descriptors(&descriptor, 1);
    enyx_hw_filter_destroy(filter);
    return card;
}

struct Destroy {
    void operator()(enyx_hw_a2c_stream* stream) const { enyx_hw_a2c_stream_destroy(stream); }
};
using Stream = std::unique_ptr<enyx_hw_a2c_stream, Destroy>;

Stream openStream(const Wanted& wanted) {
    enyx_hw_filter* filter = filterFor(wanted.name, wanted.index);
    enyx_hw_a2c_stream_descriptor* descriptor = nullptr;
    enyx_hw_accelerator_enumerate_a2c_streams(openCard(wanted.card), filter, &descriptor, 1);
    Stream stream(enyx_hw_a2c_stream_create(descriptor, nullptr));
    enyx_hw_free_a2c_stream_descriptors(&descriptor, 1);
    enyx_hw_filter_destroy(filter);
    if (stream == nullptr) fail("no stream");
    return stream;
}

void count(const std::uint8_t* data, std::uint32_t, void* context) {
    if (data != scripted_card_packet()) fail("the packet was copied on its way");
    if (context != &g_received) fail("the context is another one");
    ++g_received;
    std::uint32_t number;
    std::memcpy(&number, data, sizeof number);
    if (number != g_received) fail("a packet is missing");
}

void throwAtThird(const std::uint8_t* data, std::uint32_t size, void* context) {
    count(data, size, context);
    if (g_received % 3 == 0) throw std::runtime_error("third");
}

void exitAtThird(const std::uint8_t* data, std::uint32_t size, void* context) {
    count(data, size, context);
    if (g_received == 3) std::exit(0);
}

void receiveAll(enyx_hw_a2c_stream* stream, enyx_hw_a2c_stream_handler handler) {
    for (;;) {
        const int result = enyx_hw_a2c_stream_poll_once(stream, handler, &g_received);
        if (result == 0 && errno == EAGAIN) return;
        if (result != 1 || errno != ERANGE) fail("a poll's result or errno is another one");
    }
}

void receiveWithExceptions(enyx_hw_a2c_stream* stream) {
    unsigned thrown = 0;
    for (int result = 1; result != 0;) {
        try {
            result = enyx_hw_a2c_stream_poll_once(stream, throwAtThird, &g_received);
        } catch (const std::runtime_error& error) {
            if (std::string(error.what()) == "third") ++thrown;
        }
    }
    if (thrown != g_received / 3) fail("an exception was lost");
}

// The child receives too, and ends as programs do.
void receiveAroundFork(enyx_hw_a2c_stream* stream) {
    enyx_hw_a2c_stream_poll_once(stream, count, &g_received);
    const pid_t child = fork();
    if (child < 0) fail("no fork");
    receiveAll(stream, count);
    if (child == 0) std::exit(0);
    int status = -1;
    waitpid(child, &status, 0);
    if (status != 0) fail("the child did not end well");
}

std::function<void()> g_inThirdPacket;

void countAndAct(const std::uint8_t* data, std::uint32_t size, void* context) {
    count(data, size, context);
    if (g_received == 3) g_inThirdPacket();
}

// The child goes on in the handler, receives the rest, and ends as programs do.
void receiveAroundForkInHandler(enyx_hw_a2c_stream* stream) {
    pid_t child = -1;
    g_inThirdPacket = [&child] { child = fork(); };
    receiveAll(stream, countAndAct);
    if (child == 0) std::exit(0);
    int status = -1;
    waitpid(child, &status, 0);
    if (status != 0) fail("the child did not end well");
}

std::atomic<bool> g_stopsInRest{false};  // the next rest of any thread waits until the program has forked
std::atomic<bool> g_isResting{false};
std::atomic<bool> g_hasForked{false};

// A thread opens a stream and is about to make what a library before the card makes at that moment.
void receiveAroundForkWhileOpening(const Wanted& wanted) {
    g_stopsInRest = true;
    std::thread opener([&wanted] { openStream(wanted); });
    while (!g_isResting) sched_yield();
    const pid_t child = fork();
    if (child == 0) {
        receiveAll(openStream(wanted).get(), count);
        std::exit(g_received != 0 ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    g_hasForked = true;
    opener.join();
    if (status != 0) fail("the child did not end well");
}

// The first stream is freed in another way, then one of another card and channel is opened.
void receiveAfterAStreamThatWasFreed(const Wanted& first, const Wanted& second) {
    scripted_card_free(openStream(first).release());
    receiveAll(openStream(second).get(), count);
}

// A library lost its handle. The card may give the same stream out again.
void receiveAfterAStreamThatWasForgotten(const Wanted& wanted) {
    static enyx_hw_a2c_stream* const forgotten = openStream(wanted).release();
    receiveAll(openStream(wanted).get(), count);
    if (forgotten == nullptr) fail("no stream");
}

void receiveTwice(const Wanted& wanted) {
    for (int time = 0; time < 2; ++time) {
        g_received = 0;
        receiveAll(openStream(wanted).get(), count);
    }
}

void tally(const std::uint8_t*, std::uint32_t, void* context) { ++*static_cast<std::uint32_t*>(context); }

// One thread polls two streams in turn.
void receiveInTurn(const Wanted& one, const Wanted& other) {
    const Stream streams[] = {openStream(one), openStream(other)};
    std::uint32_t received[] = {0, 0};
    for (int packets = 1; packets > 0;) {
        packets = 0;
        for (int i = 0; i < 2; ++i) packets += enyx_hw_a2c_stream_poll_once(streams[i].get(), tally, &received[i]);
    }
    if (received[0] != received[1]) fail("a packet went to the wrong stream");
    g_received = received[0] + received[1];
}

// All packets come while the tap's writer waits for its disk.
void receiveWithoutDisk(const Wanted& wanted) {
    const std::lock_guard<std::mutex> busy(g_disk);
    receiveAll(openStream(wanted).get(), count);
}

void pollWithoutHandler(enyx_hw_a2c_stream* stream) {
    errno = 0;
    if (enyx_hw_a2c_stream_poll_once(stream, nullptr, nullptr) != -1 || errno != EINVAL) fail("no handler, no error");
}

void receiveAfterAskingForMtu(enyx_hw_a2c_stream* stream) {
    std::uint32_t mtu = 0;
    if (enyx_hw_a2c_stream_get_mtu(stream, &mtu) != 0 || mtu != SCRIPTED_MAX_SIZE) fail("the MTU is another one");
    receiveAll(stream, count);
}

void accessRegisters() {
    enyx_hw_mmio_descriptor* descriptor = nullptr;
    enyx_hw_accelerator_enumerate_mmios(openCard(2), nullptr, &descriptor, 1);
    enyx_hw_core* root = enyx_hw_core_tree_get_root(enyx_hw_enumerate_cores(enyx_hw_mmio_create(descriptor)));
    enyx_hw_core* core = nullptr;
    enyx_hw_core_enumerate(root, 474, &core, 1);
    if (enyx_hw_core_reset(root) != 0) fail("reset");
    const enyx_hw_register_description date{0x418, 0, 32};
    std::uint64_t value = 0;
    if (enyx_hw_write(core, &date, 20250115) != 0) fail("write");
    if (enyx_hw_read(core, &date, &value) != 0 || value != 0x419) fail("read");
    const enyx_hw_register_description bad{SCRIPTED_BAD_ADDRESS, 8, 16};
    errno = 0;
    if (enyx_hw_read(core, &bad, &value) != -1 || errno != EIO) fail("the failure of a read was changed");
}

// A line of a thread's status, such as "SigBlk:"; empty while there is no thread of that name.
std::string statusOf(const std::string& thread, const std::string& line) {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (name != thread) continue;
        std::ifstream status(task.path() / "status");
        for (std::string text; std::getline(status, text);) {
            if (text.rfind(line, 0) == 0) return text;
        }
    }
    return "";
}

// Pins itself to one CPU before the stream is opened, as the market-data library does.
void lookAtWriter(const Wanted& wanted) {
    const std::string before = statusOf("vexo_tap_app", "Cpus_allowed_list:");
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    sched_setaffinity(0, sizeof one, &one);
    const Stream stream = openStream(wanted);
    while (statusOf("vexo-tap", "SigBlk:").empty()) sched_yield();
    if (statusOf("vexo-tap", "Cpus_allowed_list:") != before) fail("the writer is pinned");
    std::printf("%s\n", statusOf("vexo-tap", "SigBlk:").c_str());
}

std::atomic<unsigned> g_rests{0};  // of all threads

// Waits until the tap's writer has looked at the clock again, or has ended.
void letWriterLook() {
    const unsigned before = g_rests;
    while (g_rests < before + 3 && !statusOf("vexo-tap", "SigBlk:").empty()) sched_yield();
}

// Half of the packets come before the recording's duration has passed. Nobody waits: the clock is set forward.
void receiveBeyondDuration(enyx_hw_a2c_stream* stream) {
    for (int i = 0; i < 5; ++i) enyx_hw_a2c_stream_poll_once(stream, count, &g_received);
    while (statusOf("vexo-tap", "SigBlk:").empty()) sched_yield();
    g_aheadSeconds = 3600;
    while (!statusOf("vexo-tap", "SigBlk:").empty()) sched_yield();
    receiveAll(stream, count);
    openStream({"CUSTOM_CHAN4_DATA"});
}

// The start-up alone takes longer than the recording's duration.
void receiveAfterLongStart(const Wanted& wanted) {
    accessRegisters();
    while (statusOf("vexo-tap", "SigBlk:").empty()) sched_yield();
    letWriterLook();
    g_aheadSeconds = 3600;
    letWriterLook();
    const Stream stream = openStream(wanted);
    for (int i = 0; i < 5; ++i) enyx_hw_a2c_stream_poll_once(stream.get(), count, &g_received);
    letWriterLook();
    g_aheadSeconds = 7200;
    while (!statusOf("vexo-tap", "SigBlk:").empty()) sched_yield();
    receiveAll(stream.get(), count);
}

[[noreturn]] void receiveAndWait(enyx_hw_a2c_stream* stream) {
    receiveAll(stream, count);
    std::printf("process %d\n", getpid());
    std::fflush(stdout);
    for (;;) pause();
}

}  // namespace

// For the leak sanitizer: what the opening thread holds at that fork has no owner in the child.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() { return "leak:receiveAroundForkWhileOpening\n"; }

// Stands before the C library's, also for the tap.
extern "C" ssize_t write(int fd, const void* bytes, std::size_t size) {
    if (fd <= STDERR_FILENO) return ::syscall(SYS_write, fd, bytes, size);
    const std::lock_guard<std::mutex> turn(g_disk);
    return ::syscall(SYS_write, fd, bytes, size);
}

// The same. Waits when the program wants it to.
extern "C" int nanosleep(const timespec* time, timespec* rest) {
    ++g_rests;
    if (g_stopsInRest.exchange(false)) {
        g_isResting = true;
        while (!g_hasForked) sched_yield();
    }
    return static_cast<int>(::syscall(SYS_nanosleep, time, rest));
}

#ifdef TAP_APP_ON_SIMULATED_CARD
extern "C" int enyx_sim_is_simulated() { return 1; }
#endif

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const long result = ::syscall(SYS_clock_gettime, clock, now);
    if (result == 0 && clock == CLOCK_MONOTONIC) now->tv_sec += g_aheadSeconds.load();
    return static_cast<int>(result);
}

int main(int argc, char** argv) {
    const std::string way = argc > 1 ? argv[1] : "";
    const Wanted third{"CUSTOM_CHAN3_DATA"};
    if (way == "receive") receiveAll(openStream(third).get(), count);
    if (way == "without-filter") receiveAll(openStream({}).get(), count);
    if (way == "by-index-on-second-card") receiveAll(openStream({nullptr, 5, 1}).get(), count);
    if (way == "other-name") receiveAll(openStream({"TRACE", -1, 0}).get(), count);
    if (way == "throw") receiveWithExceptions(openStream(third).get());
    if (way == "exit-in-handler") receiveAll(openStream(third).get(), exitAtThird);
    if (way == "fork") receiveAroundFork(openStream(third).get());
    if (way == "fork-in-handler") receiveAroundForkInHandler(openStream(third).get());
    if (way == "fork-while-opening") receiveAroundForkWhileOpening(third);
    if (way == "freed") receiveAfterAStreamThatWasFreed(third, {nullptr, 5, 1});
    if (way == "forgotten") receiveAfterAStreamThatWasForgotten(third);
    if (way == "twice") receiveTwice(third);
    if (way == "in-turn") receiveInTurn(third, {nullptr, 5, 1});
    if (way == "without-disk") receiveWithoutDisk(third);
    if (way == "no-handler") pollWithoutHandler(openStream(third).get());
    if (way == "ask-mtu") receiveAfterAskingForMtu(openStream(third).get());
    if (way == "registers") accessRegisters();
    if (way == "look-at-writer") lookAtWriter(third);
    if (way == "beyond-duration") receiveBeyondDuration(openStream(third).get());
    if (way == "after-long-start") receiveAfterLongStart(third);
    if (way == "wait") receiveAndWait(openStream(third).get());
    std::printf("received %u\n", g_received);
    return 0;
}
