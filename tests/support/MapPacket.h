#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// Builds a contract-map packet as the card sends it. A test can then change every number in it.
class MapPacket {
public:
    static constexpr std::size_t kArea = 14;  ///< where the first message begins

    MapPacket() : m_bytes(kArea) { m_bytes[0] = 2; }

    /// Appends a message, with the long header when it is the first of the packet.
    MapPacket& Add(const std::string& id, std::uint16_t index) {
        return AddRaw(static_cast<std::uint16_t>(HeaderSize() + id.size()), index, id);
    }
    /// The same with the given message length.
    MapPacket& AddRaw(std::uint16_t length, std::uint16_t index, const std::string& id) {
        const std::size_t start = m_bytes.size();
        const std::size_t header = HeaderSize();
        m_bytes.resize(start + header, 0xEE);
        Put16(start, length);
        Put16(start + header - 2, index);
        m_bytes.insert(m_bytes.end(), id.begin(), id.end());
        m_messages.push_back(start);
        Put16(kArea - 2, static_cast<std::uint16_t>(m_bytes.size() - kArea));
        return *this;
    }
    /// Overwrites the length of the message area.
    MapPacket& Area(std::uint16_t length) {
        Put16(kArea - 2, length);
        return *this;
    }

    const std::vector<unsigned char>& Bytes() const { return m_bytes; }
    /// Where message @p number begins.
    std::size_t MessageAt(std::size_t number) const { return m_messages.at(number); }
    std::size_t Messages() const { return m_messages.size(); }

private:
    std::size_t HeaderSize() const { return m_messages.empty() ? 9 : 5; }
    void Put16(std::size_t at, std::uint16_t value) {
        m_bytes[at] = static_cast<unsigned char>(value >> 8);
        m_bytes[at + 1] = static_cast<unsigned char>(value & 0xFF);
    }

    std::vector<unsigned char> m_bytes;
    std::vector<std::size_t> m_messages;
};
