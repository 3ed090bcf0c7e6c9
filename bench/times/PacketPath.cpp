// Figures 1 to 3 in time: a packet that is ready, an idle poll, and a card that feeds from a thread of its own; each by
// VexoRecv and by the bare poll. The library starts and ends outside what is timed.

#include <benchmark/benchmark.h>
#include <enyx-sim/enyx_sim.h>
#include <pthread.h>
#include <x86intrin.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "bench/support/BenchCard.h"

namespace {

constexpr unsigned int kReady = 8192;  // packets that a full stream holds

class CountingCallbacks : public IVexoZceMdSpi {
public:
    int OnUpSubsResult17(const unsigned char*) override { return Take(); }
    int OnUpSubsResult18(const unsigned char*) override { return Take(); }
    int OnUpSubsResult19(const unsigned char*) override { return Take(); }
    int OnUpSubsResult20(const unsigned char*) override { return Take(); }

    unsigned long packets = 0;

private:
    int Take() {
        ++packets;
        return 0;
    }
};

struct Ours {
    static constexpr std::uint32_t kChannel = bench_card::kLibraryChannel;
    CountingCallbacks callbacks;
    bench_card::Library api = bench_card::ReadWithLibrary(callbacks);

    void Poll() { api->VexoRecv(); }
    unsigned long Packets() const { return callbacks.packets; }
};

struct Floor {
    static constexpr std::uint32_t kChannel = bench_card::kBareChannel;
    unsigned long packets = 0;
    bench_card::Bare stream = bench_card::ReadBare();

    static void Handle(const std::uint8_t*, std::uint32_t, void* ctx) { ++*static_cast<unsigned long*>(ctx); }
    void Poll() { enyx_hw_a2c_stream_poll_once(stream.get(), Handle, &packets); }
    unsigned long Packets() const { return packets; }
};

// Both readers stay open side by side, whichever is measured: the card is switched on once.
void PowerOnOnce() {
    static const bool powered = (bench_card::PowerOn(), true);
    static_cast<void>(powered);
}

template <typename Reader>
Reader& Open() {
    PowerOnOnce();
    static Reader reader;
    return reader;
}

// ---- figures 1 and 2 ----

template <typename Reader>
void PacketReady(benchmark::State& state) {
    auto& reader = Open<Reader>();
    unsigned int left = 0;
    for (auto _ : state) {
        if (left == 0) {
            state.PauseTiming();
            bench_card::Push(Reader::kChannel, left = kReady);
            state.ResumeTiming();
        }
        reader.Poll();
        --left;
    }
    while (left-- > 0) reader.Poll();
}
BENCHMARK(PacketReady<Ours>)->Name("fig1/ours");
BENCHMARK(PacketReady<Floor>)->Name("fig1/floor");

template <typename Reader>
void Idle(benchmark::State& state) {
    auto& reader = Open<Reader>();
    for (auto _ : state) reader.Poll();
}
BENCHMARK(Idle<Ours>)->Name("fig2/ours");
BENCHMARK(Idle<Floor>)->Name("fig2/floor");

// ---- the worst cases of figure 1 ----

double Percentile(const std::vector<std::uint64_t>& sorted, double share) {
    return static_cast<double>(sorted[static_cast<std::size_t>(share * static_cast<double>(sorted.size() - 1))]);
}

template <typename Reader>
std::uint64_t CyclesOfOnePoll(Reader& reader) {
    _mm_lfence();
    const std::uint64_t begin = __rdtsc();
    reader.Poll();
    unsigned int cpu;
    const std::uint64_t end = __rdtscp(&cpu);
    _mm_lfence();
    return end - begin;
}

// Cycles of every single poll with a packet ready.
template <typename Reader>
void EachPacket(benchmark::State& state) {
    auto& reader = Open<Reader>();
    std::vector<std::uint64_t> cycles;
    cycles.reserve(32 * kReady);
    for (auto _ : state) {
        for (int round = 0; round < 32; ++round) {
            bench_card::Push(Reader::kChannel, kReady);
            for (unsigned int n = 0; n < kReady; ++n) cycles.push_back(CyclesOfOnePoll(reader));
        }
    }
    std::sort(cycles.begin(), cycles.end());
    state.counters["median"] = Percentile(cycles, 0.5);
    state.counters["p99.9"] = Percentile(cycles, 0.999);
    state.counters["max"] = static_cast<double>(cycles.back());
}
BENCHMARK(EachPacket<Ours>)->Name("fig1/ours/cycles")->Iterations(1);
BENCHMARK(EachPacket<Floor>)->Name("fig1/floor/cycles")->Iterations(1);

// ---- figure 3 ----

void RunOn(unsigned int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu % std::max(1U, std::thread::hardware_concurrency()), &set);
    pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

// Feeds a channel from a CPU of its own while it lives.
class FeedingCard {
public:
    explicit FeedingCard(std::uint32_t channel)
        : m_thread([this, channel] {
              RunOn(1);
              const unsigned char packet[64] = {17};
              while (!m_stop.load(std::memory_order_relaxed)) enyx_sim_push(0, channel, packet, sizeof packet, 0);
          }) {}
    ~FeedingCard() {
        m_stop = true;
        m_thread.join();
    }

private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// Short slices, many of them, ours and floor in turn: what else the machine does then hits both alike.
template <typename Reader>
void Fed(benchmark::State& state) {
    constexpr unsigned long kWarmUp = 2000;
    constexpr unsigned long kPackets = 20000;
    auto& reader = Open<Reader>();
    RunOn(0);
    for (auto _ : state) {
        const FeedingCard card(Reader::kChannel);
        const unsigned long begin = reader.Packets() + kWarmUp;
        while (reader.Packets() < begin) reader.Poll();
        const auto start = std::chrono::steady_clock::now();
        while (reader.Packets() < begin + kPackets) reader.Poll();
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(took.count() / static_cast<double>(kPackets));
    }
    for (unsigned int n = 0; n < 4 * kReady; ++n) reader.Poll();
}
BENCHMARK(Fed<Ours>)->Name("fig3/ours")->UseManualTime()->Iterations(1)->Repetitions(151);
BENCHMARK(Fed<Floor>)->Name("fig3/floor")->UseManualTime()->Iterations(1)->Repetitions(151);

}  // namespace
