#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace fuzz {

/// What contract-map packets teach, told from the layout of the packet alone: shares no code with the library.
class MapModel {
public:
    /// Adds what a packet of type 2 says, whatever its length.
    void Learn(const std::uint8_t* packet, std::size_t size);
    void Clear() { m_known.clear(); }
    const std::map<std::string, unsigned short>& Known() const { return m_known; }

private:
    std::map<std::string, unsigned short> m_known;
};

}  // namespace fuzz
