// A program on the library that takes the packets of PacedStream.cpp from a remote card, checks each, and tells how
// long they took.
//
//     timed_reader CONFIG.ini PACKETS REST RESULT.json
//
// It ends when all packets are there, or when none has come for three seconds. With a REST above 0 it sleeps for so
// many microseconds when a poll finds no packet. Standard output is the library's log.

#include <VexoZceMdApi.h>
#include <sys/prctl.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench/many/TimedPacket.h"

namespace {

constexpr std::uint64_t kQuietNs = 3'000'000'000;

class Reader : public IVexoZceMdSpi {
public:
    explicit Reader(std::uint64_t packets) : m_latencies(packets) {}

    int OnUpSubsResult17(const unsigned char* data) override {
        enyx_sim::QuoteCommon quote;
        std::memcpy(&quote, data, sizeof quote);
        m_lastNs = many::now();
        if (m_received == 0) m_firstNs = m_lastNs;
        if (m_received < m_latencies.size())
            m_latencies[m_received] = m_lastNs - static_cast<std::uint64_t>(quote.turnover);
        ++m_received;
        if (quote.totalVolume != many::checkOf(quote.sequence) || quote.sequence <= m_sequence) ++m_wrong;
        m_sequence = quote.sequence;
        return 0;
    }
    int OnUpSubsResult18(const unsigned char*) override { return ++m_wrong, 0; }
    int OnUpSubsResult19(const unsigned char*) override { return ++m_wrong, 0; }
    int OnUpSubsResult20(const unsigned char*) override { return ++m_wrong, 0; }

    bool isOver() const {
        if (m_received == 0) return false;
        return m_sequence == m_latencies.size() || many::now() - m_lastNs > kQuietNs;
    }
    bool write(const char* path) {
        std::FILE* const file = std::fopen(path, "w");
        if (file == nullptr) return false;
        m_latencies.resize(std::min<std::uint64_t>(m_received, m_latencies.size()));
        std::sort(m_latencies.begin(), m_latencies.end());
        std::fprintf(file,
                     "{\"received\": %lu, \"wrong\": %lu, \"seconds\": %.6f, \"median_ns\": %lu, \"p999_ns\": %lu, "
                     "\"longest_ns\": %lu}\n",
                     m_received, m_wrong, static_cast<double>(m_lastNs - m_firstNs) / 1e9, latencyAt(0.5),
                     latencyAt(0.999), latencyAt(1));
        return std::fclose(file) == 0;
    }

private:
    std::uint64_t latencyAt(double share) const {
        if (m_latencies.empty()) return 0;
        return m_latencies[static_cast<std::size_t>(share * static_cast<double>(m_latencies.size() - 1))];
    }

    std::vector<std::uint64_t> m_latencies;
    std::uint64_t m_received = 0;
    std::uint64_t m_sequence = 0;
    std::uint64_t m_wrong = 0;
    std::uint64_t m_firstNs = 0;
    std::uint64_t m_lastNs = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) return 2;
    const std::timespec rest{0, std::strtol(argv[3], nullptr, 10) * 1000};
    ::prctl(PR_SET_TIMERSLACK, 1);
    Reader reader(std::strtoull(argv[2], nullptr, 10));
    IVexoZceMdApi* const api = IVexoZceMdApi::CreateVexoZceMdApi();
    if (api->VexoStart(reader, argv[1]) != 0) return 1;
    std::puts("timed_reader: waits");
    std::fflush(stdout);
    while (!reader.isOver()) {
        const int found = api->VexoRecv();
        if (found == -1) break;
        if (found == 0 && rest.tv_nsec != 0) ::nanosleep(&rest, nullptr);
    }
    const bool isWritten = reader.write(argv[4]);
    IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    return isWritten ? 0 : 1;
}
