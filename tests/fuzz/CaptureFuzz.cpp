// A capture file through the reader, and through a card that replays it: each channel must get exactly the packets that
// the reader finds for it, in their order, whatever the pace.
//
// An input: a byte of switches, then the file. Or, with kBuild, the parts of blocks, from which a file is built whose
// lengths agree: a kind, the size of the body (two bytes), the body.

#include <algorithm>
#include <deque>
#include <map>
#include <sstream>
#include <string>

#include "capture/Format.h"
#include "capture/Reader.h"
#include "capture/StreamPlace.h"
#include "sim/card/Card.h"
#include "sim/card/ContractMap.h"
#include "sim/card/ZeroedMemory.h"
#include "sim/replay/Replay.h"
#include "tests/fuzz/Fuzz.h"

namespace {

using vexo_sim::kStreams;

constexpr std::uint32_t kMtu = 512;
constexpr unsigned int kMostTurns = 400;

enum Switch : std::uint8_t {
    kBuild = 1,
    kAsTaken = 2,
    kWithoutMap = 4,
    kBus = 8,  // 1, not 0
    kRestart = 16,
};

void Append(std::string& bytes, std::uint32_t value) {
    for (unsigned int i = 0; i < 4; ++i) bytes += static_cast<char>(value >> (8 * i) & 0xFF);
}

std::string Block(std::uint32_t type, std::string body) {
    while (body.size() % 4 != 0) body += '\0';
    std::string block;
    const auto size = static_cast<std::uint32_t>(body.size() + capture::format::kFrameBytes);
    Append(block, type);
    Append(block, size);
    block += body;
    Append(block, size);
    return block;
}

std::string NextBlock(fuzz::Input& input) {
    const std::uint8_t kind = input.Byte();
    std::size_t size = input.Word() % 2048U;
    const auto* bytes = reinterpret_cast<const char*>(input.Bytes(size));
    std::string body = size == 0 ? std::string() : std::string(bytes, size);
    switch (kind % 8) {
        case 0: return Block(capture::format::kSectionHeader, body);
        case 1: return Block(capture::format::kInterfaceDescription, body);
        case 2: return Block(capture::format::kInterfaceStatistics, body);
        case 3: return Block(capture::format::kEnhancedPacket, body);
        case 4: return Block(kind, body);
        default: break;
    }
    // A packet: interface, time and lengths are short, so that they often fit.
    std::string packet;
    Append(packet, kind >> 3 & 3);
    Append(packet, 0);
    Append(packet, static_cast<std::uint32_t>(size) << (kind >> 5));
    Append(packet, static_cast<std::uint32_t>(body.size()));
    Append(packet, static_cast<std::uint32_t>(body.size() + (kind >> 6)));
    return Block(capture::format::kEnhancedPacket, packet + body);
}

std::string Built(fuzz::Input& input) {
    std::string section;
    Append(section, capture::format::kByteOrderMagic);
    Append(section, 1);  // version 1.0
    Append(section, ~0U);
    Append(section, ~0U);
    std::string file = Block(capture::format::kSectionHeader, section);
    for (const char* name : {"channel 0", "channel 3", "card 1 channel 0"}) {
        std::string body(1, static_cast<char>(capture::kStreamLink));
        body += std::string(7, '\0');
        const std::string text = name;
        body += static_cast<char>(capture::format::kInterfaceName);
        body += '\0';
        body += static_cast<char>(text.size());
        body += '\0';
        file += Block(capture::format::kInterfaceDescription, body + text);
    }
    while (!input.IsEmpty()) file += NextBlock(input);
    return file;
}

/// What the reader finds of one card.
struct Found {
    std::deque<std::string> packets[kStreams];
    bool hasMap = false;
    bool tooLong = false;
};

/// What a replay must make of a file.
class Expected {
public:
    Expected(const std::string& file, bool withMap) {
        std::istringstream in(file);
        capture::Reader reader(in);
        capture::Packet packet;
        while (reader.next(packet)) Take(packet, withMap);
        m_damaged = reader.damage().has_value();
        fuzz::Require(!reader.next(packet), "a reader goes on behind the end");
    }

