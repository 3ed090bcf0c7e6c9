// Receives market data on one channel, prints a sample of the quotes and a line of totals once a second.
//
//     quote_printer INI [--quotes N] [--seconds S] [--json] [--color WHEN]
//
// The library's own log lines go to standard output too, and to fpga_YYYYMMDD.log in the working directory. With --json
// they go to standard error, so that standard output has one object a line and nothing else.

#include <VexoZceMdApi.h>
#include <VexoZceUtil.h>

#include <dlfcn.h>
#include <getopt.h>
#include <unistd.h>
#include <chrono>
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

constexpr unsigned long kMost = 1000000000;  // of a number on the command line

struct Options {
    const char* ini = nullptr;
    unsigned long quotes = 3;   // of each packet type a second
    unsigned long seconds = 0;  // 0 = until Ctrl-C
    bool json = false;
    bool colored = false;
};

void ShowHelp() {
    std::puts(
        "Receives market data on one channel, prints a sample of the quotes and a line of totals once a second.\n"
        "Usage: quote_printer INI [OPTIONS]\n\n"
        "  INI                  configuration, such as examples/zce.ini\n\n"
        "Options:\n"
        "  -h,--help            Show this text and end\n"
        "  --version            Show the version and end\n"
        "  --quotes N           Print at most N quotes of each packet type a second (3)\n"
        "  --seconds S          End after S seconds of receiving; without it, on Ctrl-C\n"
        "  --json               Print one JSON object a line; the library's log lines then go to standard error\n"
        "  --color WHEN         Colours: auto, always or never; auto obeys NO_COLOR and TERM=dumb\n\n"
        "Exit status:\n"
        "  0    a stop signal, or S seconds\n"
        "  1    the start-up failed\n"
        "  2    wrong usage");
}

bool IsColored(const char* when) {
    if (std::strcmp(when, "always") == 0) return true;
    if (std::strcmp(when, "never") == 0) return false;
    if (std::strcmp(when, "auto") != 0) {
        const std::string why = std::string(when) + " is none of auto, always, never";
        example::wrongUsage("--color", why.c_str());
    }
    const char* const refused = std::getenv("NO_COLOR");
    const char* const kind = std::getenv("TERM");
    return ::isatty(STDOUT_FILENO) == 1 && (refused == nullptr || *refused == '\0') && kind != nullptr &&
           std::strcmp(kind, "dumb") != 0;
}

// getopt_long would take --sec for --seconds.
void RefuseCutOffOptions(int argc, char** argv, const option* known) {
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
        if (std::strncmp(argv[i], "--", 2) != 0) continue;
        const std::size_t length = std::strcspn(argv[i] + 2, "=");
        const option* one = known;
        while (one->name != nullptr &&
               (std::strlen(one->name) != length || std::strncmp(one->name, argv[i] + 2, length) != 0))
            ++one;
        if (one->name == nullptr) example::wrongUsage(argv[i], "there is no such option");
    }
}

Options ParseArguments(int argc, char** argv) {
    static const option kOptions[] = {{"help", no_argument, nullptr, 'h'},
                                      {"version", no_argument, nullptr, 'v'},
                                      {"quotes", required_argument, nullptr, 'q'},
                                      {"seconds", required_argument, nullptr, 's'},
                                      {"json", no_argument, nullptr, 'j'},
                                      {"color", required_argument, nullptr, 'c'},
                                      {nullptr, 0, nullptr, 0}};
    RefuseCutOffOptions(argc, argv, kOptions);
    ::opterr = 0;  // getopt_long says less than we do
    Options options;
    const char* when = "auto";
    for (int letter; (letter = ::getopt_long(argc, argv, "h", kOptions, nullptr)) != -1;) {
        switch (letter) {
            case 'h': ShowHelp(); std::exit(example::finish(0));
            case 'v': example::showVersion(); std::exit(example::finish(0));
            case 'q': options.quotes = example::number("--quotes", optarg, kMost); break;
            case 's': options.seconds = example::number("--seconds", optarg, kMost); break;
            case 'j': options.json = true; break;
            case 'c': when = optarg; break;
            default: example::wrongUsage(argv[optind - 1], "there is no such option, or its value is missing");
        }
    }
    if (optind == argc) example::wrongUsage("INI", "name a configuration, such as zce.ini");
    if (optind + 1 < argc) example::wrongUsage(argv[optind + 1], "there is no place for it");
    options.ini = argv[optind];
    example::requireFile(options.ini);
    options.colored = IsColored(when);
    return options;
}

double Yuan(std::int64_t price) { return static_cast<double>(price) / enyx_sim::kPriceScale; }

// Where quotes and totals go, and how they look there.
struct Output {
    std::FILE* file = stdout;
    bool json = false;
    bool colored = false;

    // The first word of a line; it tells our lines from the library's.
    const char* Word(const char* plain, const char* painted) const { return colored ? painted : plain; }
};

