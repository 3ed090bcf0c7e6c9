#include "replay/Replay.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>

#include "capture/Reader.h"
#include "capture/StreamPlace.h"
#include "card/ContractMap.h"

namespace vexo_sim {
namespace {

constexpr std::size_t kReadBytes = 256 * 1024;

/// A capture file being read from its beginning.
class OpenFile {
public:
    explicit OpenFile(const std::string& path) : m_buffer(kReadBytes) {
        m_stream.rdbuf()->pubsetbuf(m_buffer.data(), static_cast<std::streamsize>(m_buffer.size()));
        m_stream.open(path, std::ios::binary);
    }

    bool isOpen() const { return m_stream.is_open(); }
    const std::optional<capture::Damage>& damage() const { return m_reader.damage(); }

    /// The next packet of a stream, and which one; register accesses are passed over, and streams of unknown channel.
    bool next(capture::Packet& packet, capture::StreamPlace& place) {
        while (m_reader.next(packet)) {
            const auto known = placeOf(packet.interface);
            if (!known) continue;
            place = *known;
            return true;
        }
        return false;
    }

private:
    using Place = std::optional<capture::StreamPlace>;

    const Place& placeOf(const capture::Interface* interface) {
        const auto [known, isNew] = m_places.try_emplace(interface);
        if (isNew && interface->info.linkType == capture::kStreamLink) {
            known->second = capture::placeOf(interface->info.name);
            if (known->second && known->second->channel >= kStreams) known->second.reset();
        }
        return known->second;
    }

    std::vector<char> m_buffer;
    std::ifstream m_stream;
    capture::Reader m_reader{m_stream};
    std::map<const capture::Interface*, Place> m_places;
};

/// What a file has of one card.
struct Content {
    std::uint64_t packets[kStreams] = {};
    std::uint64_t contractMaps = 0;  // of the packets of channel 0
    std::string tooLong;  // the first packet that is longer than the card's MTU
};

using Contents = std::map<std::uint32_t, Content>;

Contents contentsOf(OpenFile& file, std::uint32_t mtu) {
    Contents contents;
    capture::Packet packet;
    for (capture::StreamPlace place; file.next(packet, place);) {
        Content& content = contents[place.card];
        ++content.packets[place.channel];
        if (place.channel == 0 && contract_map::isMapPacket(packet.data, packet.size)) ++content.contractMaps;
        if (packet.size > mtu && content.tooLong.empty()) {
            content.tooLong = "at byte " + std::to_string(packet.offset) + ": a packet of " +
                              std::to_string(packet.size) + " bytes, but the card's MTU is " + std::to_string(mtu);
        }
    }
    return contents;
}

}  // namespace

struct Replay::Channel {
    explicit Channel(std::uint32_t which) : number(which) {}

    const std::uint32_t number;
    bool open = false;
    std::unique_ptr<OpenFile> file;
    bool hasPacket = false;
    capture::Packet packet;     // the next one
    std::uint64_t firstNs = 0;  // time of the channel's first packet
    std::uint64_t startNs = 0;  // when the stream was opened

    void readNext(std::uint32_t card, bool withContractMap) {
        capture::StreamPlace place;
        do {
            hasPacket = file->next(packet, place);
        } while (hasPacket && (place.card != card || place.channel != number ||
                               (!withContractMap && number == 0 && contract_map::isMapPacket(packet.data, packet.size))));
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
    const Contents contents = contentsOf(file, m_mtu);
    if (file.damage()) m_problem = m_path + ": " + file.damage()->text + "; what precedes it is replayed";
    const auto found = contents.size() == 1 ? contents.begin() : contents.find(bus);
    if (contents.empty()) return refuse(file.damage() ? file.damage()->text : "no packet of a card's stream in it");
    if (found == contents.end()) {
        return refuse("packets of several cards, but none of the card at bus " + std::to_string(bus));
    }
    const Content& content = found->second;
    if (!content.tooLong.empty()) return refuse(content.tooLong);
    m_card = found->first;
    m_hasContractMap = content.contractMaps > 0;
    for (std::uint32_t channel = 0; channel < kStreams; ++channel) {
        m_packets[channel] = content.packets[channel] - (channel == 0 && !m_withContractMap ? content.contractMaps : 0);
        if (m_packets[channel] > 0) m_channels.push_back(std::make_unique<Channel>(channel));
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
    channel.file = std::make_unique<OpenFile>(m_path);
    channel.readNext(m_card, m_withContractMap);
    channel.firstNs = channel.packet.timeNs;
}

void Replay::restart(std::uint32_t number) {
    for (const auto& channel : m_channels) {
        if (channel->number == number) channel->open = false;
    }
}

// The ring is asked before the push: a push that finds it full would count as lost.
void Replay::follow(Card& card, std::uint64_t clockNs, Channel& channel) {
    UpStreamState& stream = card.state().up[channel.number];
    if (!stream.open) {
        channel.open = false;
        return;
    }
    if (!channel.open) begin(channel, clockNs);
    while (channel.hasPacket && due(channel) <= clockNs && ring::reserve(stream.ring, channel.packet.size) != nullptr) {
        card.deliver(channel.number, channel.packet.data, channel.packet.size);
        channel.readNext(m_card, m_withContractMap);
    }
}

void Replay::advance(Card& card, std::uint64_t clockNs) {
    m_nextDue = kNever;
    for (const auto& channel : m_channels) {
        follow(card, clockNs, *channel);
        if (channel->open && channel->hasPacket) m_nextDue = std::min(m_nextDue, due(*channel));
    }
}

bool Replay::isFinished() const {
    bool opened = false;
    for (const auto& channel : m_channels) {
        if (channel->open && channel->hasPacket) return false;
        opened = opened || channel->open;
    }
    return opened;
}

}  // namespace vexo_sim
