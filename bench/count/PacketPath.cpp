// What VexoRecv adds to the bare poll, with a packet ready and without one.

#include "bench/support/BenchCard.h"
#include "bench/support/CountInstructions.h"

namespace {

constexpr unsigned int kWarmUp = 64;
constexpr unsigned int kTimes = 4000;

class EmptyCallbacks : public IVexoZceMdSpi {
public:
    int OnUpSubsResult17(const unsigned char*) override { return 0; }
    int OnUpSubsResult18(const unsigned char*) override { return 0; }
    int OnUpSubsResult19(const unsigned char*) override { return 0; }
    int OnUpSubsResult20(const unsigned char*) override { return 0; }
};

void EmptyHandler(const std::uint8_t*, std::uint32_t, void*) {}

template <typename Poll>
void CountBoth(std::uint32_t channel, const char* packetName, const char* idleName, Poll poll) {
    bench_card::Push(channel, kWarmUp);
    for (unsigned int n = 0; n < 2 * kWarmUp; ++n) poll();
    bench_card::Push(channel, kTimes);
    CountInstructions(packetName, kTimes, poll);
    CountInstructions(idleName, kTimes, poll);
}

}  // namespace

int main() {
    bench_card::PowerOn();
    const bench_card::Bare stream = bench_card::ReadBare();
    CountBoth(bench_card::kBareChannel, "packet/floor", "idle/floor",
              [&] { enyx_hw_a2c_stream_poll_once(stream.get(), EmptyHandler, nullptr); });
    EmptyCallbacks callbacks;
    const bench_card::Library api = bench_card::ReadWithLibrary(callbacks);
    CountBoth(bench_card::kLibraryChannel, "packet/ours", "idle/ours", [&] { api->VexoRecv(); });
}
