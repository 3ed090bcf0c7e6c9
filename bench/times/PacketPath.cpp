// What VexoRecv costs beyond a hand-written handler, for packets that are ready, and beyond the bare idle poll.
//
// The hand-written handler is what a careful application would pass to the bare poll: length check, switch over the
// type, virtual call, nothing else. "empty" is the bare poll with an empty handler.

#include <x86intrin.h>
#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "bench/support/BenchCard.h"
#include "bench/support/Rounds.h"

namespace {

using bench_card::Types;

constexpr unsigned int kPackets = 4000;
constexpr std::uint32_t kSize = 64;

// Each callback does something different, as an application's do.
class CountingCallbacks : public IVexoZceMdSpi {
public:
    int OnUpSubsResult17(const unsigned char*) override { return Take(1); }
    int OnUpSubsResult18(const unsigned char*) override { return Take(2); }
    int OnUpSubsResult19(const unsigned char*) override { return Take(3); }
    int OnUpSubsResult20(const unsigned char*) override { return Take(4); }

private:
    int Take(unsigned long points) {
        m_points += points;
        return 0;
    }

    unsigned long m_points = 0;
};

void EmptyHandler(const std::uint8_t*, std::uint32_t, void*) {}

void HandWritten(const std::uint8_t* packet, std::uint32_t size, void* ctx) {
    if (size < 12) return;
    auto* const spi = static_cast<IVexoZceMdSpi*>(ctx);
    std::uint32_t type;
    std::memcpy(&type, packet, sizeof type);
    switch (type) {
        case 17: spi->OnUpSubsResult17(packet + 12); break;
        case 18: spi->OnUpSubsResult18(packet + 12); break;
        case 19: spi->OnUpSubsResult19(packet + 12); break;
        case 20: spi->OnUpSubsResult20(packet + 12); break;
        default: break;
    }
}

// ---- the readers, open side by side on one card ----

struct Ours {
    static constexpr const char* kName = "ours";
    static constexpr std::uint32_t kChannel = bench_card::kLibraryChannel;
    CountingCallbacks callbacks;
    bench_card::Library api = bench_card::ReadWithLibrary(callbacks);

    void poll() { api->VexoRecv(); }
};

enyx_hw_a2c_stream* BareStream() {
    static const bench_card::Bare stream = bench_card::ReadBare();
    return stream.get();
}

struct Hand {
    static constexpr const char* kName = "hand";
    static constexpr std::uint32_t kChannel = bench_card::kBareChannel;
    CountingCallbacks callbacks;
    enyx_hw_a2c_stream* stream = BareStream();
    IVexoZceMdSpi* spi = &callbacks;

    void poll() { enyx_hw_a2c_stream_poll_once(stream, HandWritten, spi); }
};

struct Empty {
    static constexpr const char* kName = "empty";
    static constexpr std::uint32_t kChannel = bench_card::kBareChannel;
    enyx_hw_a2c_stream* stream = BareStream();

