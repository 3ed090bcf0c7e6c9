#include "sim/replay/Replay.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <utility>

#include "capture/Reader.h"
#include "capture/StandardStreams.h"
#include "capture/StreamPlace.h"
#include "sim/card/ContractMap.h"

namespace vexo_sim {
namespace {

constexpr std::size_t kReadBytes = 64 * 1024;  // each channel reads the file for itself
constexpr std::uint32_t kMostBlocks = 4096;  // that a channel reads in one advance(): its caller holds the card's lock

/// A capture file being read, from its beginning or from where another one found a packet.
class OpenFile {
public:
    explicit OpenFile(const std::string& path) { m_reader.emplace(openAt(path)); }
    OpenFile(const std::string& path, capture::Start start) { m_reader.emplace(openAt(path), std::move(start)); }

    bool isOpen() const { return m_stream.is_open(); }
    const capture::Reader& reader() const { return *m_reader; }

    using Step = capture::Reader::Step;
    /// Reads one block. It may be a stream's packet, and then says which stream's; register accesses are passed over,
    /// and streams of unknown channel.
    Step step(capture::Packet& packet, capture::StreamPlace& place) {
        const Step step = m_reader->step(packet);
        if (step != Step::kPacket) return step;
        const auto& known = placeOf(packet.interface);
        if (known) place = *known;
        return known ? Step::kPacket : Step::kOther;
    }

private:
    std::istream& openAt(const std::string& path) {
        const capture::StandardNumbersTaken taken;
        m_stream.rdbuf()->pubsetbuf(m_buffer.data(), static_cast<std::streamsize>(m_buffer.size()));
        m_stream.open(path, std::ios::binary);
        return m_stream;
    }

    using Place = std::optional<capture::StreamPlace>;

    const Place& placeOf(const capture::Interface* interface) {
        const auto [known, isNew] = m_places.try_emplace(interface);
        if (isNew && interface->info.linkType == capture::kStreamLink) {
            known->second = capture::placeOf(interface->info.name);
            if (known->second && known->second->channel >= kStreams) known->second.reset();
        }
        return known->second;
    }

    std::vector<char> m_buffer = std::vector<char>(kReadBytes);
    std::ifstream m_stream;
    std::optional<capture::Reader> m_reader;
    std::map<const capture::Interface*, Place> m_places;
};

bool isContractMap(const capture::Packet& packet, std::uint32_t channel) {
    return channel == 0 && contract_map::isMapPacket(packet.data, packet.size);
}

/// The packets of one channel in a file.
struct Share {
    std::uint64_t packets = 0;
    capture::Place first;
    std::uint64_t firstNs = 0;

    void add(const capture::Packet& packet, const capture::Place& place) {
        if (packets++ > 0) return;
        first = place;
        firstNs = packet.timeNs;
    }
};

/// The packets of one card in a file.
struct Content {
    Share channels[kStreams];
    bool hasContractMap = false;
    std::string tooLong;  // the first packet that is longer than the card's MTU
};

using Contents = std::map<std::uint32_t, Content>;

Contents contentsOf(OpenFile& file, std::uint32_t mtu, bool withContractMap) {
    using Step = OpenFile::Step;
    Contents contents;
    capture::Packet packet;
    capture::StreamPlace place;
    for (Step step = file.step(packet, place); step != Step::kEnd; step = file.step(packet, place)) {
        if (step != Step::kPacket) continue;
        Content& content = contents[place.card];
        const bool isMap = isContractMap(packet, place.channel);
        content.hasContractMap |= isMap;
        if (!isMap || withContractMap) content.channels[place.channel].add(packet, file.reader().place());
        if (packet.size > mtu && content.tooLong.empty()) {
            content.tooLong = "at byte " + std::to_string(packet.offset) + ": a packet of " +
                              std::to_string(packet.size) + " bytes, but the card's MTU is " + std::to_string(mtu);
        }
    }
    return contents;
}

}  // namespace

struct Replay::Channel {
    Channel(std::uint32_t which, capture::Start where, std::uint64_t ns)
        : number(which), start(std::move(where)), firstNs(ns) {}

    const std::uint32_t number;
    const capture::Start start;   // at the channel's first packet
    const std::uint64_t firstNs;  // time of that packet
    bool open = false;
    std::uint64_t startNs = 0;  // when the stream was opened
    std::unique_ptr<OpenFile> file;
    bool atEnd = false;
    bool hasPacket = false;
    capture::Packet packet;  // the next one

    bool isDone() const { return atEnd && !hasPacket; }

