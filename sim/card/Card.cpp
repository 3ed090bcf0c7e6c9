#include "sim/card/Card.h"

#include <algorithm>
#include <cstring>

#include "sim/card/ContractMap.h"
#include "sim/card/Feed.h"
#include "sim/card/InstrumentList.h"
#include "sim/card/PacketFaults.h"
#include "sim/card/Registers.h"
#include "sim/card/Schedule.h"
#include "sim/card/StaticData.h"
#include "sim/card/Tables.h"
#include "sim/card/UpStream.h"

namespace vexo_sim {
namespace {

// The host's clock may step back, mostly a test's fake clock. The card must not stand still until it has caught up.
void moveClock(CardState& s, const CardTime& now) {
    const std::uint64_t pace = s.config.pace == kPaceOfReaders ? 1 : s.config.pace;
    if (now.monotonicNs > s.now.monotonicNs) s.clockNs += (now.monotonicNs - s.now.monotonicNs) * pace;
    s.now = now;
}

void forgetEverything(CardState& s) {
    s.registers = RegisterState{};
    s.registers.pinnedTime[0] = s.registers.pinnedTime[1] = kClockRuns;
    s.registers.stored[card_reg::kTradingDate] = s.config.initialDate;
    s.registers.stored[card_reg::kDecodeSwitch] = s.config.initialSwitch;
    for (TableState& table : s.tables) std::memset(&table, 0, sizeof table);
    s.faults = FaultState{};
    s.faults.packetsLeft = s.faults.stopNs = kNever;
    s.faults.random = s.config.seed * 0xD1342543DE82EF95U + 0x9E3779B97F4A7C15U;
    s.map = MapState{};
    for (DownStreamState& stream : s.down) stream = DownStreamState{};
    for (UpStreamState& stream : s.up) {
        stream.open = false;
        stream.opened = 0;
        stream.packets = stream.backPressure = stream.fifoErrors = stream.errors = stream.headSequence = 0;
        stream.quoteSequence = 0;
        ring::init(stream.ring, s.config.ringBytes);
    }
}

// A burst that takes longer than its turn would never end.
bool areBurstsValid(const CardConfig& c) {
    if (c.burstFactor < 1 || c.burstFactor > kMaxBurstFactor || c.burstEveryMs > kMaxMilliseconds) return false;
    return c.burstEveryMs == 0 || (c.burstMs >= 1 && c.burstMs <= c.burstEveryMs);
}

}  // namespace

bool isValid(const CardConfig& c) {
    const bool ring = c.ringBytes >= kMinRingBytes && c.ringBytes <= kMaxRingBytes;
    const bool mtu = c.mtu >= kMinMtu && c.mtu <= kMaxMtu;
    return ring && mtu && c.mtu <= ring::largestPacket(ring::capacityFor(c.ringBytes)) &&
           c.quotesPerSecond <= kMaxQuotesPerSecond && c.learningMs <= kMaxMilliseconds && c.staticRoundMs >= 1 &&
           c.staticRoundMs <= kMaxMilliseconds && c.mapMessagesPerPacket >= 1 && c.mapRoundMs >= 1 &&
           c.mapRoundMs <= kMaxMilliseconds && c.instruments <= InstrumentChoice::kNone && areBurstsValid(c) &&
           c.pace <= kMaxPace && c.initialSwitch <= 3;
}

void Card::forgetAll(const CardConfig& config, const CardTime& now) {
    m_state.config = config;
    m_state.now = now;
    m_state.clockNs = 0;
    forgetEverything(m_state);
    feed::powerOn(m_state);
}

void Card::powerOn(const CardConfig& config, const CardTime& now) {
    forgetAll(config, now);
    ParserState& parser = m_state.parser;
    parser.count = makeInstrumentList(config.instruments, config.listDate != 0 ? config.listDate : now.date,
                                      parser.instruments);
    static_data::restart(m_state);
}

bool Card::powerOn(const CardConfig& config, const CardTime& now, const Instrument* instruments, std::size_t count) {
    if (!isValidList(instruments, count)) return false;
    forgetAll(config, now);
    std::copy(instruments, instruments + count, m_state.parser.instruments);
    m_state.parser.count = static_cast<std::uint32_t>(count);
    static_data::restart(m_state);
    return true;
}

bool Card::replaceInstruments(const Instrument* instruments, std::size_t count) {
    if (!isValidList(instruments, count)) return false;
    std::copy(instruments, instruments + count, m_state.parser.instruments);
    m_state.parser.count = static_cast<std::uint32_t>(count);
    restart();
    return true;
}

void Card::reset() {
    std::uint32_t& ignored = m_state.faults.resetsIgnored;
    if (ignored == 0) return restart();
    if (ignored != kForGood) --ignored;
}

void Card::restart() {
    m_state.registers.heldInReset = false;
    m_state.registers.stored[card_reg::kReset] = 0;
    registers::forgetSwitches(m_state);
    static_data::restart(m_state);
}

bool Card::write(std::uint64_t byteAddress, std::uint32_t bitOffset, std::uint32_t bitWidth, std::uint64_t value) {
    return registers::writeField(m_state, byteAddress, bitOffset, bitWidth, value);
}

bool Card::read(std::uint64_t byteAddress, std::uint32_t bitOffset, std::uint32_t bitWidth, std::uint64_t& value) {
    return registers::readField(m_state, byteAddress, bitOffset, bitWidth, value);
}

bool Card::advance(const CardTime& now) {
    if (m_state.faults.stopped) {
        m_state.now.monotonicNs = now.monotonicNs;
        return false;
    }
    moveClock(m_state, now);
    return m_state.clockNs >= m_state.nextDueNs && runDue();
}

bool Card::runDue() {
    CardState& s = m_state;
    const bool last = s.clockNs >= s.faults.stopNs;
    if (last) s.clockNs = s.faults.stopNs;
    s.nextDueNs = s.faults.stopNs;  // each step below may ask for an earlier moment
    bool more = false;
    if (!s.registers.heldInReset) {
        static_data::advance(s);
        contract_map::advance(s);
        more = feed::advance(s);
    }
    if (last) s.faults.stopped = true;
    return more;
}

void Card::stop(bool stopped) {
    m_state.faults.stopped = stopped;
    if (stopped) return;
    packet_faults::stopAfter(m_state, 0);
    stopAfterMs(0);
}

void Card::stopAfterMs(std::uint32_t ms) {
    m_state.faults.stopNs = ms != 0 ? m_state.clockNs + nsFromMs(ms) : kNever;
    wakeAt(m_state, m_state.faults.stopNs);
}

void Card::repair() {
    static_data::repair(m_state);
    m_state.nextDueNs = m_state.clockNs;
}

bool Card::openUp(std::uint32_t channel) {
    UpStreamState& stream = m_state.up[channel];
    if (stream.open || (m_state.faults.heldUp >> channel & 1) != 0) return false;
    stream.open = true;
    ++stream.opened;
    contract_map::refresh(m_state);
    return true;
}

void Card::closeUp(std::uint32_t channel) {
    UpStreamState& stream = m_state.up[channel];
    stream.open = false;
    stream.packets = stream.backPressure = stream.fifoErrors = stream.errors = 0;
    ring::drain(stream.ring);
    contract_map::refresh(m_state);
}

bool Card::push(std::uint32_t channel, const void* data, std::uint32_t size) {
    if (size > safeMtu(m_state.config.mtu)) return false;
    return put(m_state.up[channel], data, size);
}

bool Card::deliver(std::uint32_t channel, const void* data, std::uint32_t size) {
    if (!packet_faults::armed(m_state)) return push(channel, data, size);
    if (size > safeMtu(m_state.config.mtu)) return false;
    UpStreamState& stream = m_state.up[channel];
    unsigned char* room = ring::reserve(stream.ring, size);
    if (room == nullptr) {
        ++stream.backPressure;
        return false;
    }
    if (size > 0) std::memcpy(room, data, size);
    const bool isMap = contract_map::isMapPacket(room, size);
    packet_faults::commitSpoiled(m_state, channel, isMap ? kMapPackets : kQuotePackets, room, size);
    return true;
}

bool Card::openDown(std::uint32_t channel) {
    DownStreamState& stream = m_state.down[channel];
    if (stream.open) return false;
    stream.open = true;
    return true;
}

bool Card::send(std::uint32_t channel, std::uint32_t size) {
    DownStreamState& stream = m_state.down[channel];
    if (stream.busySends > 0) {
        if (stream.busySends != kForGood) --stream.busySends;
        return false;
    }
    ++stream.packets;
    stream.bytes += size;
    return true;
}

void Card::stopQuotes() {
    m_state.config.quotesPerSecond = 0;
    feed::refresh(m_state);
}

void Card::pauseFeed(bool paused) {
    m_state.feed.paused = paused;
    feed::refresh(m_state);
    contract_map::refresh(m_state);
}

}  // namespace vexo_sim