    void poll() { enyx_hw_a2c_stream_poll_once(stream, EmptyHandler, nullptr); }
};

// Switching the card on closes all streams: once for all readers.
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

template <typename Reader>
void PollAll(unsigned int times) {
    Reader& reader = Open<Reader>();
    for (unsigned int n = 0; n < times; ++n) reader.poll();
}

// ---- packets that are ready ----

template <typename Reader>
bench::Role Ready(unsigned int packets, std::uint32_t size, Types types) {
    Open<Reader>();
    return {Reader::kName,
            [=] { bench_card::Push(Reader::kChannel, packets, size, types); },
            [=] { PollAll<Reader>(packets); },
            {}};
}

bench::Case ReadyCase(const std::string& name, unsigned int packets, std::uint32_t size, Types types) {
    return {"packet/" + name, packets, [=]() -> std::vector<bench::Role> {
                return {Ready<Ours>(packets, size, types), Ready<Hand>(packets, size, types),
                        Ready<Empty>(packets, size, types)};
            }};
}

// ---- every single poll, with warm caches and behind a sweep of the first two cache levels ----

constexpr unsigned int kColdPackets = 20;

std::vector<std::uint64_t>& Polls(const std::string& name) {
    static std::map<std::string, std::vector<std::uint64_t>> all;
    return all[name];
}

void SweepCaches() {
    constexpr std::size_t kBytes = std::size_t{8} << 20;
    static std::vector<unsigned char> memory(kBytes, 1);
    for (std::size_t at = 0; at < kBytes; at += 64) ++memory[at];
}

template <typename Reader>
std::uint64_t TicksOfOnePoll(Reader& reader) {
    _mm_lfence();
    const std::uint64_t begin = __rdtsc();
    reader.poll();
    unsigned int cpu;
    const std::uint64_t end = __rdtscp(&cpu);
    _mm_lfence();
    return end - begin;
}

// Polls of a round in which the kernel took the CPU away are left out: that is no work of ours.
template <typename Reader>
void PollEach(const std::string& name, unsigned int packets, bool cold) {
    Reader& reader = Open<Reader>();
    std::vector<std::uint64_t> ticks(packets);
    const std::uint64_t switches = bench::involuntarySwitches();
    for (std::uint64_t& one : ticks) {
        if (cold) SweepCaches();
        one = TicksOfOnePoll(reader);
    }
    if (bench::involuntarySwitches() != switches) return;
    std::vector<std::uint64_t>& polls = Polls(name + '/' + Reader::kName);
    polls.insert(polls.end(), ticks.begin(), ticks.end());
}

template <typename Reader>
bench::Role Each(const std::string& name, unsigned int packets, bool cold) {
    Open<Reader>();
    return {Reader::kName,
            [=] { bench_card::Push(Reader::kChannel, packets, kSize, Types::kAlternating); },
            [=] { PollEach<Reader>(name, packets, cold); },
            {}};
}

void TellPercentiles(const std::string& name) {
    std::vector<std::uint64_t>& polls = Polls(name);
    if (polls.empty()) return;
    std::sort(polls.begin(), polls.end());
    const auto tell = [&](const char* percentile, double share) {
        const auto at = static_cast<std::size_t>(share * static_cast<double>(polls.size() - 1));
        bench::tellNumber(name + '/' + percentile, static_cast<double>(polls[at]));
    };
    tell("median", 0.5);
    tell("p99.9", 0.999);
    tell("max", 1);
}

bench::Case EachCase(const std::string& name, unsigned int packets, bool cold) {
    bench::Case each{
        name, packets, [=]() -> std::vector<bench::Role> {
            return {Each<Ours>(name, packets, cold), Each<Hand>(name, packets, cold), Each<Empty>(name, packets, cold)};
        }};
    each.end = [=] {
        for (const char* const reader : {Ours::kName, Hand::kName, Empty::kName}) TellPercentiles(name + '/' + reader);
    };
    return each;
}

// ---- nothing ready ----

template <typename Reader>
bench::Role Idle() {
    Open<Reader>();
    return bench::plainRole(Reader::kName, [] { PollAll<Reader>(kPackets); });
}

}  // namespace

std::vector<bench::Case> bench::cases() {
    const std::uint32_t largest = 1500;
    std::vector<Case> all = {
        ReadyCase("constant", kPackets, kSize, Types::kConstant),
        ReadyCase("alternating", kPackets, kSize, Types::kAlternating),
        ReadyCase("rotating", kPackets, kSize, Types::kRotating),
        ReadyCase("random", kPackets, kSize, Types::kRandom),
        ReadyCase("140-bytes", kPackets, 140, Types::kAlternating),
        ReadyCase("512-bytes", bench_card::Room(512), 512, Types::kAlternating),
        ReadyCase("1500-bytes", bench_card::Room(largest), largest, Types::kAlternating),
        // A full stream of packets: nearly every round crosses the end of the ring.
        ReadyCase("wrap", bench_card::Room(kSize), kSize, Types::kAlternating),
    };
    all.push_back(EachCase("packet/each", kPackets, false));
    all.push_back(EachCase("packet/cold", kColdPackets, true));
    all.push_back({"idle", kPackets, []() -> std::vector<Role> { return {Idle<Ours>(), Idle<Empty>()}; }});
    return all;
}
