#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "capture/Blocks.h"
#include "sim/remote/Wire.h"

namespace relay {

namespace wire = vexo_sim::wire;

/// What an archive knows of a block without its packets.
struct BlockFacts {
    std::uint64_t epoch = 0;
    std::uint64_t first = 0;    // number of the first packet
    std::uint64_t end = 0;      // number behind the last one
    std::uint64_t packets = 0;  // fewer than end - first when some are missing between
    std::uint64_t firstNs = 0;  // time of the first packet; without packets: of the counts
    std::uint64_t lastNs = 0;
    wire::Counts counts;              // of the stream since its epoch began, at the end of the block
    std::uint64_t lostByArchive = 0;  // of the packets that were sent, since the epoch began
    std::uint32_t mtu = 0;
    std::uint32_t flags = 0;
};

/// Packets of one epoch, as they lie in a frame of an archive's file: a block of pcapng that tells the facts and the
/// numbers, then a block for each packet. A reader of captures skips the first one.
class ArchiveBlock {
public:
    static constexpr std::size_t kFullBytes = 512 * 1024;       // what is added to a full one belongs into the next
    static constexpr std::size_t kMostBytes = 8 * 1024 * 1024;  // a full one and the largest message
    static constexpr std::size_t kMostRuns = 4096;

    struct Packet {
        std::uint64_t number;
        std::uint64_t timeNs;
        const unsigned char* data;
        std::uint32_t size;
    };

    const BlockFacts& facts() const { return m_facts; }
    bool isEmpty() const { return m_facts.packets == 0; }
    bool isFull() const { return m_packets.size() >= kFullBytes || m_runs.size() >= kMostRuns; }

    /// Takes a message of the stream: of the epoch of those before it, and without a problem.
    void add(const wire::Message& message);
    void setLostByArchive(std::uint64_t packets) { m_facts.lostByArchive = packets; }

    /// The content of the frame.
    capture::BlockBuffer encode() const;
    /// Checks bytes of any content. @return nothing when they are no such block
    static std::optional<ArchiveBlock> decode(capture::BlockBuffer bytes);
    /// The facts alone, of the first bytes of such a block.
    static std::optional<BlockFacts> decodeFacts(const unsigned char* bytes, std::size_t size);
    static constexpr std::size_t kFactsBytes = 168;

    /// visit(Packet), in order.
    template <typename Visit>
    void forEachPacket(Visit visit) const {
        std::size_t at = 0;
        for (const Run& run : m_runs) {
            for (std::uint32_t n = 0; n < run.packets; ++n) {
                Packet packet = packetAt(at);
                packet.number = run.first + n;
                visit(packet);
                at += capture::packetBlockBytes(packet.size);
            }
        }
    }

private:
    // Packets with numbers one after the other.
    struct Run {
        std::uint64_t first;
        std::uint32_t packets;
        std::uint32_t reserved;
    };
    static_assert(sizeof(Run) == 16);
    struct HeadBytes;

    Packet packetAt(std::size_t offset) const;
    bool isPacketAt(std::size_t offset) const;
    bool arePacketsWhole() const;

    BlockFacts m_facts;
    std::vector<Run> m_runs;
    capture::BlockBuffer m_packets;
};

}  // namespace relay