    bool IsDamaged() const { return m_damaged; }
    /// The packets that a card at @p bus replays; null when the file must be refused.
    Found* Of(std::uint32_t bus) {
        const auto found = m_cards.size() == 1 ? m_cards.begin() : m_cards.find(bus);
        return found == m_cards.end() || found->second.tooLong ? nullptr : &found->second;
    }

private:
    void Take(const capture::Packet& packet, bool withMap) {
        fuzz::Require(packet.size <= packet.trueSize, "a packet is longer than it truly was");
        if (packet.interface->info.linkType != capture::kStreamLink) return;
        const auto place = capture::placeOf(packet.interface->info.name);
        if (!place || place->channel >= kStreams) return;
        Found& card = m_cards[place->card];
        card.tooLong = card.tooLong || packet.size > kMtu;
        const bool isMap = place->channel == 0 && vexo_sim::contract_map::isMapPacket(packet.data, packet.size);
        card.hasMap = card.hasMap || isMap;
        if (isMap && !withMap) return;
        card.packets[place->channel].emplace_back(reinterpret_cast<const char*>(packet.data), packet.size);
    }

    std::map<std::uint32_t, Found> m_cards;
    bool m_damaged = false;
};

class Campaign {
public:
    Campaign() {
        vexo_sim::CardConfig config;
        config.instruments = vexo_sim::InstrumentChoice::kNone;
        config.mtu = kMtu;
        config.ringBytes = 4096;
        m_card.powerOn(config, {1'000'000'000, 20250303, 120000, 0});
        m_card.pauseFeed(true);
    }

    void Run(fuzz::Input input) {
        const std::uint8_t switches = input.Byte();
        const std::string file = (switches & kBuild) != 0 ? Built(input) : input.Rest();
        const bool withMap = (switches & kWithoutMap) == 0;
        const std::uint32_t bus = (switches & kBus) != 0 ? 1 : 0;
        Expected expected(file, withMap);
        Found* const found = expected.Of(bus);

        m_file.Write(file);
        vexo_sim::Replay replay;
        using Pace = vexo_sim::Replay::Pace;
        const Pace pace = (switches & kAsTaken) != 0 ? Pace::kAsTaken : Pace::kOriginal;
        const bool opened = replay.open(m_file.Path(), kMtu, bus, pace, withMap);
        fuzz::Require(opened == (found != nullptr), "a capture is refused or replayed wrongly");
        fuzz::Require(replay.problem().empty() == (opened && !expected.IsDamaged()), "damage is not told, or made up");
        if (found == nullptr) return;
        fuzz::Require(replay.hasContractMap() == found->hasMap, "a contract map is lost or made up");
        for (std::uint32_t channel = 0; channel < kStreams; ++channel) {
            fuzz::Require(replay.packets(channel) == found->packets[channel].size(), "packets are counted wrongly");
        }
        Replay(replay, *found, (switches & kRestart) != 0);
    }

private:
    void Replay(vexo_sim::Replay& replay, Found found, bool restart) {
        for (std::uint32_t channel = 0; channel < kStreams; ++channel) m_card.openUp(channel);
        const Found whole = found;
        std::uint64_t now = 1;
        for (unsigned int turn = 0; turn < kMostTurns; ++turn) {
            replay.advance(m_card, now);
            for (std::uint32_t channel = 0; channel < kStreams; ++channel) Drain(channel, found.packets[channel]);
            if (restart && turn == 1) {
                replay.restart(3);
                found.packets[3] = whole.packets[3];
                continue;
            }
            if (replay.nextDue() == vexo_sim::kNever) break;
            now = std::max(now, replay.nextDue());
        }
        if (replay.isFinished()) {
            for (std::uint32_t channel = 0; channel < kStreams; ++channel)
                fuzz::Require(found.packets[channel].empty(), "a replay ends before its last packet");
        }
        for (std::uint32_t channel = 0; channel < kStreams; ++channel) m_card.closeUp(channel);
    }

    void Drain(std::uint32_t channel, std::deque<std::string>& expected) {
        for (vexo_sim::PacketView packet = m_card.peek(channel); packet.data != nullptr;
             packet = m_card.peek(channel)) {
            const std::string bytes(reinterpret_cast<const char*>(packet.data), packet.size);
            fuzz::Require(!expected.empty() && bytes == expected.front(), "a replay gives another packet");
            expected.pop_front();
            m_card.release(channel);
        }
    }

    const vexo_sim::ZeroedMemory<vexo_sim::CardState> m_memory;
    vexo_sim::Card m_card{*m_memory.get()};
    const fuzz::MemoryFile m_file;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Campaign campaign;
    campaign.Run({data, size});
    return 0;
}
