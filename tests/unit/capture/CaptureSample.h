#pragma once

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "capture/Blocks.h"
#include "capture/Reader.h"

namespace capture {

inline std::string text(const BlockBuffer& blocks) { return std::string(blocks.begin(), blocks.end()); }

/// A packet as it was read, with bytes of its own.
struct ReadPacket {
    std::string interface;
    std::uint64_t timeNs;
    std::string bytes;
    std::uint64_t offset;
    std::uint32_t trueSize;

    bool operator==(const ReadPacket& other) const {
        return interface == other.interface && timeNs == other.timeNs && bytes == other.bytes && offset == other.offset;
    }
};

struct ReadFile {
    std::vector<ReadPacket> packets;
    std::deque<Interface> interfaces;
    std::optional<Damage> damage;

    std::size_t packetsOf(const std::string& interface) const {
        std::size_t count = 0;
        for (const ReadPacket& packet : packets) count += packet.interface == interface ? 1 : 0;
        return count;
    }
    const Interface* interface(const std::string& name) const {
        for (const Interface& candidate : interfaces) {
            if (candidate.info.name == name) return &candidate;
        }
        return nullptr;
    }
};

inline ReadFile readAll(std::istream& in) {
    ReadFile file;
    Reader reader(in);
    for (Packet packet; reader.next(packet);) {
        file.packets.push_back({packet.interface->info.name, packet.timeNs,
                                std::string(reinterpret_cast<const char*>(packet.data), packet.size), packet.offset,
                                packet.trueSize});
    }
    file.interfaces = reader.interfaces();
    file.damage = reader.damage();
    return file;
}

inline ReadFile readBytes(const std::string& bytes) {
    std::istringstream in(bytes);
    return readAll(in);
}

inline ReadFile readPath(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return readAll(in);
}

}  // namespace capture
