#include "tests/unit/sim/card/MapDecoder.h"

#include <gtest/gtest.h>

namespace vexo_sim {
namespace {

std::uint32_t be16(const std::vector<unsigned char>& bytes, std::size_t at) {
    return std::uint32_t{bytes.at(at)} << 8 | bytes.at(at + 1);
}

}  // namespace

std::vector<MapMessage> decodeMap(const std::vector<unsigned char>& packet) {
    std::vector<MapMessage> messages;
    EXPECT_GE(packet.size(), 15U);
    const std::size_t end = 14 + be16(packet, 12);
    EXPECT_EQ(packet.size(), end);
    for (std::size_t at = 14; at + 1 < end;) {
        const std::size_t header = messages.empty() ? 9 : 5;
        const std::size_t length = be16(packet, at);
        if (length < header || at + length > end) {
            ADD_FAILURE() << "message of " << length << " bytes at " << at << " of " << end;
            break;
        }
        const std::string id(packet.begin() + static_cast<std::ptrdiff_t>(at + header),
                             packet.begin() + static_cast<std::ptrdiff_t>(at + length));
        messages.push_back({packet.at(at + header - 3), be16(packet, at + header - 2), id});
        at += length;
    }
    return messages;
}

}  // namespace vexo_sim
