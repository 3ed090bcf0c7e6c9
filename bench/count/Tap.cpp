// What a tap adds to a poll, with a packet ready and without one. Built once for each: VEXO_TAP is "tap", which
// records, or "share", which copies for a relay.

#include <dlfcn.h>
#include <unistd.h>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/support/BenchCard.h"
#include "bench/support/CountInstructions.h"
#include "tools/share/SharedRing.h"

namespace {

constexpr unsigned int kWarmUp = 64;
constexpr unsigned int kTimes = 4000;
constexpr std::uint32_t kSize = 140;

using Poll = decltype(enyx_hw_a2c_stream_poll_once);

unsigned char g_copy[kSize];

void EmptyHandler(const std::uint8_t*, std::uint32_t, void*) {}
void CopyingHandler(const std::uint8_t* data, std::uint32_t size, void*) { std::memcpy(g_copy, data, size); }

// The card's own poll: a plain call of it in this program reaches the tap, which is linked before the card.
Poll* PollWithoutTap() {
    void* const card = ::dlopen("libenyx-hw-c.so.1", RTLD_NOW | RTLD_NOLOAD);
    auto* poll = card != nullptr ? reinterpret_cast<Poll*>(::dlsym(card, "enyx_hw_a2c_stream_poll_once")) : nullptr;
    if (poll == nullptr || poll == enyx_hw_a2c_stream_poll_once) std::exit(2);
    return poll;
}

void Count(enyx_hw_a2c_stream* stream, Poll* poll, enyx_hw_a2c_stream_handler handler, const char* packetName,
           const char* idleName) {
    const auto once = [=] { poll(stream, handler, nullptr); };
    bench_card::Push(bench_card::kBareChannel, kWarmUp, kSize);
    for (unsigned int n = 0; n < 2 * kWarmUp; ++n) once();
    bench_card::Push(bench_card::kBareChannel, kTimes, kSize);
    CountInstructions(packetName, kTimes, once);
    CountInstructions(idleName, kTimes, once);
}

// Otherwise the cost of a poll that shares nothing was counted.
bool IsShared() {
    return ::access(("rings/0." + std::to_string(bench_card::kBareChannel) + ".ring").c_str(), F_OK) == 0;
}

}  // namespace

int main() {
    ::setenv(share::kDirectoryVariable, "rings", 1);  // in this program's own directory
    bench_card::PowerOn();
    const bench_card::Bare stream = bench_card::ReadBare();
    Poll* const bare = PollWithoutTap();
    Count(stream.get(), bare, EmptyHandler, VEXO_TAP "/bare", VEXO_TAP "/bare/idle");
    Count(stream.get(), bare, CopyingHandler, VEXO_TAP "/floor", VEXO_TAP "/floor/idle");
    Count(stream.get(), enyx_hw_a2c_stream_poll_once, EmptyHandler, VEXO_TAP "/ours", VEXO_TAP "/ours/idle");
    if (std::strcmp(VEXO_TAP, "share") == 0 && !IsShared()) std::exit(2);
}
