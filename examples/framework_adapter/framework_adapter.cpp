// An adapter for a trading framework: polling thread, lock-free ring, worker thread, instruments with tick and lot.
//
//     framework_adapter INI PRODUCTS.csv [SLOTS]
//
// Read SpscRing.h, then MarketDataAdapter.h and .cpp. This file is the framework: it counts, and checks the prices.

#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "framework_adapter/MarketDataAdapter.h"
#include "program.h"

namespace {

constexpr char kUsage[] =
    "usage: framework_adapter INI PRODUCTS.csv [SLOTS]\n"
    "Hands quotes to a small framework on a worker thread, and prints totals once a second. Ctrl-C ends it.\n"
    "  INI           configuration, such as zce.ini\n"
    "  PRODUCTS.csv  tick and lot of each product\n"
    "  SLOTS         quotes that may wait for the worker (65536)\n"
    "  --help        show this help and end\n"
    "  --version     show the version of the library and end\n"
    "Exit status: 0 after a stop signal, 1 when the start-up failed, 2 for wrong usage.\n";

std::atomic<bool> g_stop{false};
void stopOnSignal(int) { g_stop = true; }

class Framework : public MarketDataListener {
public:
    void print() const {
        std::printf("instruments %lu  quotes %lu  off tick %lu  dropped %lu\n", m_instruments.load(), m_quotes.load(),
                    m_offTick.load(), m_dropped.load());
    }
    bool hasEnded() const { return m_ended; }

private:
    void onInstrument(const Instrument& instrument) override {
        if (++m_instruments > 5) return;
        std::printf("%s: tick %g, lot %ld\n", instrument.id.c_str(), static_cast<double>(instrument.tick) / kYuan,
                    static_cast<long>(instrument.lot));
    }
    void onQuote(const Quote& quote) override {
        ++m_quotes;
        const std::int64_t tick = quote.instrument->tick;
        for (const std::int64_t price : {quote.last, quote.bid, quote.ask})
            if (tick == 0 || price % tick != 0) ++m_offTick;
    }
    void onDropped(unsigned long quotes) override { m_dropped += quotes; }
    void onEnd() override { m_ended = true; }

    std::atomic<unsigned long> m_instruments{0}, m_quotes{0}, m_offTick{0}, m_dropped{0};
    std::atomic<bool> m_ended{false};
};

int run(const char* ini, const char* productFile, std::size_t slots) {
    const Products products(productFile);
    Framework framework;
    MarketDataAdapter adapter(framework, products, slots);
    if (!adapter.start(ini)) return 1;
    std::signal(SIGINT, stopOnSignal);  // after the start: one that hangs should end with the first Ctrl-C
    std::signal(SIGTERM, stopOnSignal);
    while (!g_stop && !framework.hasEnded()) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        framework.print();
    }
    adapter.stop();
    framework.print();
    return example::finish(0);
}

}  // namespace

int main(int argc, char** argv) {
    const auto words = example::arguments(argc, argv, kUsage, 2, 3);
    const std::size_t slots = words.size() == 3 ? example::number("SLOTS", words[2], 1UL << 24) : 65536;
    for (const char* file : {words[0], words[1]}) example::requireFile(file);
    if (::dlsym(RTLD_DEFAULT, "enyx_sim_is_simulated") == nullptr) {
        std::fputs(
            "The payload of a real card has another layout than that of <enyx-sim/md_payload.h>.\n"
            "Put the layout of your card in its place.\n",
            stderr);
        return 1;
    }
    try {
        return run(words[0], words[1], slots);
    } catch (const std::runtime_error& error) {
        std::fprintf(stderr, "framework_adapter: %s\n", error.what());
        return 1;
    }
}
