#include <cerrno>
#include <cstring>

#include "interface/CardRegisters.h"
#include "tools/cardtest/CardUnderTest.h"
#include "tools/cardtest/Helper.h"
#include "tools/cardtest/Traffic.h"

namespace cardtest {
namespace {

constexpr std::uint32_t kTable = card_reg::kSingleLegTable;
constexpr std::uint32_t kRowsScanned = 4095;  // as far as the library looks for instruments
constexpr unsigned kRowsSubscribed = 256;
constexpr std::uint32_t kMapType = 2;
constexpr std::uint32_t kMapHead = 14;

// What the handlers below have seen. Global, because another check tests whether the context pointer arrives.
struct Seen {
    unsigned quotes = 0;
    unsigned maps = 0;
    unsigned messages = 0;
    std::string broken;  // the first contract-map packet that does not consist of whole messages
};
thread_local Seen g_seen;

unsigned bigEndian(const std::uint8_t* p) { return static_cast<unsigned>(p[0] << 8 | p[1]); }

// The messages of a contract-map packet, one after another. The first one's header has nine bytes, the others' five.
void walkMap(const std::uint8_t* data, std::uint32_t size) {
    ++g_seen.maps;
    if (size < kMapHead + 1) {
        g_seen.broken = std::to_string(size) + " bytes";
        return;
    }
    const std::uint32_t end = kMapHead + bigEndian(data + 12);
    std::uint32_t header = 9;
    for (std::uint32_t at = kMapHead; at < end; header = 5) {
        const unsigned length = at + 2 <= size ? bigEndian(data + at) : 0;
        if (length <= header || at + length > size || at + length > end) {
            g_seen.broken = "a message of " + std::to_string(length) + " bytes at byte " + std::to_string(at) + " of " +
                            std::to_string(size);
            return;
        }
        at += length;
        ++g_seen.messages;
    }
}

void look(const std::uint8_t* data, std::uint32_t size, void*) {
    std::uint32_t type = 0;
    if (size >= sizeof type) std::memcpy(&type, data, sizeof type);
    if (type >= 17 && type <= 20) ++g_seen.quotes;
    if (type == kMapType) walkMap(data, size);
}

template <typename Condition>
bool pollUntil(enyx_hw_a2c_stream* stream, std::uint32_t seconds, Condition condition) {
    const std::int64_t end = nowMs() + std::int64_t{seconds} * 1000;
    while (!condition()) {
        if (nowMs() >= end) return false;
        if (enyx_hw_a2c_stream_poll_once(stream, look, nullptr) != 1) restMs(1);
    }
    return true;
}

bool isMasked(const TestPlan& plan, std::uint32_t channel) {
    const RegisterCore registers(plan.bus);
    const TableAccess tables(registers);
    for (std::uint32_t table = 0; table < 2; ++table)
        for (std::uint32_t row = 0; row < card_reg::kRows; ++row)
            if ((tables.read(table, row, card_reg::kMaskWord) >> channel & 1) != 0) return true;
    return false;
}

// First the masks name only another channel, then this one.
void quotesFollowMasks(const TestPlan& plan) {
    const std::uint32_t channel = channelOf(plan);
    const UpStreamHandle stream = openUp(openCard(plan.bus), plan.channel);
    if (!isMasked(plan, channel)) {
        const Traffic elsewhere(plan, (channel + 1) % kChannels);
        g_seen = {};
        pollUntil(stream.get(), 1, [] { return g_seen.quotes > 0; });
        expect(g_seen.quotes == 0, "no quote on " + streamName(channel) + " while no mask names it", "a quote");
    }
    const Traffic traffic(plan, channel);
    g_seen = {};
    if (!pollUntil(stream.get(), plan.seconds, [] { return g_seen.quotes >= 10; })) throw noPacket(plan, channel);
}

// The contract map is always on channel 0's stream.
void mapIsSentOnRequest(const TestPlan& plan) {
    const UpStreamHandle stream = openUp(openCard(plan.bus), 0);
    const RegisterCore registers(plan.bus);
    g_seen = {};
    registers.write(card_reg::kMapTransmit, 1);
    const bool came = pollUntil(stream.get(), plan.seconds,
                                [] { return g_seen.messages > 100 || !g_seen.broken.empty(); });
    registers.write(card_reg::kMapTransmit, 0);
    if (!came && g_seen.maps == 0)
        throw Untestable{"no contract-map packet came within " + std::to_string(plan.seconds) + " s"};
    expect(g_seen.broken.empty(), "contract-map packets that are filled with whole messages", g_seen.broken);
    // Drains the packets that are on their way. After that, a whole second must pass without one.
    std::int64_t quietSince = nowMs();
    const bool quiet = within(kPatienceMs, [&] {
        const unsigned before = g_seen.maps;
        while (enyx_hw_a2c_stream_poll_once(stream.get(), look, nullptr) == 1 && g_seen.maps - before < 1000) {
        }
        if (g_seen.maps != before) quietSince = nowMs();
        return nowMs() - quietSince >= 1000;
    });
    expect(quiet, "no contract-map packet once 0x12 is 0", "packets that go on coming");
}

}  // namespace

Traffic::Saved::Saved(std::uint32_t bus)
    : registers(bus),
      tables(registers),
      data(registers, card_reg::kTables[kTable].data),
      decode(registers, card_reg::kDecodeSwitch),
      masks(tables) {}

Traffic::Traffic(const TestPlan& plan, std::uint32_t channel) {
    if (!plan.write) return;
    m_saved = std::make_unique<Saved>(plan.bus);
    subscribe(plan, channel);
    m_saved->registers.write(card_reg::kDecodeSwitch,
                             m_saved->decode.found() | card_reg::kSwitchLevel1 | card_reg::kSwitchLevel5);
}

void Traffic::subscribe(const TestPlan& plan, std::uint32_t channel) {
    unsigned subscribed = 0;
    const bool learned = within(static_cast<int>(plan.seconds) * 1000 + kPatienceMs, [&] {
        for (std::uint32_t row = 0; row < kRowsScanned && subscribed < kRowsSubscribed; ++row) {
            if (!m_saved->tables.isNamed(kTable, row)) continue;
            const std::uint32_t found = m_saved->masks.save(kTable, row, card_reg::kMaskWord);
            m_saved->tables.write(kTable, row, card_reg::kMaskWord, found | 1U << channel);
            ++subscribed;
        }
        return subscribed > 0;
    });
    if (!learned) throw Untestable{"the card has learned no instrument"};
}

Untestable noPacket(const TestPlan& plan, std::uint32_t channel) {
    return {"no packet came within " + std::to_string(plan.seconds) + " s on " + streamName(channel) +
            (plan.write ? "" : " (--write subscribes instruments, --seconds waits longer)")};
}

std::vector<Check> trafficChecks() {
    constexpr const char* g = "market data";
    return {
        {g, "quotes-by-mask",
         "With decoding on, rows are quoted on the streams of the channels that their masks name, and on no other.",
         quotesFollowMasks, true, "the read-back select names a row that a check used"},
        {g, "map-on-request", "While 0x12 is 1, and only then, contract-map packets come up channel 0's stream.",
         mapIsSentOnRequest, true, "0x12 is 0"},
    };
}

}  // namespace cardtest