// Standard output for us alone: the library's lines go to standard error.
Output OnlyOurs() {
    Output out;
    out.json = true;
    out.file = ::fdopen(::dup(STDOUT_FILENO), "w");
    if (out.file != nullptr) ::setvbuf(out.file, nullptr, _IOLBF, 0);
    return ::dup2(STDERR_FILENO, STDOUT_FILENO) < 0 ? Output{nullptr, true, false} : out;
}

// Counts every quote, prints some. The payload is the simulated card's: on another card quotes are only counted.
class QuotePrinter : public IVexoZceMdSpi {
public:
    QuotePrinter(bool knowsPayload, unsigned long quotesASecond, const Output& out)
        : m_knows(knowsPayload), m_sample(quotesASecond), m_out(out) {}

    int OnUpSubsResult17(const unsigned char* data) override { return Take<enyx_sim::Level1Quote>(0, data); }
    int OnUpSubsResult18(const unsigned char* data) override { return Take<enyx_sim::Level5Quote>(1, data); }
    int OnUpSubsResult19(const unsigned char* data) override { return Take<enyx_sim::Level1Quote>(2, data); }
    int OnUpSubsResult20(const unsigned char* data) override { return Take<enyx_sim::Level5Quote>(3, data); }

    void PrintSecond() {
        if (m_out.json) {
            PrintCounts("totals");
        } else {
            std::fprintf(m_out.file, "%s  L1 %lu  L5 %lu  L1-combination %lu  L5-combination %lu  all %lu  lost %lu\n",
                         m_out.Word("totals", "\033[1mtotals\033[0m"), m_count[0], m_count[1], m_count[2], m_count[3],
                         Total(), m_lost);
        }
        for (unsigned long& printed : m_printed) printed = 0;
    }
    void PrintSummary() const {
        if (m_out.json) {
            PrintCounts("received");
        } else {
            std::fprintf(m_out.file,
                         "%s %lu quotes: L1 %lu, L5 %lu, L1-combination %lu, L5-combination %lu; lost %lu\n",
                         m_out.Word("received", "\033[1mreceived\033[0m"), Total(), m_count[0], m_count[1], m_count[2],
                         m_count[3], m_lost);
        }
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

    // An id of a simulated card has letters, digits and signs that JSON takes as they are.
    void Print(int slot, const enyx_sim::QuoteCommon& q, std::int64_t bid, std::int64_t ask, std::uint64_t gap) const {
        const auto volume = static_cast<unsigned long>(q.totalVolume);
        const auto lost = static_cast<unsigned long>(gap);
        if (m_out.json) {
            std::fprintf(m_out.file,
                         "{\"kind\":\"quote\",\"type\":%d,\"id\":\"%.32s\",\"last\":%.2f,\"bid\":%.2f,\"ask\":%.2f,"
                         "\"volume\":%lu,\"time\":\"%06u.%03u\",\"gap\":%lu}\n",
                         17 + slot, q.id, Yuan(q.lastPrice), Yuan(bid), Yuan(ask), volume, q.exchangeTime,
                         q.exchangeMillis, lost);
            return;
        }
        std::fprintf(m_out.file, "%s   type %d  %-16.32s last %10.2f  bid %10.2f  ask %10.2f  volume %8lu  %06u.%03u",
                     m_out.Word("quote", "\033[36mquote\033[0m"), 17 + slot, q.id, Yuan(q.lastPrice), Yuan(bid),
                     Yuan(ask), volume, q.exchangeTime, q.exchangeMillis);
        if (gap != 0) std::fprintf(m_out.file, "  gap %lu", lost);
        std::fputc('\n', m_out.file);
    }

    void PrintCounts(const char* kind) const {
        std::fprintf(m_out.file,
                     "{\"kind\":\"%s\",\"l1\":%lu,\"l5\":%lu,\"l1_combination\":%lu,\"l5_combination\":%lu,"
                     "\"all\":%lu,\"lost\":%lu}\n",
                     kind, m_count[0], m_count[1], m_count[2], m_count[3], Total(), m_lost);
    }

    unsigned long Total() const { return m_count[0] + m_count[1] + m_count[2] + m_count[3]; }

    bool m_knows;
    unsigned long m_sample;
    Output m_out;
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
    const Output out = options.json ? OnlyOurs() : Output{stdout, false, options.colored};
    if (out.file == nullptr) {
        std::fputs("quote_printer: standard output: it is closed\n", stderr);
        return 1;
    }
    std::signal(SIGINT, StopOnSignal);
    std::signal(SIGTERM, StopOnSignal);

    const bool simulated = IsSimulatedCard();
    std::printf("quote_printer: library %s on %s card\n", GetUpDmaLibVersion(), simulated ? "a simulated" : "a real");
    QuotePrinter printer(simulated, options.quotes, out);
    IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
    {
        const example::FailedStart failed;
        if (api->VexoStart(printer, options.ini) != 0) return 1;
    }
    Receive(*api, printer, options.seconds);
    printer.PrintSummary();
    IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    return example::finish(0, out.file);
}
