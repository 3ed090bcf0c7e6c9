// Own poll loop on a pinned thread, while the main thread reports and watches for a quiet market.
//
//     poll_loop INI [CPU]

#include <VexoZceMdApi.h>
#include <VexoZceUtil.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <future>

#include "program.h"

namespace {

constexpr char kUsage[] =
    "usage: poll_loop INI [CPU]\n"
    "Polls on a thread of its own, and prints the number of quotes once a second. Ctrl-C ends it.\n"
    "  INI        configuration, such as zce.ini\n"
    "  CPU        pin the polling thread to this CPU; `cpucore` in INI does the same\n"
    "  --help     show this help and end\n"
    "  --version  show the version of the library and end\n"
    "Exit status: 0 after a stop signal, 1 when the start-up failed, 2 for wrong usage.\n";

constexpr int kQuietSeconds = 5;
constexpr int kNoCpu = -1;

std::atomic<bool> g_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");
void stopOnSignal(int) { g_stop = true; }

class Quotes : public IVexoZceMdSpi {
public:
    /// Any thread.
    unsigned long received() const { return m_received.load(std::memory_order_relaxed); }

private:
    int OnUpSubsResult17(const unsigned char*) override { return count(); }
    int OnUpSubsResult18(const unsigned char*) override { return count(); }
    int OnUpSubsResult19(const unsigned char*) override { return count(); }
    int OnUpSubsResult20(const unsigned char*) override { return count(); }

    // Only the polling thread writes. So a load and a store are enough; they cost less than a locked increment.
    // Relaxed: the number carries no other data with it.
    int count() {
        m_received.store(m_received.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        return 0;
    }
    // On a cache line of its own: nothing that another thread writes slows the polling thread down.
    alignas(64) std::atomic<unsigned long> m_received{0};
};

// The polling thread, from its pinning to the end of the API object. @return the exit status
int receive(Quotes& quotes, const char* ini, int cpu) {
    // Pinned first: memory that the start takes then lies near this CPU. VexoStart pins the thread that calls it, too,
    // when the ini file has `cpucore`. A thread hands its pinning on to the threads that it starts, so start none here.
    if (cpu != kNoCpu && bind_to_cpu(cpu) != 0) {
        std::printf("\n");  // the message has no line end
        return 1;
    }
    const example::Api api = example::createApi();
    {
        const example::FailedStart failed;
        if (api->VexoStart(quotes, ini) != 0) return 1;
    }
    // Not before the start: a start-up that hangs should end with the first Ctrl-C. The library installs handlers of
    // its own with the first market-data packet. From then on VexoRecv says -1 after a signal, and g_stop stays false.
    std::signal(SIGINT, stopOnSignal);
    std::signal(SIGTERM, stopOnSignal);

    while (!g_stop.load(std::memory_order_relaxed)) {
        const int result = api->VexoRecv();
        if (result == -1) break;
        if (result == 1) continue;  // more may be waiting
        // Nothing there: the place for short work of your own. Do not sleep or yield, it adds to each quote's latency.
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const auto words = example::arguments(argc, argv, kUsage, 1, 2);
    const int cpu = words.size() == 2 ? static_cast<int>(example::number("CPU", words[1], 1023)) : kNoCpu;
    example::requireFile(words[0]);
    Quotes quotes;
    std::future<int> status = std::async(std::launch::async, receive, std::ref(quotes), words[0], cpu);

    // The library does not log a silence. Whether it is a fault, only the application knows.
    unsigned long before = 0;
    int quietSeconds = 0;
    while (status.wait_for(std::chrono::seconds(1)) == std::future_status::timeout) {
        const unsigned long now = quotes.received();
        quietSeconds = now == before ? quietSeconds + 1 : 0;
        std::printf("%lu quotes, %lu in the last second\n", now, now - before);
        if (quietSeconds >= kQuietSeconds) std::printf("no quote for %d seconds\n", quietSeconds);
        before = now;
    }
    std::printf("received %lu quotes\n", quotes.received());
    return example::finish(status.get());
}
