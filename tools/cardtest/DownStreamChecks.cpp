#include <algorithm>
#include <cerrno>

#include "tools/cardtest/CardUnderTest.h"
#include "tools/cardtest/Helper.h"

namespace cardtest {
namespace {

DownStreamHandle openDown(const TestPlan& plan) {
    DownStreamHandle stream = tryOpenDown(openCard(plan.bus), channelOf(plan));
    if (!stream) throw Untestable{"the host-to-card stream could not be opened: " + errnoText(errno)};
    return stream;
}

void opensAgain(const TestPlan& plan) {
    openDown(plan).reset();
    const DownStreamHandle again = tryOpenDown(openCard(plan.bus), channelOf(plan));
    expect(again != nullptr, "a stream that was destroyed opens again", "null, " + errnoText(errno));
}

void mtuIsSteady(const TestPlan& plan) {
    const DownStreamHandle stream = openDown(plan);
    std::uint32_t first = 0;
    for (int n = 0; n < 100; ++n) {
        std::uint32_t mtu = 0;
        errno = 0;
        const int result = enyx_hw_c2a_stream_get_mtu(stream.get(), &mtu);
        expect(result == 0, "result 0", resultText(result, errno));
        expect(mtu >= 64 && mtu <= 16U << 20, "an MTU of 64 bytes to 16 MiB", std::to_string(mtu));
        if (n == 0) first = mtu;
        expect(mtu == first, "the same MTU each time, " + std::to_string(first), std::to_string(mtu));
    }
}

void sends(const TestPlan& plan) {
    const DownStreamHandle stream = openDown(plan);
    const char nothing[64] = {};
    int result = EAGAIN;
    const bool sent = within(static_cast<int>(std::max(plan.seconds, 1U)) * 1000, [&] {
        result = enyx_hw_c2a_stream_send(stream.get(), nothing, sizeof nothing);
        expect(result >= 0, "0, 11 (EAGAIN) or another errno value", std::to_string(result));
        return result != EAGAIN;
    });
    if (!sent) throw Untestable{"the stream was busy (EAGAIN) all the time"};
    expect(result == 0, "64 bytes sent with result 0", std::to_string(result) + ", " + errnoText(result));
}

}  // namespace

std::vector<Check> downStreamChecks() {
    constexpr const char* g = "host-to-card streams";
    return {
        {g, "c2a-again", "A stream can be opened, and again after it was destroyed.", opensAgain},
        {g, "c2a-mtu", "The MTU is 64 bytes to 16 MiB and the same each time.", mtuIsSteady},
        {g, "c2a-send", "A send returns 0, EAGAIN while the stream is busy, or another errno value.", sends, true,
         "64 zero bytes were sent to the card"},
    };
}

}  // namespace cardtest
