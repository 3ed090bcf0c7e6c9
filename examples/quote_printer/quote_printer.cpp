// Receives market data on one channel, prints a sample of the quotes and a line of totals once a second.
//
//     quote_printer INI [--quotes N] [--seconds S]
//
// The library's own log lines go to standard output too, and to fpga_YYYYMMDD.log in the working directory.

#include <VexoZceMdApi.h>
#include <VexoZceUtil.h>

#include <dlfcn.h>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <enyx-sim/md_payload.h>

#include "program.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;

// The library catches Ctrl-C from its first market-data packet on; until then the application does.
void StopOnSignal(int) { g_stop = 1; }

// The simulated card's library says so by a symbol that no other has.
bool IsSimulatedCard() { return dlsym(RTLD_DEFAULT, "enyx_sim_is_simulated") != nullptr; }

struct Options {
    const char* ini = nullptr;
    unsigned long quotes = 3;   // of each packet type a second
    unsigned long seconds = 0;  // 0 = until Ctrl-C
};

constexpr char kUsage[] =
    "usage: quote_printer INI [--quotes N] [--seconds S]\n"
    "Prints a sample of the quotes of one channel, and totals once a second.\n"
    "  INI          configuration, such as examples/zce.ini\n"
    "  --quotes N   print at most N quotes of each packet type a second (default 3)\n"
    "  --seconds S  end after S seconds of receiving (default: on Ctrl-C)\n"
    "  --help       show this help and end\n"
    "  --version    show the version of the library and end\n"
    "Exit status: 0 after a stop signal or S seconds, 1 when the start-up failed, 2 for wrong usage.\n";

Options ParseArguments(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "--version") == 0) {
            example::arguments(2, argv + i - 1, kUsage, 0, 0);  // shows it and ends
        } else if (std::strcmp(argv[i], "--quotes") == 0 && i + 1 < argc) {
            options.quotes = example::number(argv[++i], ULONG_MAX, kUsage);
        } else if (std::strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
            options.seconds = example::number(argv[++i], ULONG_MAX, kUsage);
        } else if (argv[i][0] != '-' && options.ini == nullptr) {
            options.ini = argv[i];
        } else {
            example::wrongUsage(kUsage);
        }
    }
    if (options.ini == nullptr) example::wrongUsage(kUsage);
    return options;
}

double Yuan(std::int64_t price) { return static_cast<double>(price) / enyx_sim::kPriceScale; }

// Counts every quote, prints some. The payload is the simulated card's: on another card quotes are only counted.
class QuotePrinter : public IVexoZceMdSpi {
public:
    QuotePrinter(bool knowsPayload, unsigned long quotesASecond) : m_knows(knowsPayload), m_sample(quotesASecond) {}

    int OnUpSubsResult17(const unsigned char* data) override { return Take<enyx_sim::Level1Quote>(0, data); }
    int OnUpSubsResult18(const unsigned char* data) override { return Take<enyx_sim::Level5Quote>(1, data); }
    int OnUpSubsResult19(const unsigned char* data) override { return Take<enyx_sim::Level1Quote>(2, data); }
    int OnUpSubsResult20(const unsigned char* data) override { return Take<enyx_sim::Level5Quote>(3, data); }

    void PrintSecond() {
        std::printf("totals  L1 %lu  L5 %lu  L1-combination %lu  L5-combination %lu  all %lu  lost %lu\n", m_count[0],
                    m_count[1], m_count[2], m_count[3], Total(), m_lost);
        for (unsigned long& printed : m_printed) printed = 0;
    }
    void PrintSummary() const {
        std::printf("received %lu quotes: L1 %lu, L5 %lu, L1-combination %lu, L5-combination %lu; lost %lu\n", Total(),
                    m_count[0], m_count[1], m_count[2], m_count[3], m_lost);
    }

private:
    template <typename Quote>
    int Take(int slot, const unsigned char* data) {
        ++m_count[slot];
        if (m_knows) {
            Quote quote;
            std::memcpy(&quote, data, sizeof quote);
            const std::uint64_t gap = CountGap(quote.common.sequence);
            if (m_printed[slot]++ < m_sample) {
                Print(slot, quote.common, Best(quote.bidPrice), Best(quote.askPrice), gap);
            }
        }
        return 0;
    }

    static std::int64_t Best(std::int64_t price) { return price; }
    static std::int64_t Best(const std::int64_t (&prices)[enyx_sim::kDepth]) { return prices[0]; }

    std::uint64_t CountGap(std::uint64_t sequence) {
        const std::uint64_t gap = m_last != 0 && sequence > m_last + 1 ? sequence - m_last - 1 : 0;
        m_last = sequence;
        m_lost += gap;
        return gap;
    }

    static void Print(int slot, const enyx_sim::QuoteCommon& q, std::int64_t bid, std::int64_t ask, std::uint64_t gap) {
        std::printf("quote   type %d  %-16.32s last %10.2f  bid %10.2f  ask %10.2f  volume %8lu  %06u.%03u", 17 + slot,
                    q.id, Yuan(q.lastPrice), Yuan(bid), Yuan(ask), static_cast<unsigned long>(q.totalVolume),
                    q.exchangeTime, q.exchangeMillis);
        if (gap != 0) std::printf("  gap %lu", static_cast<unsigned long>(gap));
        std::printf("\n");
    }

    unsigned long Total() const { return m_count[0] + m_count[1] + m_count[2] + m_count[3]; }

    bool m_knows;
    unsigned long m_sample;
    unsigned long m_count[4] = {};
    unsigned long m_printed[4] = {};
    std::uint64_t m_last = 0;
    unsigned long m_lost = 0;
};

// Polls until a stop signal or the end of the time.
void Receive(IVexoZceMdApi& api, QuotePrinter& printer, unsigned long seconds) {
    using Clock = std::chrono::steady_clock;
    unsigned long passed = 0;
    Clock::time_point nextLine = Clock::now() + std::chrono::seconds(1);
    while (g_stop == 0) {
        const int result = api.VexoRecv();
        if (result == -1) return;
        if (Clock::now() < nextLine) continue;
        nextLine += std::chrono::seconds(1);
        printer.PrintSecond();
        if (++passed == seconds) return;
    }
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = ParseArguments(argc, argv);
    std::signal(SIGINT, StopOnSignal);
    std::signal(SIGTERM, StopOnSignal);

    const bool simulated = IsSimulatedCard();
    std::printf("quote_printer: library %s on %s card\n", GetUpDmaLibVersion(), simulated ? "a simulated" : "a real");
    QuotePrinter printer(simulated, options.quotes);
    IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
    {
        const example::FailedStart failed;
        if (api->VexoStart(printer, options.ini) != 0) return 1;
    }
    Receive(*api, printer, options.seconds);
    printer.PrintSummary();
    IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    return 0;
}