    /// Reads on until there is a next packet, but no more blocks than @p blocks, which it counts down.
    void seek(std::uint32_t card, bool withContractMap, std::uint32_t& blocks) {
        for (capture::StreamPlace place; !hasPacket && !atEnd && blocks > 0; --blocks) {
            const OpenFile::Step step = file->step(packet, place);
            atEnd = step == OpenFile::Step::kEnd;
            hasPacket = step == OpenFile::Step::kPacket && place.card == card && place.channel == number &&
                        (withContractMap || !isContractMap(packet, number));
        }
    }
};

Replay::Replay() = default;
Replay::~Replay() = default;

bool Replay::refuse(const std::string& what) {
    m_problem = m_path + ": " + what;
    return false;
}

bool Replay::open(const std::string& path, std::uint32_t mtu, std::uint32_t bus, Pace pace, bool withContractMap) {
    m_path = path;
    m_mtu = mtu;
    m_pace = pace;
    m_withContractMap = withContractMap;
    m_problem.clear();
    m_channels.clear();
    m_nextDue = kNever;
    m_hasContractMap = false;
    std::fill(std::begin(m_packets), std::end(m_packets), 0);
    std::error_code error;
    if (std::filesystem::exists(path, error) && !std::filesystem::is_regular_file(path, error)) {
        return refuse("not a regular file");  // a FIFO would be empty when it is read again
    }
    return choose(bus);
}

bool Replay::choose(std::uint32_t bus) {
    OpenFile file(m_path);
    if (!file.isOpen()) return refuse(std::strerror(errno));
    const Contents contents = contentsOf(file, m_mtu, m_withContractMap);
    const std::optional<capture::Damage>& damage = file.reader().damage();
    if (damage) m_problem = m_path + ": " + damage->text + "; what precedes it is replayed";
    const auto found = contents.size() == 1 ? contents.begin() : contents.find(bus);
    if (contents.empty()) return refuse(damage ? damage->text : "no packet of a card's stream in it");
    if (found == contents.end()) {
        return refuse("packets of several cards, but none of the card at bus " + std::to_string(bus));
    }
    const Content& content = found->second;
    if (!content.tooLong.empty()) return refuse(content.tooLong);
    m_card = found->first;
    m_hasContractMap = content.hasContractMap;
    for (std::uint32_t channel = 0; channel < kStreams; ++channel) {
        const Share& share = content.channels[channel];
        m_packets[channel] = share.packets;
        if (share.packets == 0) continue;
        m_channels.push_back(std::make_unique<Channel>(channel, file.reader().startAt(share.first), share.firstNs));
    }
    return true;
}

std::uint64_t Replay::packets() const {
    std::uint64_t all = 0;
    for (const std::uint64_t count : m_packets) all += count;
    return all;
}

std::uint64_t Replay::due(const Channel& channel) const {
    if (m_pace == Pace::kAsTaken || channel.packet.timeNs < channel.firstNs) return channel.startNs;
    return channel.startNs + (channel.packet.timeNs - channel.firstNs);
}

void Replay::begin(Channel& channel, std::uint64_t clockNs) {
    channel.open = true;
    channel.startNs = clockNs;
    channel.file = std::make_unique<OpenFile>(m_path, channel.start);
    channel.atEnd = channel.hasPacket = false;
}

void Replay::restart(std::uint32_t number) {
    for (const auto& channel : m_channels) {
        if (channel->number == number) channel->open = false;
    }
}

// The ring is asked before the push: a push that finds it full would count as lost. A card that stops at a packet has
// not taken it.
void Replay::follow(Card& card, std::uint64_t clockNs, Channel& channel) {
    UpStreamState& stream = card.state().up[channel.number];
    if (!stream.open) {
        channel.open = false;
        return;
    }
    if (!channel.open) begin(channel, clockNs);
    std::uint32_t blocks = kMostBlocks;
    channel.seek(m_card, m_withContractMap, blocks);
    while (blocks > 0 && channel.hasPacket && due(channel) <= clockNs &&
           ring::reserve(stream.ring, channel.packet.size) != nullptr) {
        card.deliver(channel.number, channel.packet.data, channel.packet.size);
        if (card.state().faults.stopped) return;
        channel.hasPacket = false;
        channel.seek(m_card, m_withContractMap, blocks);
    }
}

void Replay::advance(Card& card, std::uint64_t clockNs) {
    m_nextDue = kNever;
    for (const auto& channel : m_channels) {
        if (!card.state().faults.stopped) follow(card, clockNs, *channel);
        if (!channel->open || channel->isDone()) continue;
        m_nextDue = std::min(m_nextDue, channel->hasPacket ? due(*channel) : clockNs);
    }
}

bool Replay::isFinished() const {
    bool opened = false;
    for (const auto& channel : m_channels) {
        if (channel->open && !channel->isDone()) return false;
        opened = opened || channel->open;
    }
    return opened;
}

}  // namespace vexo_sim
