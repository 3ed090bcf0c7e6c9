// Blocking mode: the thread that calls VexoRecvStart starts the channel, then receives until a stop signal.
//
//     blocking INI
//
// The shortest way to receive. The thread can do nothing else: all work happens in the callbacks.

#include <VexoZceMdApi.h>

#include <cstdio>

#include "program.h"

namespace {

constexpr char kUsage[] =
    "usage: blocking INI\n"
    "Receives in blocking mode, and says so after each 5,000 quotes. Ctrl-C ends it.\n"
    "  INI        configuration, such as zce.ini\n"
    "  --help     show this help and end\n"
    "  --version  show the version of the library and end\n"
    "Exit status: 0 after a stop signal, 1 when the start-up failed, 2 for wrong usage.\n";

constexpr unsigned long kEvery = 5000;

// The callbacks run between two polls of the card. While one runs, packets wait in the card's buffer; when that is
// full, the card drops them. So a callback allocates nothing, takes no lock, and waits for nobody.
class Counter : public IVexoZceMdSpi {
public:
    void printTotals() const {
        std::printf("received %lu quotes: L1 %lu, L5 %lu, L1-combination %lu, L5-combination %lu\n", total(),
                    m_count[0], m_count[1], m_count[2], m_count[3]);
    }

private:
    // `data` is the card's own buffer, valid only during the call. What you need later, copy.
    int OnUpSubsResult17(const unsigned char* data) override { return count(0, data); }
    int OnUpSubsResult18(const unsigned char* data) override { return count(1, data); }
    int OnUpSubsResult19(const unsigned char* data) override { return count(2, data); }
    int OnUpSubsResult20(const unsigned char* data) override { return count(3, data); }

    int count(int kind, const unsigned char* /*data*/) {
        ++m_count[kind];
        // Writing takes microseconds, and waits when nobody reads standard output: not for every quote.
        if (total() % kEvery == 0) std::printf("%lu quotes\n", total());
        return 0;  // the library does not use the result
    }
    unsigned long total() const { return m_count[0] + m_count[1] + m_count[2] + m_count[3]; }

    unsigned long m_count[4] = {};
};

}  // namespace

int main(int argc, char** argv) {
    const char* ini = example::arguments(argc, argv, kUsage, 1, 1).front();
    example::requireFile(ini);
    Counter counter;  // outlives the API object, which keeps a reference to it
    const example::Api api = example::createApi();

    // Until the first market-data packet, SIGINT and SIGTERM end the process at once. From then on the library catches
    // them: the packet in hand is finished, and VexoRecvStart returns 0. It ignores SIGPIPE from then on, too.
    const example::FailedStart failed;
    if (api->VexoRecvStart(counter, ini) != 0) return 1;  // only when there can be no log; it has said why

    counter.printTotals();
    return example::finish(0);
}
