#include "sim/card/PacketFaults.h"

#include <algorithm>
#include <cstring>

#include "enyx-sim/md_payload.h"
#include "sim/card/PriceModel.h"
#include "sim/card/Schedule.h"
#include "sim/card/UpStream.h"

namespace vexo_sim {

bool isValid(const PacketFault& fault) {
    constexpr std::uint32_t kAllChannels = (1U << kStreams) - 1;
    constexpr std::uint32_t kAllSorts = kQuotePackets | kMapPackets;
    return fault.kind < PacketFaultKind::kEnd && fault.channels != 0 && fault.channels <= kAllChannels &&
           fault.packets != 0 && fault.packets <= kAllSorts && fault.first >= 1 && fault.every >= 1 &&
           fault.perMillion <= kMillion;
}

namespace packet_faults {
namespace {

// Contract-map packet: length of the message area at 12, the messages from 14 on, each beginning with its own length;
// the first has the number of instruments behind that.
constexpr std::uint32_t kAreaLength = 12;
constexpr std::uint32_t kArea = 14;
constexpr std::uint32_t kHeadSize = sizeof(enyx_sim::PacketHead);

bool strikesMapsOnly(PacketFaultKind kind) { return kind >= PacketFaultKind::kMapLength; }

bool isDue(PacketFaultState& fault, std::uint64_t& random) {
    const PacketFault& rule = fault.rule;
    const std::uint64_t number = ++fault.seen;
    // In shared memory another process can write any rule: it must not make this one divide by 0.
    if (number < rule.first || (number - rule.first) % std::max(rule.every, 1U) != 0) return false;
    if (rule.times != 0 && fault.strikes >= rule.times) return false;
    return rule.perMillion == kMillion || nextRandom(random) % kMillion < rule.perMillion;
}

bool concerns(const PacketFault& rule, std::uint32_t channel, std::uint32_t sort) {
    if (strikesMapsOnly(rule.kind) && sort != kMapPackets) return false;
    return (rule.channels >> channel & 1) != 0 && (rule.packets & sort) != 0;
}

void put16(unsigned char* packet, std::uint32_t size, std::uint32_t at, std::uint32_t value) {
    if (at + 2 > size) return;
    packet[at] = static_cast<unsigned char>(value >> 8);
    packet[at + 1] = static_cast<unsigned char>(value);
}

std::uint32_t get16(const unsigned char* packet, std::uint32_t at) {
    return static_cast<std::uint32_t>(packet[at] << 8 | packet[at + 1]);
}

// Where a message begins, or the packet's size when there is no such message. An earlier rule may have changed a length
// on the way to it.
std::uint32_t messageAt(const unsigned char* packet, std::uint32_t size, std::uint32_t number) {
    std::uint32_t at = kArea;
    while (number > 0 && at + 2 <= size) {
        const std::uint32_t length = get16(packet, at);
        if (length == 0) return size;
        at += length;
        --number;
    }
    return std::min(at, size);
}

void putHead(unsigned char* packet, std::uint32_t size, std::size_t at, std::uint32_t value) {
    if (at + sizeof value <= size) std::memcpy(packet + at, &value, sizeof value);
}

void flipBit(unsigned char* packet, std::uint32_t size, std::uint64_t& random) {
    if (size <= kHeadSize) return;
    const std::uint64_t bit = nextRandom(random) % (std::uint64_t{size - kHeadSize} * 8);
    packet[kHeadSize + bit / 8] ^= static_cast<unsigned char>(1U << bit % 8);
}

void apply(CardState& s, const PacketFaultState& fault, unsigned char* packet, Verdict& verdict) {
    constexpr std::uint32_t kLongestRunt = kHeadSize - 1;
    constexpr std::uint32_t kMostCopies = 64;
    const std::uint32_t value = fault.rule.value;
    const std::uint32_t size = verdict.size;
    switch (fault.rule.kind) {
        case PacketFaultKind::kDrop: verdict.copies = 0; break;
        case PacketFaultKind::kDouble: verdict.copies = std::min(verdict.copies * 2, kMostCopies); break;
        case PacketFaultKind::kCut: verdict.size = std::min(size, value); break;
        case PacketFaultKind::kRunt:
            verdict.size = std::min(size, static_cast<std::uint32_t>((fault.strikes - 1) % (kLongestRunt + 1)));
            break;
        case PacketFaultKind::kType: putHead(packet, size, offsetof(enyx_sim::PacketHead, type), value); break;
        case PacketFaultKind::kHeadLength: putHead(packet, size, offsetof(enyx_sim::PacketHead, length), value); break;
        case PacketFaultKind::kFlip: flipBit(packet, size, s.faults.random); break;
        case PacketFaultKind::kMapLength:
            put16(packet, size, messageAt(packet, size, fault.rule.message), value);
            break;
        case PacketFaultKind::kMapArea: put16(packet, size, kAreaLength, value); break;
        case PacketFaultKind::kMapCount:
            put16(packet, size, kArea + 2, value >> 16);
            put16(packet, size, kArea + 4, value & 0xFFFF);
            break;
        case PacketFaultKind::kMapIndex: {
            constexpr std::uint32_t kFirstIndex = 7;
            constexpr std::uint32_t kLaterIndex = 3;
            const std::uint32_t index = fault.rule.message == 0 ? kFirstIndex : kLaterIndex;
            put16(packet, size, messageAt(packet, size, fault.rule.message) + index, value);
            break;
        }
        case PacketFaultKind::kEnd: break;
    }
}

// Counts the packet that is about to be delivered. False when the card stops before it.
bool countDown(CardState& s, std::uint32_t copies) {
    FaultState& faults = s.faults;
    if (faults.stopped) return false;
    if (faults.packetsLeft == kNever) return true;
    if (faults.packetsLeft == 0) {
        faults.stopped = true;
        return false;
    }
    faults.packetsLeft -= std::min<std::uint64_t>(faults.packetsLeft, copies);
    return true;
}

}  // namespace

int add(CardState& s, const PacketFault& rule) {
    if (!isValid(rule) || s.faults.count >= kPacketFaults) return -1;
    s.faults.rules[s.faults.count] = {rule, 0, 0};
    s.faults.armed = true;
    return static_cast<int>(s.faults.count++);
}

void clear(CardState& s) {
    s.faults.count = 0;
    s.faults.armed = s.faults.packetsLeft != kNever;
}

void stopAfter(CardState& s, std::uint64_t packets) {
    s.faults.packetsLeft = packets != 0 ? packets : kNever;
    s.faults.armed = s.faults.count != 0 || packets != 0;
}

Verdict spoil(CardState& s, std::uint32_t channel, std::uint32_t sort, unsigned char* packet, std::uint32_t size) {
    Verdict verdict{1, size};
    const std::uint32_t count = std::min(s.faults.count, kPacketFaults);
    for (std::uint32_t n = 0; n < count; ++n) {
        PacketFaultState& fault = s.faults.rules[n];
        if (!concerns(fault.rule, channel, sort) || !isDue(fault, s.faults.random)) continue;
        ++fault.strikes;
        apply(s, fault, packet, verdict);
    }
    if (verdict.copies != 0 && !countDown(s, verdict.copies)) verdict.copies = 0;
    return verdict;
}

void commitSpoiled(CardState& s, std::uint32_t channel, std::uint32_t sort, unsigned char* packet, std::uint32_t size) {
    const Verdict verdict = spoil(s, channel, sort, packet, size);
    if (verdict.copies == 0) return;
    UpStreamState& stream = s.up[channel];
    ring::commit(stream.ring, verdict.size);
    ++stream.packets;
    for (std::uint32_t n = 1; n < verdict.copies; ++n) put(stream, packet, verdict.size);
}

}  // namespace packet_faults
}  // namespace vexo_sim
