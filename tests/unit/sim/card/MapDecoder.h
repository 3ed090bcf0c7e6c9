#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vexo_sim {

struct MapMessage {
    std::uint32_t flag;
    std::uint32_t index;
    std::string id;

    bool operator==(const MapMessage& other) const {
        return flag == other.flag && index == other.index && id == other.id;
    }
};

/// Takes a contract-map packet apart as its reader does. Reports what does not fit as a test failure.
std::vector<MapMessage> decodeMap(const std::vector<unsigned char>& packet);

}  // namespace vexo_sim
