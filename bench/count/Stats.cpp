// What statistics add to a packet and to an idle poll: by the tap's stats-only mode, and by the wrapper around the
// application's callbacks.

#include <VexoZceMdStats.h>
#include <dlfcn.h>
#include <enyx-sim/enyx_sim.h>
#include <enyx-sim/md_payload.h>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/support/BenchCard.h"
#include "bench/support/CountInstructions.h"
#include "tools/data/LayoutFile.h"

namespace {

constexpr unsigned int kWarmUp = 64;
constexpr unsigned int kTimes = 4000;
constexpr std::uint32_t kSize = 140;

using Poll = decltype(enyx_hw_a2c_stream_poll_once);

void EmptyHandler(const std::uint8_t*, std::uint32_t, void*) {}

// The card's own poll: a plain call of it in this program reaches the tap, which is linked before the card.
Poll* PollWithoutTap() {
    void* const card = ::dlopen("libenyx-hw-c.so.1", RTLD_NOW | RTLD_NOLOAD);
    auto* poll = card != nullptr ? reinterpret_cast<Poll*>(::dlsym(card, "enyx_hw_a2c_stream_poll_once")) : nullptr;
    if (poll == nullptr || poll == enyx_hw_a2c_stream_poll_once) std::exit(2);
    return poll;
}

// Where packets have their numbers: nobody knows; in the head, as the simulated card's; in a field, as kLayout says.
enum class Numbers { kUnknown, kInHead, kInField };

constexpr char kLayoutFile[] = "field.ini";
constexpr char kLayout[] =
    "[layout]\nname = field\nmeaning = A number in the payload\nsequence_field = number\n"
    "[type 19]\nmeaning = Quote\nsize = 128\nfields = all\n[fields all]\nnumber = 0, u64, 1, Number\n";

struct Packets {
    std::uint32_t channel = bench_card::kBareChannel;
    std::uint32_t type = 17;
    Numbers numbers = Numbers::kInHead;
};

void Push(const Packets& packets, unsigned int count) {
    static enyx_sim::PacketHead head{0, kSize, 0};
    constexpr std::size_t kLevel = sizeof head + offsetof(enyx_sim::QuoteCommon, level);
    unsigned char packet[kSize] = {};
    if (packets.numbers == Numbers::kInHead) packet[kLevel] = 1;
    head.type = packets.type;
    for (unsigned int n = 0; n < count; ++n) {
        ++head.sequence;
        std::memcpy(packet, &head, sizeof head);
        if (packets.numbers != Numbers::kInHead)
            std::memset(packet + sizeof head.type, 0, sizeof head - sizeof head.type);
        if (packets.numbers == Numbers::kInField)
            std::memcpy(packet + sizeof head, &head.sequence, sizeof head.sequence);
        if (enyx_sim_push(0, packets.channel, packet, kSize, 0) != 0) std::exit(2);
    }
}

void CountPolls(Poll* poll, Numbers numbers, const char* packetName, const char* idleName) {
    const bench_card::Bare stream = bench_card::ReadBare();
    const auto once = [poll, handle = stream.get()] { poll(handle, EmptyHandler, nullptr); };
    Packets packets;
    packets.type = numbers == Numbers::kInField ? 19 : 17;
    packets.numbers = numbers;
    Push(packets, kWarmUp);
    for (unsigned int n = 0; n < 2 * kWarmUp; ++n) once();
    Push(packets, kTimes);
    CountInstructions(packetName, kTimes, once);
    CountInstructions(idleName, kTimes, once);
}

// The start of two channels that one thread polls in turn: contract-map packets, and no quote yet.
void CountMapsInTurn(Poll* poll, const char* name) {
    constexpr std::uint32_t kOther = bench_card::kBareChannel + 1;
    const bench_card::Bare streams[] = {bench_card::ReadBare(), bench_card::ReadBare(kOther)};
    const auto push = [](unsigned int count) {
        Push({bench_card::kBareChannel, 2, Numbers::kInHead}, count);
        Push({kOther, 2, Numbers::kInHead}, count);
    };
    unsigned int turn = 0;
    const auto once = [&] { poll(streams[turn++ % 2].get(), EmptyHandler, nullptr); };
    push(kWarmUp);
    for (unsigned int n = 0; n < 4 * kWarmUp; ++n) once();
    push(kTimes / 2);
    CountInstructions(name, kTimes, once);
}

// ---- callbacks ----

class Quotes : public IVexoZceMdSpi {
public:
    int OnUpSubsResult17(const unsigned char*) override { return 0; }
    int OnUpSubsResult18(const unsigned char*) override { return 0; }
    int OnUpSubsResult19(const unsigned char*) override { return 0; }
    int OnUpSubsResult20(const unsigned char*) override { return 0; }
};

struct QuoteSequence {
    static constexpr bool kIsKnown = true;
    static std::uint64_t of(const unsigned char* payload) {
        std::uint64_t sequence;
        std::memcpy(&sequence, payload, sizeof sequence);
        return sequence;
    }
};

// The library does not know the class behind the interface either.
IVexoZceMdSpi& Unknown(IVexoZceMdSpi& spi) {
    IVexoZceMdSpi* hidden = &spi;
    __asm__("" : "+r"(hidden));
    return *hidden;
}

void CountCallbacks(IVexoZceMdSpi& spi, const char* name) {
    std::uint64_t sequence = 0;
    const auto once = [&spi, &sequence] {
        ++sequence;
        Unknown(spi).OnUpSubsResult17(reinterpret_cast<const unsigned char*>(&sequence));
    };
    for (unsigned int n = 0; n < kWarmUp; ++n) once();
    CountInstructions(name, kTimes, once);
}

}  // namespace

int main() {
    ::setenv(vexo_stats::kDirectoryVariable, "pages", 1);  // in this program's own directory
    if (std::FILE* const file = std::fopen(kLayoutFile, "w")) {
        std::fputs(kLayout, file);
        std::fclose(file);
    }
    ::setenv(vexo::data::kLayoutVariable, (std::string(kLayoutFile) + ":" + vexo::data::kSimulated).c_str(), 1);
    bench_card::PowerOn();
    CountPolls(PollWithoutTap(), Numbers::kUnknown, "stats/floor", "stats/floor/idle");
    CountPolls(enyx_hw_a2c_stream_poll_once, Numbers::kUnknown, "stats/tap", "stats/tap/idle");
    CountPolls(enyx_hw_a2c_stream_poll_once, Numbers::kInHead, "stats/tap-sequence", "stats/tap-sequence/idle");
    CountPolls(enyx_hw_a2c_stream_poll_once, Numbers::kInField, "stats/tap-field", "stats/tap-field/idle");
    CountMapsInTurn(PollWithoutTap(), "stats/floor-in-turn");
    CountMapsInTurn(enyx_hw_a2c_stream_poll_once, "stats/tap-in-turn");

    Quotes quotes;
    VexoZceMdStats<> wrapper(quotes);
    VexoZceMdStats<IVexoZceMdSpi, QuoteSequence> sequenceWrapper(quotes);
    if (!VexoZceMdStats<>::error().empty()) std::exit(2);
    CountCallbacks(quotes, "stats/callback");
    CountCallbacks(wrapper, "stats/wrapper");
    CountCallbacks(sequenceWrapper, "stats/wrapper-sequence");
}
