#include <algorithm>
#include <cerrno>
#include <thread>

#include "tools/cardtest/CardUnderTest.h"
#include "tools/cardtest/Helper.h"
#include "tools/cardtest/Traffic.h"

namespace cardtest {
namespace {

constexpr std::uint32_t kMinMtu = 64;
constexpr std::uint32_t kMaxMtu = 16U << 20;

void secondHandleIsBusy(const TestPlan& plan) {
    enyx_hw_accelerator* card = openCard(plan.bus);
    const UpStreamHandle first = openUp(card, plan.channel);
    const UpStreamHandle second = tryOpenUp(card, channelOf(plan));
    const int error = errno;
    expect(!second, "null while the stream is open", "a second handle");
    expect(error == EBUSY, errnoText(EBUSY), errnoText(error));
}

void opensAgain(const TestPlan& plan) {
    enyx_hw_accelerator* card = openCard(plan.bus);
    openUp(card, plan.channel).reset();
    const UpStreamHandle again = tryOpenUp(card, channelOf(plan));
    expect(again != nullptr, "a stream that was destroyed opens again", "null, " + errnoText(errno));
}

void streamsAreIndependent(const TestPlan& plan) {
    enyx_hw_accelerator* card = openCard(plan.bus);
    const UpStreamHandle first = openUp(card, plan.channel);
    int busy = 0;
    for (std::uint32_t channel = 0; channel < kChannels; ++channel) {
        if (channel == channelOf(plan)) continue;
        if (const UpStreamHandle second = tryOpenUp(card, channel)) return;
        expect(errno == EBUSY, "another stream, or " + errnoText(EBUSY), errnoText(errno));
        ++busy;
    }
    throw Untestable{"the other " + std::to_string(busy) + " streams are held by somebody else"};
}

std::uint32_t mtuOf(const UpStreamHandle& stream) {
    std::uint32_t mtu = 0;
    errno = 0;
    const int result = enyx_hw_a2c_stream_get_mtu(stream.get(), &mtu);
    if (result != 0) throw Untestable{"the MTU cannot be read: " + resultText(result, errno)};
    return mtu;
}

void mtuIsSteady(const TestPlan& plan) {
    const UpStreamHandle stream = openUp(openCard(plan.bus), plan.channel);
    std::uint32_t first = 0;
    for (int n = 0; n < 100; ++n) {
        std::uint32_t mtu = 0;
        errno = 0;
        const int result = enyx_hw_a2c_stream_get_mtu(stream.get(), &mtu);
        expect(result == 0, "result 0", resultText(result, errno));
        expect(mtu >= kMinMtu && mtu <= kMaxMtu, "an MTU of 64 bytes to 16 MiB", std::to_string(mtu));
        if (n == 0) first = mtu;
        expect(mtu == first, "the same MTU each time, " + std::to_string(first), std::to_string(mtu));
    }
}

using Counter = CardCall<int(const enyx_hw_a2c_stream*, std::uint32_t*)>;
constexpr struct {
    const char* name;
    const Counter& get;
} kCounters[] = {
    {"back-pressure", enyx_hw_a2c_stream_stats_get_backpressure},
    {"packet count", enyx_hw_a2c_stream_stats_get_packet_count},
    {"FIFO errors", enyx_hw_a2c_stream_stats_get_fifo_errors},
    {"errors", enyx_hw_a2c_stream_stats_get_errors},
};

void countersAreReadable(const TestPlan& plan) {
    const UpStreamHandle stream = openUp(openCard(plan.bus), plan.channel);
    for (const auto& counter : kCounters) {
        std::uint32_t value = 0;
        errno = 0;
        const int result = counter.get(stream.get(), &value);
        expect(result == 0, std::string("result 0 (") + counter.name + ")", resultText(result, errno));
    }
}

// What the handler below has seen. Global, because another check tests whether the context pointer arrives.
struct Seen {
    unsigned calls = 0;
    std::uint32_t mtu = 0;
    std::uint32_t longest = 0;
    unsigned sum = 0;
    bool null = false;
    void* context = nullptr;
};
thread_local Seen g_seen;

void look(const std::uint8_t* data, std::uint32_t size, void* context) {
    ++g_seen.calls;
    g_seen.longest = std::max(g_seen.longest, size);
    g_seen.context = context;
    if (data == nullptr)
        g_seen.null = true;
    else
        for (std::uint32_t n = 0; n < std::min(size, g_seen.mtu); ++n) g_seen.sum += data[n];
}

// Polls until so many polls have found a packet, or the time is over. Calls judge(result) after each poll.
template <typename Judge>
unsigned pollPackets(const TestPlan& plan, enyx_hw_a2c_stream* stream, void* context, unsigned wanted, Judge judge) {
    unsigned packets = 0;
    for (const std::int64_t end = nowMs() + std::int64_t{plan.seconds} * 1000; packets < wanted && nowMs() < end;) {
        const int result = enyx_hw_a2c_stream_poll_once(stream, look, context);
        judge(result);
        if (result == 1)
            ++packets;
        else
            restMs(1);
    }
    if (packets == 0) throw noPacket(plan, channelOf(plan));
    return packets;
}

constexpr unsigned kPackets = 100;

struct OpenedWithTraffic {
    explicit OpenedWithTraffic(const TestPlan& plan)
        : stream(openUp(openCard(plan.bus), plan.channel)), traffic(plan, channelOf(plan)) {
        g_seen = {};
    }
    UpStreamHandle stream;
    Traffic traffic;
};

void pollHandlesAtMostOne(const TestPlan& plan) {
    const OpenedWithTraffic opened(plan);
    unsigned before = 0;
    pollPackets(plan, opened.stream.get(), nullptr, kPackets, [&](int result) {
        const unsigned calls = g_seen.calls - before;
        before = g_seen.calls;
        expect(calls <= 1, "at most 1 call of the handler in a poll", std::to_string(calls));
        expect(result == static_cast<int>(calls), "result " + std::to_string(calls) + ", the number handled",
               std::to_string(result));
    });
}

void packetsFitTheMtu(const TestPlan& plan) {
    const OpenedWithTraffic opened(plan);
    g_seen.mtu = mtuOf(opened.stream);
    pollPackets(plan, opened.stream.get(), nullptr, kPackets, [](int) {
        expect(!g_seen.null, "a packet's bytes", "null");
        expect(g_seen.longest <= g_seen.mtu, "at most the MTU of " + std::to_string(g_seen.mtu) + " bytes",
               std::to_string(g_seen.longest));
    });
}

void contextArrives(const TestPlan& plan) {
    const OpenedWithTraffic opened(plan);
    int mine = 0;
    pollPackets(plan, opened.stream.get(), &mine, 1, [&](int) {
        expect(g_seen.calls == 0 || g_seen.context == &mine, "the context that was given to the poll",
               "another pointer");
    });
}

std::uint32_t packetCount(const UpStreamHandle& stream) {
    std::uint32_t count = 0;
    if (enyx_hw_a2c_stream_stats_get_packet_count(stream.get(), &count) != 0)
        throw Untestable{"the packet count cannot be read: " + errnoText(errno)};
    return count;
}

// Reads the count before a poll that finds nothing: the count does not yet include any packet that is polled later.
void packetCountGrows(const TestPlan& plan) {
    const OpenedWithTraffic opened(plan);
    std::uint32_t before = 0;
    const bool dry = within(kPatienceMs, [&] {
        for (int n = 0; n < 10000; ++n) {
            before = packetCount(opened.stream);
            if (enyx_hw_a2c_stream_poll_once(opened.stream.get(), look, nullptr) == 0) return true;
        }
        return false;
    });
    if (!dry) throw Untestable{"the stream never ran dry"};
    const unsigned packets = pollPackets(plan, opened.stream.get(), nullptr, kPackets, [](int) {});
    const std::uint32_t grown = packetCount(opened.stream) - before;
    expect(grown >= packets, "a packet count that grew by at least the " + std::to_string(packets) + " packets polled",
           std::to_string(grown));
}

// Opened, polled and destroyed in three threads.
void threadsMayTakeTurns(const TestPlan& plan) {
    enyx_hw_accelerator* card = openCard(plan.bus);
    UpStreamHandle stream = openUp(card, plan.channel);
    std::uint32_t mtu = 0;
    int polled = -1, read = -1, error = 0;
    std::thread([&] {
        errno = 0;
        polled = enyx_hw_a2c_stream_poll_once(stream.get(), look, nullptr);
        read = enyx_hw_a2c_stream_get_mtu(stream.get(), &mtu);
        error = errno;
    }).join();
    std::thread([&] { stream.reset(); }).join();
    expect(polled >= 0 && read == 0, "results 0 or 1 and 0 of a poll and an MTU in another thread",
           std::to_string(polled) + " and " + std::to_string(read) + ", " + errnoText(error));
    stream = tryOpenUp(card, channelOf(plan));
    expect(stream != nullptr, "a stream that another thread destroyed opens again", "null, " + errnoText(errno));
}

}  // namespace

std::vector<Check> upStreamChecks() {
    constexpr const char* g = "card-to-host streams";
    return {
        {g, "a2c-busy", "Opening a stream fails with null and EBUSY while another handle of this process holds it.",
         secondHandleIsBusy},
        {g, "a2c-again", "A stream that was destroyed can be opened again.", opensAgain},
        {g, "a2c-second", "An open stream does not bar the others.", streamsAreIndependent},
        {g, "a2c-mtu", "The MTU is 64 bytes to 16 MiB and the same each time.", mtuIsSteady},
        {g, "a2c-counters", "The four counters can be read.", countersAreReadable},
        {g, "a2c-poll", "A poll calls the handler at most once and returns how often, 0 or 1.", pollHandlesAtMostOne},
        {g, "a2c-packets", "A packet is no longer than the MTU and can be read inside the handler.", packetsFitTheMtu},
        {g, "a2c-context", "The handler gets the context that was given to the poll.", contextArrives},
        {g, "a2c-count", "The packet count grows by at least the packets that were polled.", packetCountGrows},
        {g, "a2c-threads", "A stream may be opened, polled and destroyed by different threads.", threadsMayTakeTurns},
    };
}

}  // namespace cardtest
