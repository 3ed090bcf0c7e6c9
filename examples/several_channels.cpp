// Several channels of the card in one process, each on a thread of its own.
//
//     several_channels INI...
//
// Each channel has its own ini file, because `device` names the channel. The log of all channels is one file; lines of
// a channel begin with "[channel:N]".

#include <VexoZceMdApi.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <future>
#include <memory>
#include <vector>

#include "program.h"

namespace {

constexpr char kUsage[] =
    "usage: several_channels INI...\n"
    "Receives on several channels, each on its own thread, and prints their quotes once a second. Ctrl-C ends it.\n"
    "  INI        configuration of a channel; the one of the master, channel 0, comes first\n"
    "  --help     show this help and end\n"
    "  --version  show the version of the library and end\n"
    "Exit status: 0 after a stop signal, 1 when a start-up failed, 2 for wrong usage.\n";

std::atomic<bool> g_stop{false};
void stopOnSignal(int) { g_stop = true; }

// One channel and its thread. No two threads share an API object.
class Channel : public IVexoZceMdSpi {
public:
    explicit Channel(const char* ini) : m_ini(ini), m_api(example::createApi()) {}
    ~Channel() override {
        if (m_end.valid()) m_end.wait();
    }

    /// Starts the channel on its thread. @return whether it has started; polls begin when @p allStarted is set
    bool start(const std::shared_future<void>& allStarted) {
        std::promise<bool> started;
        std::future<bool> hasStarted = started.get_future();
        m_end = std::async(std::launch::async, &Channel::run, this, std::move(started), allStarted);
        return hasStarted.get();
    }
    /// Waits a second, or less when the channel ends. @return whether it goes on
    bool goesOn() const { return m_end.wait_for(std::chrono::seconds(1)) == std::future_status::timeout; }
    void print() const { std::printf("%s: %lu quotes\n", m_ini, m_received.load(std::memory_order_relaxed)); }

private:
    // All calls of the channel come from this thread; VexoStart pins it to the `cpucore` of its ini file.
    void run(std::promise<bool> started, const std::shared_future<void>& allStarted) {
        {
            const example::FailedStart failed;  // one start-up that fails ends the process, with all its channels
            const bool success = m_api->VexoStart(*this, m_ini) == 0;
            started.set_value(success);
            if (!success) return;
        }
        allStarted.wait();
        while (!g_stop.load(std::memory_order_relaxed) && m_api->VexoRecv() != -1) {
        }
        m_api.reset();  // closes the stream and logs its counters
    }

    int OnUpSubsResult17(const unsigned char*) override { return count(); }
    int OnUpSubsResult18(const unsigned char*) override { return count(); }
    int OnUpSubsResult19(const unsigned char*) override { return count(); }
    int OnUpSubsResult20(const unsigned char*) override { return count(); }
    int count() {  // only this channel's thread writes
        m_received.store(m_received.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        return 0;
    }

    const char* m_ini;
    example::Api m_api;
    std::future<void> m_end;
    alignas(64) std::atomic<unsigned long> m_received{0};  // a cache line for each channel's counter
};

}  // namespace

int main(int argc, char** argv) {
    const auto inis = example::arguments(argc, argv, kUsage, 1, 16);
    for (const char* ini : inis) example::requireFile(ini);
    std::vector<std::unique_ptr<Channel>> channels;
    for (const char* ini : inis) channels.push_back(std::make_unique<Channel>(ini));  // one thread makes all objects

    // One after the other, the master first: it resets and programs the card for all channels.
    std::promise<void> go;
    const std::shared_future<void> allStarted = go.get_future().share();
    bool success = true;
    for (const auto& channel : channels) success = success && channel->start(allStarted);

    // Between the starts and the first poll. Earlier, Ctrl-C would not end a start-up that hangs. Later, these handlers
    // might replace those of the library, which it installs once, with the first market-data packet of the process. A
    // stop signal then makes VexoRecv return -1 on every channel.
    std::signal(SIGINT, stopOnSignal);
    std::signal(SIGTERM, stopOnSignal);
    if (!success) g_stop = true;
    go.set_value();

    while (success && channels.front()->goesOn())
        for (const auto& channel : channels) channel->print();
    channels.clear();  // waits for the threads
    return example::finish(success ? 0 : 1);
}
