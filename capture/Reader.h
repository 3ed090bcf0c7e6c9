#pragma once

#include <cstdint>
#include <deque>
#include <istream>
#include <optional>
#include <string>
#include <vector>

#include "capture/Blocks.h"

namespace capture {

/// An interface as a file describes it.
struct Interface {
    InterfaceInfo info;
    std::uint64_t unitsPerSecond = 1'000'000;
    std::optional<InterfaceCounts> counts;  // set when the reader has passed the statistics block
};

struct Packet {
    const Interface* interface = nullptr;  // valid as long as the reader
    std::uint64_t timeNs = 0;              // since 1970
    const unsigned char* data = nullptr;   // valid until the next packet is read
    std::uint32_t size = 0;
    std::uint32_t trueSize = 0;  // greater than size when the packet was cut
    std::uint64_t offset = 0;    // of the packet's block in the file
};

/// Where a packet stands in its file: its block, and the interfaces of its section that precede it.
struct Place {
    std::uint64_t offset = 0;
    std::size_t firstInterface = 0;  // both count over all sections, in file order
    std::size_t endInterface = 0;
};

/// What a reader needs to begin in the middle of a file.
struct Start {
    std::uint64_t offset = 0;
    std::deque<Interface> interfaces;
};

/// Where and why a file cannot be read on.
struct Damage {
    std::uint64_t offset = 0;  // of the block that is damaged or cut off
    std::string text;          // "at byte 1234: ..."
};

/// Reads a capture file packet by packet: pcapng in this machine's byte order. It skips blocks of
/// unknown kinds. It returns all packets before a damaged block and none behind it, whatever the bytes are.
class Reader {
public:
    /// Memory that the interfaces of a file may take. One more counts as damage: a small compressed file can hold
    /// millions of them.
    static constexpr std::size_t kMostInterfaceBytes = 64U << 20;

    /// @param in  opened in binary mode, at the start of the file; must live as long as the reader
    explicit Reader(std::istream& in) : m_in(in) {}
    /// Begins with the block that another reader of the same file found at @p start: see startAt().
    /// @param in  opened in binary mode, anywhere in the file; must live as long as the reader
    Reader(std::istream& in, Start start);

    /// @return false at the end of the file or where it is damaged: see damage().
    bool next(Packet& packet);
    enum class Step { kPacket, kOther, kEnd };
    /// Reads one block, for callers that must not read a long run of other blocks at once.
    Step step(Packet& packet);

    /// Of the packet that was read last.
    Place place() const { return {m_offset, m_firstOfSection, m_interfaces.size()}; }
    /// @param place  of a packet that this reader has read
    Start startAt(const Place& place) const;

    const std::optional<Damage>& damage() const { return m_damage; }
    /// All interfaces seen so far, of all sections; in the order of the file.
    const std::deque<Interface>& interfaces() const { return m_interfaces; }

private:
    struct Option;

    bool readBlock();
    bool readRest(std::uint32_t length);
    bool cutOff(std::uint64_t wanted, std::uint64_t found);
    bool fail(const std::string& what);
    void expectEndOfFile();
    bool isFrameGood(std::uint32_t type, std::uint32_t length);
    bool takeBlock(Packet& packet, bool& isPacket);
    bool takeSection();
    bool takeInterface();
    bool takeTimeUnit(Interface& interface, const Option& option);
    bool takePacket(Packet& packet);
    bool takeStatistics();
    bool nextOption(std::size_t& position, Option& option);
    Interface* interfaceOf(std::uint32_t number);

    template <typename Head>
    bool head(Head& value, const char* kind);

    std::istream& m_in;
    std::uint64_t m_offset = 0;  // of the block in m_block
    std::uint64_t m_nextOffset = 0;
    std::vector<unsigned char> m_block;  // whole, both lengths included
    std::deque<Interface> m_interfaces;  // a deque: packets point into it
    std::size_t m_interfaceBytes = 0;    // that they take
    std::size_t m_firstOfSection = 0;
    bool m_inSection = false;
    std::optional<Damage> m_damage;
};

}  // namespace capture
